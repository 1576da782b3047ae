#pragma once
#include <cstdint>
#include <vector>

#include "image/palette_image.h"

// An 8-bit gray page whose index equals its level, rows in memory order.
inline void makeGray(PaletteImage& img, unsigned w, unsigned h, std::vector<uint8_t> levels) {
  levels.resize(static_cast<size_t>(w) * h);
  img.CreateFromArray(levels.data(), w, h, 8, w, false);
}

inline void makeFlat(PaletteImage& img, unsigned w, unsigned h, uint8_t level) {
  makeGray(img, w, h, std::vector<uint8_t>(static_cast<size_t>(w) * h, level));
}

// Every pixel index, row by row.
inline std::vector<int> indices(PaletteImage& img) {
  std::vector<int> out;
  for (long y = 0; y < static_cast<long>(img.GetHeight()); ++y)
    for (long x = 0; x < static_cast<long>(img.GetWidth()); ++x) out.push_back(img.GetPixelIndex(x, y));
  return out;
}
