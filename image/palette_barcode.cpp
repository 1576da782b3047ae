#include "image/palette_barcode.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <vector>

namespace {

constexpr int kNearPaper = 16;
constexpr int kNearInk = 239;
constexpr int kEdgeContrast = 96;
// A lone module that an enlarging filter spread thin over four pixels: its
// peak (or dip) stands this far from some neighbour and its level this far
// from paper (or ink).
constexpr int kPeakRise = 64;
constexpr int kPeakFloor = 64;
constexpr long kRadius = 2;
constexpr long kRows = 2 * kRadius + 1;
// Where a picture was enlarged by interpolation, a pixel between two rows (or
// columns) of the original is a mix of both; its share of each is read off
// clean steps nearby (paper on one side, full ink on the other) within this
// many pixels along the row (for rows) or above and below (for columns),
// when those steps agree (shares in 1/256, spread as variance).
constexpr long kShareReach = 32;
constexpr long long kShareVariance = 655;  // a spread of about 0.1 of a pixel
constexpr int kNoShare = -1;

std::atomic<bool> gShortcut{true};

inline int clampLevel(int v) { return v < 0 ? 0 : (v > 255 ? 255 : v); }

// The share (0..256) of the middle pixel that belongs to the side of a, when
// a and b are paper and full ink (either way round) and the middle is neither.
inline int stepShare(int a, int mid, int b) {
  // Most pixels are paper or ink themselves: that test first.
  if (mid <= kNearPaper || mid >= kNearInk) return kNoShare;
  const bool step = (a >= kNearInk && b <= kNearPaper) || (a <= kNearPaper && b >= kNearInk);
  if (!step) return kNoShare;
  const int num = std::abs(mid - b) * 256, den = std::abs(a - b);
  return (num + den / 2) / den;
}

// Running count, sum and sum of squares of shares.
struct ShareSums {
  long long n = 0, s = 0, ss = 0;
  void add(int v, int sign) {
    if (v == kNoShare) return;
    n += sign;
    s += sign * v;
    ss += sign * static_cast<long long>(v) * v;
  }
  // The agreed share, or kNoShare.
  int share() const {
    if (n <= 0 || n * ss - s * s > kShareVariance * n * n) return kNoShare;
    return static_cast<int>((s + n / 2) / n);
  }
};

// A pixel of an enlarged picture mixes two pixels of the original, the
// earlier (above, or to the left) with share t and the later. What it stands
// for after unmixing: the earlier when t is half or more, else the later.
struct Unmixed {
  int level;           // what the pixel stands for
  int earlier, later;  // the two levels of the original, as far as known
  int share;           // t, or kNoShare where nothing is known (all three are then the level)
};

inline Unmixed plain(int level) { return {level, level, level, kNoShare}; }

// Unmixes a pixel of level `level` and share t against the pixel before it.
// The sources move on by one when the share grows (the enlargement's grid
// passed a pixel of the original between the two): the earlier source is then
// the previous pixel's later one, else the same earlier one. Below an
// enlargement of 2 the previous pixel may stand for its earlier source while
// this one's earlier source is its later: the earlier must be that, not what
// the previous pixel stands for.
inline Unmixed unmix(int level, const Unmixed& before, int t) {
  if (t == kNoShare) return plain(level);
  const bool movedOn = before.share == kNoShare || t > before.share;
  const int earlier = movedOn ? before.later : before.earlier;
  const int later = clampLevel((level * 256 - t * earlier + (256 - t) / 2) / (256 - t));
  // A pixel halfway (an enlargement by 2 gives 127 or 128 there, so within
  // 2/256) joins the earlier side at both edges of a bar, which keeps its width.
  return {t >= 126 ? earlier : later, earlier, later, t};
}

// Shares of column mixes that no clean step shows, read off the grid of the
// enlargement. An enlarging filter maps every column x of the page to
// x * r + b pixels of the picture (r the same everywhere, below 1), and a
// column's share of its earlier pixel is 1 - frac(x * r + b). Where a
// 1.5-dot module stands alone no pixel of it is full ink, so clean steps are
// rare; the ones there are fix r and b. Known shares within kShareReach of
// each other form a group; a group of kGridPoints to kGridMostPoints of them
// fits a grid when every one lies within kGridSlack of it, and fills the
// columns within kShareReach of the group that need a share, if every grid
// that fits gives the same share there (several do when the known columns
// repeat at one spacing). Shares are in 1/256; phases in 1/65536 of a pixel.
// A group with more known shares has few gaps to fill, and fitting it would
// cost more than it gives.
constexpr int kGridPoints = 3;
constexpr int kGridMostPoints = 32;
constexpr int kGridSlack = 16 * 256;  // 16/256 of a pixel
constexpr int kGridSteps = 1024;      // r is tried in steps of 1/1024

inline int wrapPhase(long long d) {  // to -32768 .. 32767
  return static_cast<int>(((d % 65536) + 65536 + 32768) % 65536) - 32768;
}

class GridShares {
 public:
  // Fills `filled` (a copy of `known`) where `needs` is set and the grid of
  // a group of known shares tells the share.
  void fill(const std::vector<int>& known, const std::vector<uint8_t>& needs, std::vector<int>& filled) {
    const long width = static_cast<long>(known.size());
    long x = 0;
    while (x < width) {
      if (known[static_cast<size_t>(x)] == kNoShare) {
        ++x;
        continue;
      }
      // A group: known shares with gaps of at most kShareReach.
      Group g;
      long last = x;
      for (; x < width && x - last <= kShareReach; ++x) {
        const int t = known[static_cast<size_t>(x)];
        if (t == kNoShare) continue;
        g.xs.push_back(x);
        g.phases.push_back((256 - t) * 256);
        last = x;
      }
      const long from = std::max(0L, g.xs.front() - kShareReach), to = std::min(width - 1, last + kShareReach);
      const size_t n = g.xs.size();
      if (n < kGridPoints || n > kGridMostPoints) continue;
      bool wanted = false;
      for (long i = from; i <= to && !wanted; ++i) wanted = needs[static_cast<size_t>(i)] != 0;
      if (!wanted) continue;
      const std::vector<Grid>& fits = fitsOf(g);
      if (fits.empty()) continue;
      for (long i = from; i <= to; ++i) {
        if (!needs[static_cast<size_t>(i)]) continue;
        int lo = 65536, hi = -65536;
        const long long p0 = fits[0].r * i + fits[0].b;
        for (const Grid& f : fits) {
          const int d = wrapPhase(f.r * i + f.b - p0);
          lo = std::min(lo, d);
          hi = std::max(hi, d);
        }
        if (hi - lo > kGridSlack) continue;  // the grids that fit disagree here
        long long phase = (p0 + (lo + hi) / 2) % 65536;
        if (phase < 0) phase += 65536;
        const int t = 256 - static_cast<int>((phase + 128) / 256);
        if (t > 0 && t < 256) filled[static_cast<size_t>(i)] = t;
      }
    }
  }

