#include "stencil/jv_chain.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "stencil/jv_math.h"
#include "stencil/jv_workers.h"

namespace jvk {

namespace {

// An exhaustive run of my_sqrt over every positive finite float ended in at
// most 68 steps, except for the smallest subnormal, whose half rounds to 0
// and then runs through inf to NaN. A cap well above 68 therefore only ever
// stops runs that would never end, and changes no result.
const int kSqrtStepLimit = 200;

}  // namespace

int momentsThreshold(const uint8_t* gray, int32_t n) {
  // Four partial histograms keep successive equal pixels from waiting on
  // each other's count; the totals are the same integers.
  uint32_t part[4][256] = {};
  int32_t i = 0;
  for (; i + 4 <= n; i += 4) {
    ++part[0][gray[i]];
    ++part[1][gray[i + 1]];
    ++part[2][gray[i + 2]];
    ++part[3][gray[i + 3]];
  }
  for (; i < n; ++i) ++part[0][gray[i]];
  uint32_t hist[256];
  for (int k = 0; k < 256; ++k) hist[k] = part[0][k] + part[1][k] + part[2][k] + part[3][k];

  float p[256];
  for (int k = 0; k < 256; ++k) p[k] = static_cast<float>(hist[k]) / static_cast<float>(n);

  float m0 = 1.0f, m1 = 0.0f, m2 = 0.0f, m3 = 0.0f;
  for (int k = 0; k < 256; ++k) {
    m1 = static_cast<float>(k) * p[k] + m1;
    m2 = static_cast<float>(k * k) * p[k] + m2;
    m3 = static_cast<float>(k * k * k) * p[k] + m3;
  }

  float cd = m0 * m2 + (-(m1 * m1));
  float c0 = ((-m2) * m2 + m1 * m3) / cd;
  float c1 = (m0 * (-m3) + m2 * m1) / cd;
  float disc = static_cast<float>(static_cast<double>(c0) * -4.0 + static_cast<double>(c1 * c1));
  if (0 > disc) return 128;

  // A single gray level gives 0/0 here; nearly uniform pages can give NaN
  // or +inf. my_sqrt would never return on those.
  float root = 0.0f;
  if (!std::isfinite(disc) || !my_sqrt_bounded(disc, kSqrtStepLimit, &root)) return 128;
  float z0 = 0.5f * ((-c1) - root);
  float z1 = 0.5f * ((-c1) + root);
  float p0 = (z1 - m1) / (z1 - z0);

  float s = 0.0f;
  for (int k = 0; k < 256; ++k) {
    s = p[k] + s;
    if (s > p0) return k;
  }
  return -1;
}

void gammaTable(int pivot, float gammaLow, float gammaHigh, uint8_t table[256]) {
  const float fpivot = static_cast<float>(pivot);
  const float span = static_cast<float>(255LL - pivot);
  for (int i = 0; i < 256; ++i) {
    const float fi = static_cast<float>(i);
    float v;
    if (i < pivot) {
      v = my_pow(fi / fpivot, gammaLow) * fpivot;
    } else if (pivot == 255) {
      // Only entry 255 gets here, where the base would be 0/0; the pivot
      // maps onto itself as in every other table.
      v = 255.0f;
    } else {
      v = my_pow((fi - fpivot) / span, gammaHigh) * span + fpivot;
    }
    table[i] = static_cast<uint8_t>(jv_trunc_i32(v));
  }
}

// ---- unsharp mask, streamed by rows ----

BlurTaps blurTapsFor(const double* taps, int size) {
  BlurTaps t{};
  t.taps = taps;
  t.size = size;
  t.half = size / 2;
  t.fast = false;
  if (size < 1 || size % 2 == 0 || t.half > kMaxBlurHalf) return t;
  double sum = 0.0;
  for (int k = 0; k < size; ++k) {
    if (!(taps[k] > 0.0) || !std::isfinite(taps[k]) || taps[k] != taps[size - 1 - k]) return t;
    sum += taps[k];
  }
  // u: the relative rounding of a float operation. Terms in the order
  // blurBytes (jv_kernels_impl.h) adds them, the middle one first; a term
  // is a level (at most 255) or the sum of two (at most 510) times a tap.
  const double u = std::ldexp(1.0, -24);
  double tapError = 0.0, roundings = 0.0, partial = 0.0;
  for (int i = 0; i <= t.half; ++i) {
    const int k = i == 0 ? t.half : i - 1;
    const float f = static_cast<float>(taps[k]);
    t.paired[k] = f;
    const double most = k == t.half ? 255.0 : 510.0;
    tapError += most * std::fabs(static_cast<double>(f) - taps[k]);
    const double term = most * static_cast<double>(f) * (1.0 + 4.0 * u);
    partial += term;
    roundings += u * term;               // the product
    if (i > 0) roundings += u * partial;  // the addition
  }
  // S bounds the float sum and the double sum D alike.
  const double s = std::max(partial, 255.0 * sum) * (1.0 + 1e-6);
  const double doubleError = 4.0 * size * std::ldexp(1.0, -53) * s;  // D against the exact sum
  const double roundingOfD = u * (2.0 * s + 1.0);                    // (float)D, then + 0.5f
  const double check = 2.0 * u * (s + 2.0);                           // A + low, A + high, low and high as floats
  const double bound = (tapError + roundings + doubleError + roundingOfD + check) * 1.01 + 1e-6;
  if (bound > 0.01) return t;
  t.low = static_cast<float>(0.5 - bound);
  t.high = static_cast<float>(0.5 + bound);
  t.bound = bound;
  t.fast = true;
  return t;
}

namespace {

// One thread's rows, whole rows at a time. For output row y the vertical
// pass reads the horizontally blurred rows clamp(y - half .. y + half),
// kept as floats in a ring of taps2 rows; the gamma-mapped rows g, as
// floats half a kernel wider on both sides for the horizontal pass, are
// kept in a ring beside them, as the weighting reads row y itself. A
// source row is mapped before the output row of the same number is
// written, so the output may overwrite the source; the rows of the
// neighbouring threads' shares then come from copies made before any
// thread started.
struct UnsharpScratch {
  size_t padded;               // floats in a row of g: width + taps2 - 1
  std::vector<float> levels;   // ring: taps2 padded rows of g
  std::vector<float> blurred;  // ring: taps2 rows of the horizontal pass
  std::vector<const float*> rowPointers;
  // In place: the source rows [aboveFrom, first) and [end, end + below rows).
  std::vector<uint8_t> above, below;
  int64_t aboveFrom = 0;

