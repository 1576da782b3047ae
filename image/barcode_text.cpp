#include "image/barcode_text.h"

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
      // A group: known shares with gaps of at most kShareReach. Its lists
      // keep their room from group to group: a page allocates nothing per row.
      Group& g = group_;
      g.xs.clear();
      g.phases.clear();
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
  // the last 128 groups' fits are kept, more than the groups of one row of
  // the widest shipped model's page (groups are at least 38 dots apart), so
  // a page of repeated rows fits each group once.
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
  std::vector<Cached> cache_ = std::vector<Cached>(128);
  size_t next_ = 0;
  Group group_;
};

}  // namespace

bool kelvoBarcodeTextSetShortcut(bool on) { return gShortcut.exchange(on, std::memory_order_relaxed); }

namespace {

// Shares of column mixes summed down a column over the rows around the row
// being finished: at most 2 * kShareReach + 1 shares of at most 255 each.
struct ColumnSums {
  int32_t n = 0, s = 0, ss = 0;
  void add(int v, int sign) {
    if (v == kNoShare) return;
    n += sign;
    s += sign * v;
    ss += sign * v * v;
  }
  int share() const {
    ShareSums sums;
    sums.n = n;
    sums.s = s;
    sums.ss = ss;
    return sums.share();
  }
};

// A share as kept for the rows around: every share a clean step shows lies in
// 1..255 (the middle pixel differs from both sides), so 0 can stand for none.
inline uint8_t packShare(int share) { return share == kNoShare ? 0 : static_cast<uint8_t>(share); }
inline int unpackShare(uint8_t share) { return share == 0 ? kNoShare : share; }

}  // namespace