 private:
  struct Grid {
    long long r, b, error;
  };
  struct Group {
    std::vector<long> xs;
    std::vector<int> phases;
    bool operator==(const Group& o) const { return xs == o.xs && phases == o.phases; }
  };

  // The grids that fit a group: every step of r whose grid, anchored at the
  // mean offset, holds every known share within kGridSlack; of each run of
  // such steps, the one with the least squared error (runs apart are
  // different grids). Rows of one symbol mostly show the same known shares:
  // the last few groups' fits are kept.
  const std::vector<Grid>& fitsOf(const Group& g) {
    for (const Cached& c : cache_)
      if (c.group == g) return c.fits;
    Cached& c = cache_[next_];
    next_ = (next_ + 1) % cache_.size();
    c.group = g;
    c.fits.clear();
    const size_t n = g.xs.size();
    bool inRun = false;
    for (int step = 1; step < kGridSteps; ++step) {
      const long long r = 65536LL * step / kGridSteps;
      const long long b0 = g.phases[0] - r * g.xs[0];
      long long sum = 0;
      for (size_t i = 0; i < n; ++i) sum += wrapPhase(g.phases[i] - r * g.xs[i] - b0);
      const long long b = b0 + sum / static_cast<long long>(n);
      bool holds = true;
      long long error = 0;
      for (size_t i = 0; i < n && holds; ++i) {
        const long long d = wrapPhase(g.phases[i] - r * g.xs[i] - b);
        holds = std::abs(d) <= kGridSlack;
        error += d * d;
      }
      if (!holds) {
        inRun = false;
        continue;
      }
      if (!inRun)
        c.fits.push_back({r, b, error});
      else if (error < c.fits.back().error)
        c.fits.back() = {r, b, error};
      inRun = true;
    }
    return c.fits;
  }