  UnsharpScratch(int64_t width, int taps2)
      : padded(static_cast<size_t>(width + taps2 - 1)),
        levels(padded * static_cast<size_t>(taps2)),
        blurred(static_cast<size_t>(width) * static_cast<size_t>(taps2)),
        rowPointers(static_cast<size_t>(taps2)) {}
};

struct UnsharpJob {
  const uint8_t* gray;
  int64_t width;
  int64_t height;
  float table[256];  // g = table[gray], as a float
  jvk::BlurTaps taps;
  float alpha, beta, gamma;
  uint8_t* out;
  bool inPlace;
  const jvk::Kernels* kernels;
};

// dst[i] = table[src[i]]: a load, a lookup and a store a pixel.
void mapToFloats(const float* table, const uint8_t* src, size_t n, float* dst) {
#pragma GCC unroll 8
  for (size_t i = 0; i < n; ++i) dst[i] = table[src[i]];
}

void unsharpRows(const UnsharpJob& job, UnsharpScratch& s, int64_t ya, int64_t yb) {
  const int64_t w = job.width;
  const int64_t h = job.height;
  const int taps2 = job.taps.size;
  const int64_t half = job.taps.half;
  const size_t uw = static_cast<size_t>(w);
  auto level = [&](int64_t row) { return &s.levels[static_cast<size_t>(row % taps2) * s.padded]; };
  auto blurred = [&](int64_t row) { return &s.blurred[static_cast<size_t>(row % taps2) * uw]; };
  auto clampRow = [&](int64_t r) { return r < 0 ? 0 : (r > h - 1 ? h - 1 : r); };
  auto sourceRow = [&](int64_t r) -> const uint8_t* {
    if (job.inPlace && r < ya) return &s.above[static_cast<size_t>(r - s.aboveFrom) * uw];
    if (job.inPlace && r >= yb) return &s.below[static_cast<size_t>(r - yb) * uw];
    return job.gray + r * w;
  };

  int64_t next = clampRow(ya - half);  // the next row to blur horizontally
  for (int64_t y = ya; y < yb; ++y) {
    for (const int64_t last = clampRow(y + half); next <= last; ++next) {
      float* p = level(next);
      mapToFloats(job.table, sourceRow(next), uw, p + half);
      for (int64_t i = 0; i < half; ++i) {
        p[i] = p[half];
        p[half + w + i] = p[half + w - 1];
      }
      job.kernels->blurRowFloats(p, job.taps, uw, blurred(next));
    }
    for (int k = 0; k < taps2; ++k) s.rowPointers[static_cast<size_t>(k)] = blurred(clampRow(y - half + k));
    job.kernels->blurColumnWeighted(s.rowPointers.data(), job.taps, level(y) + half, job.alpha, job.beta, job.gamma,
                                    uw, job.out + y * w);
  }
}

}  // namespace

void unsharpInto(const uint8_t* gray, int64_t width, int64_t height, const uint8_t* table, const double* taps,
                 int taps2, float weight, uint8_t* out, const Kernels& kernels, int threads) {
  if (width <= 0 || height <= 0) return;
  UnsharpJob job;
  job.gray = gray;
  job.width = width;
  job.height = height;
  for (int v = 0; v < 256; ++v) job.table[v] = static_cast<float>(table != nullptr ? table[v] : v);
  job.taps = blurTapsFor(taps, taps2);
  job.alpha = 1.0f + weight;
  job.beta = -weight;
  job.gamma = 0.0f;
  job.out = out;
  job.inPlace = out == gray;
  job.kernels = &kernels;
  const int64_t n = std::max<int64_t>(1, std::min<int64_t>(threads, height));
  const int64_t half = taps2 / 2;
  // Every share's buffers are made here, before any thread starts, so
  // that no worker allocates (or throws); so are the copies of the rows
  // around each share, which the neighbouring thread may overwrite.
  std::vector<std::unique_ptr<UnsharpScratch>> scratch;
  for (int64_t i = 0; i < n; ++i) {
    scratch.push_back(std::make_unique<UnsharpScratch>(width, taps2));
    if (!job.inPlace || n == 1) continue;
    UnsharpScratch& s = *scratch.back();
    const int64_t ya = height * i / n, yb = height * (i + 1) / n;
    s.aboveFrom = std::max<int64_t>(ya - half, 0);
    const int64_t belowEnd = std::min<int64_t>(yb + half, height);
    s.above.assign(gray + s.aboveFrom * width, gray + ya * width);
    s.below.assign(gray + yb * width, gray + belowEnd * width);
  }
  // The page is cut into n shares whatever number of threads starts. Each
  // share writes only its own rows of `out` and reads rows of `gray` that
  // no other share writes (or their copies): no shared mutable data; join
  // makes the rows visible.
  runWorkers(static_cast<int>(n), [&](int index, int count) {
    for (int64_t i = index; i < n; i += count)
      unsharpRows(job, *scratch[static_cast<size_t>(i)], height * i / n, height * (i + 1) / n);
  });
}

// ---- error diffusion ----

namespace {

// The kernel's weights and frame handling, one pixel at a time: the path
// for pages too wide for the band kernels' 32-bit lane positions. Works in
// place: the level of a pixel is read before its byte is written.
void edfSerial(uint8_t* image, int64_t w, int64_t h, float limit, float* values) {
  static const float kWeights[6] = {0.505786f, -0.052926f, 0.226194f, 0.128835f, 0.243191f, -0.111078f};
  const float share = 0.1427f;
  const float oneShare = share + 0.0f;
  const float adjust[3] = {(1.0f - 0.0f) * -255.0f, (1.0f - oneShare) * -255.0f, (1.0f - (share + oneShare)) * -255.0f};
  const size_t span = static_cast<size_t>(w) + 4;
  std::vector<float> errors(2 * span, 0.0f);
  float* cur = errors.data() + 2;
  float* next = cur + span;
  for (int64_t y = 0; y < h; ++y) {
    uint8_t* o = image + y * w;
    const uint8_t* up = o - w;  // read only on interior rows
    const bool innerRow = y >= 1 && y < h - 1;
    float here = cur[0];
    float right = cur[1];
    for (int64_t x = 0; x < w; ++x) {
      const float v = here + static_cast<float>(o[x]);
      if (values != nullptr) values[y * w + x] = v;
      const bool dot = v > limit;
      int zeros = 0;
      if (innerRow && x >= 1 && x < w - 1) zeros = (o[x - 1] == 0) + (up[x] == 0);
      const float e = v + (dot ? adjust[zeros] : 0.0f);
      o[x] = dot ? 255 : 0;
      const float p0 = e * kWeights[0], p1 = e * kWeights[1], p2 = e * kWeights[2];
      const float p3 = e * kWeights[3], p4 = e * kWeights[4], p5 = e * kWeights[5];
      here = p0 + right;
      right = p1 + cur[x + 2];
      next[x - 2] = p2 + next[x - 2];
      next[x - 1] = p3 + next[x - 1];
      next[x] = p4 + next[x];
      next[x + 1] = p5 + next[x + 1];
    }
    float* t = cur;
    cur = next;
    next = t;
    std::fill(next - 2, next - 2 + span, 0.0f);
  }
}

// The band kernels keep lane positions in 32 bits.
const int64_t kMaxBandWidth = int64_t{1} << 30;

// Publishing every block would make the two threads trade the cache line of
// the counter 300 times a row; every 64 steps is plenty, as a band trails
// the one above by about 4 * rows + 64 steps anyway.
const int64_t kPublishEvery = 64;

// A band keeps this many steps further behind the one above than it must,
// so that it does not read (or have prefetched) the cache lines of the
// handoff row that the band above is still writing.
const int64_t kExtraLead = 256;

// A band that had to sleep for the one above sleeps until that one is this
// many steps ahead (about an eighth of an A4 row), so that the two do not
// trade a wake-up every few blocks.
const int64_t kSleepLead = 320;

// The link of one band to the band above (which it waits for) and to the
// band below (which waits for it), through counters shared by the two
// threads. A counter holds band * stride + steps done, so it only grows,
// also when a later band takes over its slot, and a value left by an
// earlier band is always below anything a waiter asks for.
class BandLink final : public BandSync {
 public:
  BandLink(Progress* above, int64_t aboveBase, Progress* mine, int64_t myBase, int64_t end)
      : above_(above), aboveBase_(aboveBase), mine_(mine), myBase_(myBase), end_(end) {}

