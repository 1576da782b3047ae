#pragma once
// A random two-dimensional symbol enlarged by bilinear interpolation, as
// CUPS's imagetoraster enlarges a picture of one pixel a module, and the same
// symbol drawn with every edge on the nearest dot (a dot is dark when its
// centre lies in a dark module): what Barcode and Text aims at.
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

struct EnlargedSymbol {
  int dots = 0;                 // the page is dots x dots
  std::vector<uint8_t> levels;  // ink, rows in memory order
  std::vector<int> nearest;     // 1 where the nearest-dot drawing is dark
};

// 8 to 13 modules square with a quiet zone of 2, the grid offset by a random
// sixteenth of a dot both ways; the same seed gives the same page.
inline EnlargedSymbol enlargedSymbol(double scale, unsigned seed) {
  std::mt19937 rng(seed);
  const int n = 8 + static_cast<int>(rng() % 6), quiet = 2;
  std::vector<int> modules(static_cast<size_t>(n * n));
  for (int& v : modules) v = static_cast<int>(rng() & 1);
  auto ink = [&](int r, int k) {
    r -= quiet;
    k -= quiet;
    return (r >= 0 && r < n && k >= 0 && k < n) ? modules[static_cast<size_t>(r * n + k)] : 0;
  };
  const double ox = (rng() % 16) / 16.0, oy = (rng() % 16) / 16.0;
  EnlargedSymbol s;
  s.dots = static_cast<int>((n + 2 * quiet) * scale + 1);
  for (int y = 0; y < s.dots; ++y)
    for (int x = 0; x < s.dots; ++x) {
      // Pixel centres of the picture sit at the middle of its modules.
      const double u = (x + 0.5 - ox) / scale - 0.5, v = (y + 0.5 - oy) / scale - 0.5;
      const int i = static_cast<int>(std::floor(u)), j = static_cast<int>(std::floor(v));
      const double fu = u - i, fv = v - j;
      const double level = (1 - fu) * (1 - fv) * ink(j, i) + fu * (1 - fv) * ink(j, i + 1) +
                           (1 - fu) * fv * ink(j + 1, i) + fu * fv * ink(j + 1, i + 1);
      s.levels.push_back(static_cast<uint8_t>(std::lround(255 * level)));
      s.nearest.push_back(ink(static_cast<int>(std::floor((y + 0.5 - oy) / scale)),
                              static_cast<int>(std::floor((x + 0.5 - ox) / scale))));
    }
  return s;
}