  struct Cached {
    Group group;
    std::vector<Grid> fits;
  };
  std::vector<Cached> cache_ = std::vector<Cached>(8);
  size_t next_ = 0;
};

}  // namespace

bool kelvoBarcodeTextSetShortcut(bool on) { return gShortcut.exchange(on, std::memory_order_relaxed); }

void kelvoBarcodeTextHalftone(long width, long height, const KelvoLevelRowReader& read, const KelvoDotRowSink& emit) {
  if (width <= 0 || height <= 0) return;
  const size_t w = static_cast<size_t>(width);
  // A row is unmixed down its columns (stage one) kShareReach rows before it
  // is unmixed along the row and finished (stage two), so that the column
  // shares of a row come from the rows below it as well as above: the first
  // rows of a symbol have nothing above them but paper.
  const long ahead = kShareReach;
  // Page rows from the one before the row being finished to two past the
  // row being unmixed; row r lives in slot r % rawRows.
  const long rawRows = ahead + 2 * kRadius;
  std::vector<uint8_t> ring(w * static_cast<size_t>(rawRows));
  auto slot = [&](long r) { return &ring[static_cast<size_t>(r % rawRows) * w]; };
  for (long r = 0; r < std::min(height, kRadius); ++r) read(r, slot(r));

  // Rows between the two stages: levels unmixed down the columns, which
  // pixels are two-level, and whether the whole row is paper and ink.
  const long midRows = ahead + 1;
  std::vector<Unmixed> unmixedRows(w * static_cast<size_t>(midRows));
  std::vector<uint8_t> hardRows(w * static_cast<size_t>(midRows));
  std::vector<bool> twoLevelRows(static_cast<size_t>(midRows));
  auto mid = [&](long r) { return static_cast<size_t>(r % midRows) * w; };
  // Shares of column mixes of the rows kShareReach above to kShareReach
  // below the row being finished, summed per column; shares of row mixes
  // along the row being unmixed (prefix sums).
  const long shareRows = ahead + kShareReach + 1;
  std::vector<int> columnShares(w * static_cast<size_t>(shareRows), kNoShare);
  std::vector<ShareSums> columnSums(w);
  std::vector<bool> rowHasShares(static_cast<size_t>(shareRows), false);
  long rowsWithShares = 0;
  std::vector<ShareSums> rowPrefix(w + 1);
  // Received error of this row and the next, one cell of margin each side.
  std::vector<int> errHere(w + 2, 0), errBelow(w + 2, 0);
  std::vector<uint8_t> out(w), columnLo(w), columnHi(w);
  std::vector<Unmixed> along(w);
  std::vector<int> known(w), filled(w);
  GridShares grid;
  std::vector<uint8_t> needs(w);
  const bool shortcut = gShortcut.load(std::memory_order_relaxed);

  for (long k = 0; k < height + ahead; ++k) {
    // The row kShareReach + 1 + kShareReach rows back leaves the column
    // sums. Most rows hold no share at all; such a row leaves the sums
    // untouched on the way in and out.
    const size_t shareSlot = static_cast<size_t>(k % shareRows);
    int* shares = &columnShares[shareSlot * w];
    if (rowHasShares[shareSlot]) {
      for (size_t i = 0; i < w; ++i) columnSums[i].add(shares[i], -1);
      rowHasShares[shareSlot] = false;
      --rowsWithShares;
    }
    if (k < height) {
      // Stage one for row y.
      const long y = k;
      if (y + kRadius < height) read(y + kRadius, slot(y + kRadius));
      const uint8_t* row = slot(y);
      Unmixed* unmixed = &unmixedRows[mid(y)];
      uint8_t* hard = &hardRows[mid(y)];
      bool twoLevel = true;
      for (size_t i = 0; i < w && twoLevel; ++i) twoLevel = row[i] <= kNearPaper || row[i] >= kNearInk;
      twoLevelRows[static_cast<size_t>(y % midRows)] = twoLevel;
      if (twoLevel && shortcut) {
        // Every pixel hard, no share down or along: each stands for itself.
        for (size_t i = 0; i < w; ++i) {
          unmixed[i] = plain(row[i]);
          hard[i] = 1;
        }
      } else {
        // The rows of the vertical window, looked up once a row rather than per pixel.
        const uint8_t* window[kRows];
        long windowRows = 0;
        for (long r = std::max(0L, y - kRadius); r <= std::min(height - 1, y + kRadius); ++r)
          window[windowRows++] = slot(r);
        // The 5 x 5 square around a pixel: each column's range over the
        // window's rows first, then the range of five of those along the row.
        for (long x = 0; x < width; ++x) {
          int lo = 255, hi = 0;
          for (long r = 0; r < windowRows; ++r) {
            const int v = window[r][x];
            lo = std::min(lo, v);
            hi = std::max(hi, v);
          }
          columnLo[static_cast<size_t>(x)] = static_cast<uint8_t>(lo);
          columnHi[static_cast<size_t>(x)] = static_cast<uint8_t>(hi);
        }
        for (long x = 0; x < width; ++x) {
          const int level = row[x];
          bool isHard = level <= kNearPaper || level >= kNearInk;
          if (!isHard) {
            int lo = 255, hi = 0;
            for (long i = std::max(0L, x - kRadius); i <= std::min(width - 1, x + kRadius); ++i) {
              lo = std::min<int>(lo, columnLo[static_cast<size_t>(i)]);
              hi = std::max<int>(hi, columnHi[static_cast<size_t>(i)]);
            }
            isHard = hi - lo >= kEdgeContrast;
          }
          hard[static_cast<size_t>(x)] = isHard ? 1 : 0;
        }

        // Down the columns: a pixel between two rows of an enlarged picture.
        // The running sums stay in registers; rowPrefix[0] is never written.
        if (y > 0 && y + 1 < height) {
          const uint8_t* up = slot(y - 1);
          const uint8_t* down = slot(y + 1);
          ShareSums run;
          for (long x = 0; x < width; ++x) {
            run.add(stepShare(up[x], row[x], down[x]), 1);
            rowPrefix[static_cast<size_t>(x) + 1] = run;
          }
        } else {
          std::fill(rowPrefix.begin(), rowPrefix.end(), ShareSums());
        }
        const Unmixed* above = y > 0 ? &unmixedRows[mid(y - 1)] : nullptr;
        for (long x = 0; x < width; ++x) {
          const size_t i = static_cast<size_t>(x);
          unmixed[i] = plain(row[x]);
          if (y == 0 || !hard[i]) continue;
          ShareSums near = rowPrefix[static_cast<size_t>(std::min(width, x + kShareReach + 1))];
          const ShareSums& before = rowPrefix[static_cast<size_t>(std::max(0L, x - kShareReach))];
          near.n -= before.n;
          near.s -= before.s;
          near.ss -= before.ss;
          unmixed[i] = unmix(row[x], above[i], near.share());
        }
        // The row's column mixes, for the rows around it.
        bool anyShare = false;
        for (long x = 0; x < width; ++x) {
          const size_t i = static_cast<size_t>(x);
          shares[i] = (x > 0 && x + 1 < width)
                          ? stepShare(unmixed[i - 1].level, unmixed[i].level, unmixed[i + 1].level)
                          : kNoShare;
          if (shares[i] == kNoShare) continue;
          anyShare = true;
          columnSums[i].add(shares[i], 1);
        }
        rowHasShares[shareSlot] = anyShare;
        rowsWithShares += anyShare ? 1 : 0;
      }
    }
    if (k < ahead) continue;

    // Stage two for row y.
    const long y = k - ahead;
    const uint8_t* row = slot(y);
    // A row of only paper and ink, with no column mix in the rows around it
    // to join, is every pixel hard, unmixed to itself and free of peaks: the
    // threshold, and no error passed on.
    if (shortcut && rowsWithShares == 0 && twoLevelRows[static_cast<size_t>(y % midRows)]) {
      for (size_t i = 0; i < w; ++i) out[i] = row[i] > 128 ? 1 : 0;
      std::fill(errHere.begin(), errHere.end(), 0);
      emit(y, out.data());
      continue;
    }
    const Unmixed* unmixed = &unmixedRows[mid(y)];
    const uint8_t* hard = &hardRows[mid(y)];
    // Along the row: a pixel between two columns, its share from the rows
    // around, or from the grid those show where a mixed pixel has none.
    bool anyNeeds = false;
    for (long x = 0; x < width; ++x) {
      const size_t i = static_cast<size_t>(x);
      known[i] = columnSums[i].share();
      const int level = unmixed[i].level;
      needs[i] = hard[i] && known[i] == kNoShare && level > kNearPaper && level < kNearInk;
      anyNeeds = anyNeeds || needs[i];
    }
    if (anyNeeds) {
      filled = known;
      grid.fill(known, needs, filled);
    }
    const std::vector<int>& colShare = anyNeeds ? filled : known;
    for (long x = 0; x < width; ++x) {
      const size_t i = static_cast<size_t>(x);
      const int level = unmixed[i].level;
      along[i] = (x == 0 || !hard[i]) ? plain(level) : unmix(level, along[i - 1], colShare[i]);
    }

    std::fill(errBelow.begin(), errBelow.end(), 0);
    int* here = errHere.data() + 1;
    int* below = errBelow.data() + 1;
    for (long x = 0; x < width; ++x) {
      const int level = row[x];
      if (hard[static_cast<size_t>(x)]) {
        uint8_t dot = along[static_cast<size_t>(x)].level > 128 ? 1 : 0;
        const bool faintInk = !dot && level > kPeakFloor;
        const bool faintPaper = dot && level < 255 - kPeakFloor;
        if (faintInk || faintPaper) {
          int lo = 255, hi = 0;
          for (long r = std::max(0L, y - 1); r <= std::min(height - 1, y + 1); ++r)
            for (long i = std::max(0L, x - 1); i <= std::min(width - 1, x + 1); ++i) {
              if (r == y && i == x) continue;
              const int v = slot(r)[i];
              lo = std::min(lo, v);
              hi = std::max(hi, v);
            }
          if (faintInk && level >= hi && level - lo >= kPeakRise) dot = 1;
          if (faintPaper && level <= lo && hi - level >= kPeakRise) dot = 0;
        }
        out[static_cast<size_t>(x)] = dot;
        continue;
      }
      const int v = clampLevel(level + here[x]);
      const uint8_t dot = v > 128 ? 1 : 0;
      out[static_cast<size_t>(x)] = dot;
      const int error = v - (dot ? 255 : 0);
      here[x + 1] += error * 7 / 16;
      below[x - 1] += error * 3 / 16;
      below[x] += error * 5 / 16;
      below[x + 1] += error * 1 / 16;
    }
    emit(y, out.data());
    std::swap(errHere, errBelow);
  }
}
