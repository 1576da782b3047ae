#pragma once
// 8-bit gray PNG files for the preview tools and the stencil studio: pages
// are written as they will look on paper and read back from whatever PNG a
// user hands in.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct GrayPage {
  uint32_t width = 0;
  uint32_t height = 0;
  std::vector<unsigned char> pixels;  // width * height bytes, row after row, 0 black, 255 white
};

// Pages of more pixels are refused on reading, so that a corrupt header
// cannot make the reader allocate gigabytes.
constexpr size_t kPngMaxPixels = size_t{1} << 28;

// Writes `height` rows of `width` bytes, `stride` bytes apart, as an 8-bit
// gray PNG. Returns false and sets `error` when the file cannot be written.
bool kelvoPngWriteGray(const std::string& path, const unsigned char* pixels, uint32_t width, uint32_t height,
                       size_t stride, std::string& error);

// Reads any PNG as 8-bit gray: palette, colour and 16-bit images are
// converted, transparent parts are laid on white paper.
bool kelvoPngReadGray(const std::string& path, GrayPage& page, std::string& error);
