// Halftoning, packing and the row encoder against the plain definitions:
// every error-diffusion kernel, the ordered tables and the threshold on
// every width.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "image/barcode_text.h"
#include "image/halftone.h"
#include "printer/zpl_graphic.h"
#include "test_support/random_pages.h"
#include "test_support/reference.h"

namespace {

// The page's dots, (width + 7) / 8 bytes a row.
std::vector<uint8_t> dotsOf(KelvoHalftone method, const std::vector<uint8_t>& page, int width, int height) {
  const size_t rowBytes = (static_cast<size_t>(width) + 7) / 8;
  std::vector<uint8_t> dots(rowBytes * height, 0xA5);
  EXPECT_TRUE(kelvoHalftone(method, page.data(), static_cast<size_t>(width), width, height, dots.data(), rowBytes));
  return dots;
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
    for (long method : {2L, 3L, 4L, 5L, 6L}) {
      for (const Shape& s : shapes) {
        const std::vector<uint8_t> data = kref::randomPage(s.w, s.h, s.w, rng());
        const std::vector<uint8_t> want = kref::ditherToDots(kref::fromArray(data.data(), s.w, s.h, s.w), method);
        ASSERT_EQ(dotsOf(static_cast<KelvoHalftone>(method), data, s.w, s.h), want)
            << "method " << method << ", " << s.w << "x" << s.h;
      }
    }
  }
  kelvoDitherSetPath(1);
}

// Barcode and Text's shortcut for rows of only paper and ink against the
// full computation: pages of two-level blocks with now and then a row mixed
// with grey, pages of bars whose edges are mixed columns for a few rows (an
// enlarged picture's; two-level rows up to 32 below them still join them,
// so the shortcut must wait), and the random pages.
TEST(ImageEquivalence, BarcodeTextShortcutIsTheFullComputation) {
  auto same = [](const std::vector<uint8_t>& page, int w, int h) {
    std::vector<uint8_t> dots[2];
    for (bool shortcut : {false, true}) {
      kelvoBarcodeTextSetShortcut(shortcut);
      dots[shortcut] = dotsOf(KelvoHalftone::kBarcodeText, page, w, h);
    }
    kelvoBarcodeTextSetShortcut(true);
    return dots[1] == dots[0];
  };
  // Mixed columns at 2 (rows 0-2) and at 3 (rows 3-5), then paper from column
  // 2: in the two-level rows below, column 2 joins the ink and column 3 joins
  // column 2, and at row 7 on no ink is near enough to undo that as a peak.
  std::vector<uint8_t> joined;
  for (int y = 0; y < 10; ++y)
    for (int x = 0; x < 8; ++x) {
      const int edge = y >= 3 && y < 6 ? 3 : 2;
      joined.push_back(y < 6 && x == edge ? 160 : (x < edge ? 255 : 0));
    }
  EXPECT_TRUE(same(joined, 8, 10));

  std::mt19937 rng(13);
  for (int n = 0; n < 400; ++n) {
    const int w = n == 0 ? 812 : 1 + static_cast<int>(rng() % 90);
    const int h = n == 0 ? 300 : 1 + static_cast<int>(rng() % 120);
    std::vector<uint8_t> page;
    if (n % 4 == 3) {
      page = kref::randomPage(w, h, w, rng());
    } else {
      const bool bars = n % 4 == 1;
      const int block = 2 + static_cast<int>(rng() % 3), greyRow = 5 + static_cast<int>(rng() % 40);
      const uint32_t pattern = rng();
      const uint8_t mix = static_cast<uint8_t>(126 + rng() % 80);
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
          const int bit = bars ? x / block % 32 : (x / block * 7 + y / (block + 1) * 3) % 32;
          uint8_t v = (pattern >> bit) & 1 ? 255 : 0;
          if (bars && y % 50 < 6 && x % block == 0) v = mix;
          else if (y % greyRow == 1) v = static_cast<uint8_t>(v / 2 + rng() % 120);
          page.push_back(v);
        }
    }
    ASSERT_TRUE(same(page, w, h)) << "page " << n << ", " << w << "x" << h;
  }
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
  ZplRowEncoder encoder(ZplDialect::kKelvo);
  bool prevAllDots = false;
  for (int trial = 0; trial < 3000; ++trial) {
    const int n = 1 + static_cast<int>(trial < 2000 ? rng() % 70 : rng() % 1200);
    const std::vector<uint8_t> row = randomRow(rng, n);
    // Rows go one after another through both, so the repeat rule sees the
    // same predecessors.
    const uint8_t* text = nullptr;
    const size_t length = encoder.encode(row.data(), static_cast<size_t>(n), &text);
    ASSERT_EQ(std::string(reinterpret_cast<const char*>(text), length), kref::zplLine(row.data(), n, prevAllDots))
        << "trial " << trial << ", " << n << " bytes";
  }
}

}  // namespace