void kelvoBarcodeTextHalftone(long width, long height, const KelvoLevelRowReader& read, const KelvoDotRowSink& emit) {
  if (width <= 0 || height <= 0) return;
  const size_t w = static_cast<size_t>(width);
  // Scratch is a few rows' worth of bytes per pixel of a row, and never more
  // rows than the page has: its memory grows with the page's pixels.
  //
  // A row is unmixed down its columns (stage one) kShareReach rows before it
  // is unmixed along the row and finished (stage two), so that the column
  // shares of a row come from the rows below it as well as above: the first
  // rows of a symbol have nothing above them but paper.
  const long ahead = kShareReach;
  // Page rows from the one before the row being finished to two past the
  // row being unmixed; row r lives in slot r % rawRows.
  const long rawRows = std::min(ahead + 2 * kRadius, height);
  std::vector<uint8_t> ring(w * static_cast<size_t>(rawRows));
  auto slot = [&](long r) { return &ring[static_cast<size_t>(r % rawRows) * w]; };
  for (long r = 0; r < std::min(height, kRadius); ++r) read(r, slot(r));

  // Rows between the two stages: levels unmixed down the columns, which
  // pixels are two-level, and whether the whole row is paper and ink. The
  // last row unmixed is kept whole: the next one unmixes against it.
  const long midRows = std::min(ahead + 1, height);
  std::vector<uint8_t> unmixedRows(w * static_cast<size_t>(midRows));
  std::vector<uint8_t> hardRows(w * static_cast<size_t>(midRows));
  std::vector<bool> twoLevelRows(static_cast<size_t>(midRows));
  auto mid = [&](long r) { return static_cast<size_t>(r % midRows) * w; };
  std::vector<Unmixed> above(w);
  // Shares of column mixes of the rows kShareReach above to kShareReach
  // below the row being finished, summed per column.
  const long shareRows = ahead + kShareReach + 1;
  const long shareSlots = std::min(shareRows, height);
  std::vector<uint8_t> columnShares(w * static_cast<size_t>(shareSlots), 0);
  std::vector<ColumnSums> columnSums(w);
  std::vector<bool> rowHasShares(static_cast<size_t>(shareSlots), false);
  long rowsWithShares = 0;
  // Received error of this row and the next, one cell of margin each side.
  std::vector<int> errHere(w + 2, 0), errBelow(w + 2, 0);
  std::vector<uint8_t> out(w), columnLo(w), columnHi(w);
  std::vector<int> known(w), filled(w);
  GridShares grid;
  std::vector<uint8_t> needs(w);
  const bool shortcut = gShortcut.load(std::memory_order_relaxed);

  for (long k = 0; k < height + ahead; ++k) {
    // The row kShareReach + 1 + kShareReach rows back leaves the column
    // sums. Most rows hold no share at all; such a row leaves the sums
    // untouched on the way in and out.
    if (k >= shareRows) {
      const size_t leaving = static_cast<size_t>((k - shareRows) % shareSlots);
      if (rowHasShares[leaving]) {
        const uint8_t* shares = &columnShares[leaving * w];
        for (size_t i = 0; i < w; ++i) columnSums[i].add(unpackShare(shares[i]), -1);
        rowHasShares[leaving] = false;
        --rowsWithShares;
      }
    }
    if (k < height) {
      // Stage one for row y.
      const long y = k;
      const size_t shareSlot = static_cast<size_t>(y % shareSlots);
      uint8_t* shares = &columnShares[shareSlot * w];
      if (y + kRadius < height) read(y + kRadius, slot(y + kRadius));
      const uint8_t* row = slot(y);
      uint8_t* unmixed = &unmixedRows[mid(y)];
      uint8_t* hard = &hardRows[mid(y)];
      bool twoLevel = true;
      for (size_t i = 0; i < w && twoLevel; ++i) twoLevel = row[i] <= kNearPaper || row[i] >= kNearInk;
      twoLevelRows[static_cast<size_t>(y % midRows)] = twoLevel;
      if (twoLevel && shortcut) {
        // Every pixel hard, no share down or along: each stands for itself.
        for (size_t i = 0; i < w; ++i) {
          above[i] = plain(row[i]);
          unmixed[i] = row[i];
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

        // Down the columns: a pixel between two rows of an enlarged picture,
        // its share from the pixels within kShareReach along the row, summed
        // as x moves (the window's shares kept in a ring of its own).
        const bool between = y > 0 && y + 1 < height;
        const uint8_t* up = between ? slot(y - 1) : nullptr;
        const uint8_t* down = between ? slot(y + 1) : nullptr;
        constexpr long kSpan = 2 * kShareReach + 1;
        int spanShares[kSpan];
        ShareSums near;
        auto enter = [&](long i) {
          const int t = stepShare(up[i], row[i], down[i]);
          spanShares[i % kSpan] = t;
          near.add(t, 1);
        };
        if (between)
          for (long i = 0; i < std::min(width, kShareReach); ++i) enter(i);
        for (long x = 0; x < width; ++x) {
          const size_t i = static_cast<size_t>(x);
          if (between) {
            if (x > kShareReach) near.add(spanShares[(x - kShareReach - 1) % kSpan], -1);
            if (x + kShareReach < width) enter(x + kShareReach);
          }
          const Unmixed u = y == 0 || !hard[i] ? plain(row[x]) : unmix(row[x], above[i], near.share());
          above[i] = u;
          unmixed[i] = static_cast<uint8_t>(u.level);
        }
        // The row's column mixes, for the rows around it.
        bool anyShare = false;
        for (long x = 0; x < width; ++x) {
          const size_t i = static_cast<size_t>(x);
          const int t = (x > 0 && x + 1 < width) ? stepShare(unmixed[i - 1], unmixed[i], unmixed[i + 1]) : kNoShare;
          shares[i] = packShare(t);
          if (t == kNoShare) continue;
          anyShare = true;
          columnSums[i].add(t, 1);
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
    const uint8_t* unmixed = &unmixedRows[mid(y)];
    const uint8_t* hard = &hardRows[mid(y)];
    // Along the row: a pixel between two columns, its share from the rows
    // around, or from the grid those show where a mixed pixel has none.
    bool anyNeeds = false;
    for (long x = 0; x < width; ++x) {
      const size_t i = static_cast<size_t>(x);
      known[i] = columnSums[i].share();
      const int level = unmixed[i];
      needs[i] = hard[i] && known[i] == kNoShare && level > kNearPaper && level < kNearInk;
      anyNeeds = anyNeeds || needs[i];
    }
    if (anyNeeds) {
      filled = known;
      grid.fill(known, needs, filled);
    }
    const std::vector<int>& colShare = anyNeeds ? filled : known;

    std::fill(errBelow.begin(), errBelow.end(), 0);
    int* here = errHere.data() + 1;
    int* below = errBelow.data() + 1;
    Unmixed along = plain(0);  // the pixel before, unmixed along the row
    for (long x = 0; x < width; ++x) {
      const size_t i = static_cast<size_t>(x);
      const int level = row[x];
      along = (x == 0 || !hard[i]) ? plain(unmixed[i]) : unmix(unmixed[i], along, colShare[i]);
      if (hard[i]) {
        uint8_t dot = along.level > 128 ? 1 : 0;
        const bool faintInk = !dot && level > kPeakFloor;
        const bool faintPaper = dot && level < 255 - kPeakFloor;
        if (faintInk || faintPaper) {
          int lo = 255, hi = 0;
          for (long r = std::max(0L, y - 1); r <= std::min(height - 1, y + 1); ++r)
            for (long j = std::max(0L, x - 1); j <= std::min(width - 1, x + 1); ++j) {
              if (r == y && j == x) continue;
              const int v = slot(r)[j];
              lo = std::min(lo, v);
              hi = std::max(hi, v);
            }
          if (faintInk && level >= hi && level - lo >= kPeakRise) dot = 1;
          if (faintPaper && level <= lo && hi - level >= kPeakRise) dot = 0;
        }
        out[i] = dot;
        continue;
      }
      const int v = clampLevel(level + here[x]);
      const uint8_t dot = v > 128 ? 1 : 0;
      out[i] = dot;
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
