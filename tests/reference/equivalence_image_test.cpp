// Halftoning, packing and the row encoder against the plain definitions:
// every error-diffusion kernel, the ordered tables and the threshold on
// every width.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "image/palette_dither.h"
#include "image/palette_image.h"
#include "tests/common/memory_printer.h"
#include "tests/reference/random_pages.h"
#include "tests/reference/reference.h"

namespace {

void grayImage(PaletteImage& img, const std::vector<uint8_t>& data, int width, int height) {
  ASSERT_TRUE(img.CreateFromArray(const_cast<uint8_t*>(data.data()), width, height, 8, width, false));
}

// The diffusion kernels on every path (row by row, and the wavefront of
// rows in vector lanes) on pages tall enough for many bands of rows, with
// single rows and columns and a whole label's width, against the plain
// scan. The threshold and ordered tables are held to theirs through the
// pipeline's equivalence test.
TEST(ImageEquivalence, DiffusionEveryPathAndShape) {
  struct Shape {
    int w, h;
  };
  std::mt19937 rng(9);
  std::vector<Shape> shapes;
  for (int w = 1; w <= 70; ++w) shapes.push_back({w, 1 + static_cast<int>(rng() % 60)});
  for (int n : {1, 2, 5, 7, 8, 13, 16, 17, 100, 333}) {
    shapes.push_back({n, 1});
    shapes.push_back({1, n});
  }
  shapes.push_back({812, 97});
  shapes.push_back({2481, 23});
  for (int path : {-1, 0, 1}) {
    if (kelvoDitherSetPath(path) != path) continue;  // not on this CPU
    SCOPED_TRACE("path " + std::to_string(path));
    for (long method : {2L, 3L, 4L, 5L, 6L, 9L}) {
      for (const Shape& s : shapes) {
        const std::vector<uint8_t> data = kref::randomPage(s.w, s.h, s.w, rng());
        PaletteImage img;
        grayImage(img, data, s.w, s.h);
        ASSERT_TRUE(img.Dither(method));
        const std::vector<uint8_t> want = kref::ditherTo1(kref::fromArray(data.data(), s.w, s.h, s.w), method);
        ASSERT_EQ(std::vector<uint8_t>(img.GetBits(0), img.GetBits(0) + want.size()), want)
            << "method " << method << ", " << s.w << "x" << s.h;
      }
    }
  }
  kelvoDitherSetPath(1);
}

TEST(ImageEquivalence, DitherFourBitPages) {
  std::mt19937 rng(5);
  for (int width = 1; width <= 40; ++width) {
    for (long method : {0L, 1L, 2L, 3L, 4L, 5L, 6L, 7L, 9L}) {
      kelvoDitherSetPath(static_cast<int>(width % 3) - 1);
      const int height = 1 + static_cast<int>(rng() % (width < 20 ? 6 : 40));
      std::vector<uint8_t> levels(static_cast<size_t>(width) * height);
      for (auto& v : levels) v = static_cast<uint8_t>(rng() % 16);
      PaletteImage img;
      ASSERT_NE(img.Create(width, height, 4, 0), nullptr);
      for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) img.SetPixelIndex(x, y, levels[static_cast<size_t>(y) * width + x]);
      ASSERT_TRUE(img.Dither(method));
      const std::vector<uint8_t> want = kref::dither4(levels, width, height, method);
      for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
          ASSERT_EQ(img.GetPixelIndex(x, y), want[static_cast<size_t>(y) * width + x])
              << "method " << method << " at " << x << "," << y << " of " << width << "x" << height;
    }
  }
  kelvoDitherSetPath(1);
}

// Rows with long runs of each byte value, all-dots rows and short noise,
// so every count letter, the comma and the repeat colon all appear.
std::vector<uint8_t> randomRow(std::mt19937& rng, int n) {
  std::vector<uint8_t> row(static_cast<size_t>(n));
  const int kind = static_cast<int>(rng() % 5);
  for (int i = 0; i < n;) {
    const int run = kind == 0 ? 1 : 1 + static_cast<int>(rng() % (kind == 4 ? 600 : 40));
    const uint8_t v = kind == 3 ? 0xFF : static_cast<uint8_t>(rng() % 3 == 0 ? rng() : (rng() % 2 ? 0 : 0xFF));
    for (int k = 0; k < run && i < n; ++k) row[static_cast<size_t>(i++)] = v;
  }
  if (kind == 2 && n > 1) row.back() = static_cast<uint8_t>(0x80 >> (rng() % 8));
  return row;
}

TEST(ImageEquivalence, RowEncoder) {
  std::mt19937 rng(31337);
  MemoryPrinter p;
  bool prevAllDots = false;
  for (int trial = 0; trial < 3000; ++trial) {
    const int n = 1 + static_cast<int>(trial < 2000 ? rng() % 70 : rng() % 1200);
    const std::vector<uint8_t> row = randomRow(rng, n);
    // Rows go one after another through both, so the repeat rule sees the
    // same predecessors.
    p.ZPLPrintLine(row.data(), n);
    ASSERT_EQ(p.take(), kref::zplLine(row.data(), n, prevAllDots)) << "trial " << trial << ", " << n << " bytes";
  }
}

TEST(ImageEquivalence, GrayToMonoEveryWidthAndSkip) {
  std::mt19937 rng(8);
  MemoryPrinter p;
  for (int bpl = 1; bpl <= 70; ++bpl) {
    for (unsigned long skip : {0UL, 1UL, 3UL, 7UL, 8UL, 9UL, 69UL, 70UL, 500UL}) {
      const int h = 1 + static_cast<int>(rng() % 5);
      std::vector<uint8_t> data(static_cast<size_t>(bpl) * h);
      for (auto& v : data) v = rng() % 2 ? 0 : static_cast<uint8_t>(rng());
      std::vector<uint8_t> want = data;
      const int wantTotal = kref::grayToMono(bpl, h, want.data(), skip);
      p.setSkipRightPixels(skip);
      ASSERT_EQ(p.GrayToMono(bpl, h, data.data()), wantTotal);
      ASSERT_EQ(std::vector<uint8_t>(data.begin(), data.begin() + wantTotal),
                std::vector<uint8_t>(want.begin(), want.begin() + wantTotal))
          << bpl << " bytes a row, skip " << skip;
    }
  }
}

}  // namespace
