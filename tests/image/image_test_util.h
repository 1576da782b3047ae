#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "image/halftone.h"

// The halftone of a page of w x h levels (0 = paper), rows in memory order:
// 1 for a dot, 0 for paper, row by row.
inline std::vector<int> halftoned(KelvoHalftone method, unsigned w, unsigned h, std::vector<uint8_t> levels) {
  levels.resize(static_cast<size_t>(w) * h);
  const size_t rowBytes = (w + 7) / 8;
  std::vector<uint8_t> dots(rowBytes * h);
  EXPECT_TRUE(kelvoHalftone(method, levels.data(), w, w, h, dots.data(), rowBytes));
  std::vector<int> out;
  for (unsigned y = 0; y < h; ++y)
    for (unsigned x = 0; x < w; ++x) out.push_back((dots[y * rowBytes + x / 8] >> (7 - x % 8)) & 1);
  return out;
}

inline std::vector<int> halftonedFlat(KelvoHalftone method, unsigned w, unsigned h, uint8_t level) {
  return halftoned(method, w, h, std::vector<uint8_t>(static_cast<size_t>(w) * h, level));
}
