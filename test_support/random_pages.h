#pragma once
// Random pages for the equivalence tests: noise, flat areas and smooth
// ramps, so that every halftone sees both busy and quiet stretches.
#include <cstdint>
#include <random>
#include <vector>

namespace kref {

inline std::vector<uint8_t> randomPage(int width, int height, int stride, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> page(static_cast<size_t>(stride) * height);
  const int style = static_cast<int>(rng() % 4);
  const int flat = static_cast<int>(rng() % 256);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < stride; ++x) {
      uint8_t v;
      if (x >= width) {
        // Bytes past the pixels of a row: whatever the raster held there.
        page[static_cast<size_t>(y) * stride + x] = static_cast<uint8_t>(rng());
        continue;
      }
      switch (style) {
        case 0: v = static_cast<uint8_t>(rng()); break;
        case 1: v = static_cast<uint8_t>((x * 7 + y * 3 + flat) & 255); break;
        case 2: v = rng() % 8 == 0 ? static_cast<uint8_t>(rng()) : static_cast<uint8_t>(flat); break;
        default: v = rng() % 3 == 0 ? 255 : (rng() % 2 ? 0 : static_cast<uint8_t>(128 + rng() % 3)); break;
      }
      page[static_cast<size_t>(y) * stride + x] = v;
    }
  return page;
}

}  // namespace kref