  void waitAbove(int64_t steps) override {
    if (above_ == nullptr) return;
    steps += kExtraLead;
    if (steps > end_) steps = end_;
    const int64_t target = aboveBase_ + (steps - kEdfFirstStep);
    if (seen_ >= target) return;
    seen_ = above_->waitAtLeast(target, target + kSleepLead, aboveBase_ + (end_ - kEdfFirstStep));
  }

  void publish(int64_t steps) override {
    if (mine_ == nullptr) return;
    if (steps < end_ && steps - published_ < kPublishEvery) return;
    published_ = steps;
    mine_->publish(myBase_ + (steps - kEdfFirstStep));
  }

 private:
  Progress* above_;
  int64_t aboveBase_;
  Progress* mine_;
  int64_t myBase_;
  int64_t end_;
  int64_t seen_ = -1;
  int64_t published_ = kEdfFirstStep;
};

}  // namespace

void edfSerialInPlace(uint8_t* image, int64_t width, int64_t height, int threshold, float* values) {
  if (width > 0 && height > 0) edfSerial(image, width, height, static_cast<float>(threshold), values);
}

void edfInPlace(uint8_t* image, int64_t width, int64_t height, int threshold, const Kernels& kernels, int threads,
                float* values) {
  if (width <= 0 || height <= 0) return;
  const float limit = static_cast<float>(threshold);
  if (width > kMaxBandWidth) {
    edfSerial(image, width, height, limit, values);
    return;
  }
  const int rows = kernels.edfRows;
  const int64_t bands = (height + rows - 1) / rows;
  const size_t uw = static_cast<size_t>(width);
  const int64_t workers = threads < bands ? threads : bands;

  if (workers <= 1) {
    // Bands one after the other; band b hands its last row's errors to band
    // b + 1 through one of two rows.
    std::vector<float> handoff(bands > 1 ? 2 * uw : 0);
    for (int64_t b = 0; b < bands; ++b) {
      EdfBand band{image,
                   width,
                   height,
                   b * rows,
                   limit,
                   b > 0 ? &handoff[static_cast<size_t>((b - 1) & 1) * uw] : nullptr,
                   b + 1 < bands ? &handoff[static_cast<size_t>(b & 1) * uw] : nullptr,
                   nullptr,
                   values};
      kernels.edfBand(band);
    }
    return;
  }

  // The wavefront on several threads. Band b runs on worker b mod n and
  // waits, block by block, until band b - 1 is far enough ahead (see
  // edfStepsNeeded): band b - 1 writes the handoff row and its last row of
  // dots (the row above band b) before it publishes the steps that produced
  // them, and band b reads them only after it has seen those steps
  // published (release/acquire through Progress). Apart from that the
  // bands touch disjoint rows of `image`.
  //
  // The handoff rows and counters are `slots` rings, used by band b for the
  // boundary b / b + 1 at slot b mod slots. The band that last read a slot
  // (b - slots + 1) has finished before band b writes it: band b's worker
  // finished band b - n, whose last block waited for band b - n - 1 to
  // finish, which came after every band before it finished, and
  // b - n - 1 >= b - slots + 1 as slots >= n + 2. (With fewer bands every
  // boundary has a slot of its own.) Each band only waits for the band
  // above, which runs on another worker and waits only for bands above it,
  // so the lowest unfinished band can always run: no deadlock.
  const int64_t slots = workers + 2 < bands - 1 ? workers + 2 : bands - 1;
  std::vector<float> handoff(static_cast<size_t>(slots) * uw);
  std::unique_ptr<Progress[]> progress(new Progress[static_cast<size_t>(slots)]);
  const int64_t end = edfEndStep(width, rows);
  const int64_t stride = end - kEdfFirstStep + 1;
  runWorkers(static_cast<int>(workers), [&](int index, int count) {
    for (int64_t b = index; b < bands; b += count) {
      const size_t upper = b > 0 ? static_cast<size_t>((b - 1) % slots) : 0;
      const size_t lower = static_cast<size_t>(b % slots);
      const bool first = b == 0;
      const bool last = b + 1 == bands;
      BandLink link(first ? nullptr : &progress[upper], (b - 1) * stride, last ? nullptr : &progress[lower], b * stride,
                    end);
      EdfBand band{image,
                   width,
                   height,
                   b * rows,
                   limit,
                   first ? nullptr : &handoff[upper * uw],
                   last ? nullptr : &handoff[lower * uw],
                   &link,
                   values};
      kernels.edfBand(band);
    }
  });
}

}  // namespace jvk
