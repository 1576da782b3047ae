#include "image/palette_barcode.h"

#include <algorithm>
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

inline int clampLevel(int v) { return v < 0 ? 0 : (v > 255 ? 255 : v); }

}  // namespace

void kelvoBarcodeTextHalftone(long width, long height, const KelvoLevelRowReader& read, const KelvoDotRowSink& emit) {
  if (width <= 0 || height <= 0) return;
  const size_t w = static_cast<size_t>(width);
  // Rows y - 2 .. y + 2 of the page in a ring; row r lives in slot r % 5.
  std::vector<uint8_t> ring(w * kRows);
  auto slot = [&](long r) { return &ring[static_cast<size_t>(r % kRows) * w]; };
  for (long r = 0; r < std::min(height, kRadius + 1); ++r) read(r, slot(r));

  // Received error of this row and the next, one cell of margin each side.
  std::vector<int> errHere(w + 2, 0), errBelow(w + 2, 0);
  std::vector<uint8_t> hard(w), out(w);

  for (long y = 0; y < height; ++y) {
    if (y + kRadius < height) read(y + kRadius, slot(y + kRadius));
    const uint8_t* row = slot(y);
    const long top = std::max(0L, y - kRadius);
    const long bottom = std::min(height - 1, y + kRadius);

    for (long x = 0; x < width; ++x) {
      const int level = row[x];
      bool isHard = level <= kNearPaper || level >= kNearInk;
      if (!isHard) {
        int lo = 255, hi = 0;
        for (long i = std::max(0L, x - kRadius); i <= std::min(width - 1, x + kRadius); ++i) {
          lo = std::min<int>(lo, row[i]);
          hi = std::max<int>(hi, row[i]);
        }
        isHard = hi - lo >= kEdgeContrast;
      }
      if (!isHard) {
        int lo = 255, hi = 0;
        for (long r = top; r <= bottom; ++r) {
          const int v = slot(r)[x];
          lo = std::min(lo, v);
          hi = std::max(hi, v);
        }
        isHard = hi - lo >= kEdgeContrast;
      }
      hard[static_cast<size_t>(x)] = isHard ? 1 : 0;
    }

    std::fill(errBelow.begin(), errBelow.end(), 0);
    int* here = errHere.data() + 1;
    int* below = errBelow.data() + 1;
    for (long x = 0; x < width; ++x) {
      const int level = row[x];
      if (hard[static_cast<size_t>(x)]) {
        uint8_t dot = level > 128 ? 1 : 0;
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
