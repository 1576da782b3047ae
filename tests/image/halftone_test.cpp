#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "image_test_util.h"
#include "test_support/enlarged_symbol.h"

namespace {

// Halftones a flat page and returns its top-left 4x4 tile as "0"/"1" rows,
// after checking that the tile repeats over the whole page.
std::string flatTile(KelvoHalftone method, uint8_t level) {
  const std::vector<int> dots = halftonedFlat(method, 9, 6, level);
  std::string tile;
  for (long y = 0; y < 4; ++y)
    for (long x = 0; x < 4; ++x) tile += static_cast<char>('0' + dots[y * 9 + x]);
  for (long y = 0; y < 6; ++y)
    for (long x = 0; x < 9; ++x) EXPECT_EQ(dots[y * 9 + x], tile[(y % 4) * 4 + x % 4] - '0') << int(level);
  return tile;
}

TEST(Halftone, OrderedTablesOnFlatPages) {
  struct Case { KelvoHalftone method; uint8_t level; const char* tile; };
  const KelvoHalftone ordered = KelvoHalftone::kOrdered4x4, bayer = KelvoHalftone::kBayer,
                      threshold = KelvoHalftone::kThreshold;
  const Case cases[] = {
      // 4x4 ordered: cells whose matrix entry is below (level * 16) / 255.
      {ordered, 16, "1000000000000000"},  {ordered, 128, "1010010110100101"}, {ordered, 254, "1111111111110111"},
      // Bayer: level above {0 192 48 240 / 128 64 176 112 / 32 224 16 208 / 160 96 144 80}.
      {bayer, 1, "1000000000000000"},     {bayer, 128, "1010010110100101"},   {bayer, 200, "1110111110101111"},
      {threshold, 128, "0000000000000000"}, {threshold, 129, "1111111111111111"},  // fixed threshold
  };
  for (const Case& c : cases)
    EXPECT_EQ(flatTile(c.method, c.level), c.tile) << kelvoHalftoneName(c.method) << "/" << int(c.level);
}

// Flat paper and full ink stay so on every width; the stencils are not
// halftones of this library.
TEST(Halftone, EveryMethodEveryWidth) {
  for (int m = 0; m < kKelvoHalftoneCount; ++m) {
    const KelvoHalftone method = static_cast<KelvoHalftone>(m);
    if (kelvoIsStencil(method)) {
      uint8_t page = 0, dot = 0;
      EXPECT_FALSE(kelvoHalftone(method, &page, 1, 1, 1, &dot, 1));
      continue;
    }
    for (unsigned w = 1; w <= 17; ++w)
      for (uint8_t flat : {0, 255})
        EXPECT_EQ(halftonedFlat(method, w, 3, flat), std::vector<int>(w * 3, flat ? 1 : 0))
            << kelvoHalftoneName(method) << " w=" << w;
  }
}

// "Barcode and Text". On an anti-aliased page a pixel's level is the share
// of it a shape covers, times 255.
std::vector<int> barcodeText(unsigned w, unsigned h, const std::vector<uint8_t>& levels) {
  return halftoned(KelvoHalftone::kBarcodeText, w, h, levels);
}

// Bars from 2.3 to 3.55 and from 6.6 to 9.4 dots: their edges round to 2, 4,
// 7 and 9, so dots 2, 3, 7 and 8 print, on every row.
TEST(BarcodeText, BarEdgesLandOnTheNearestDot) {
  const std::vector<uint8_t> row = {0, 0, 179, 140, 0, 0, 102, 255, 255, 102, 0, 0};  // 0.7, 0.55, 0.4, 0.4
  std::vector<uint8_t> page;
  for (int y = 0; y < 3; ++y) page.insert(page.end(), row.begin(), row.end());
  const std::vector<int> bars = {0, 0, 1, 1, 0, 0, 0, 1, 1, 0, 0, 0};
  std::vector<int> expected;
  for (int y = 0; y < 3; ++y) expected.insert(expected.end(), bars.begin(), bars.end());
  EXPECT_EQ(barcodeText(12, 3, page), expected);
}

// One edge from paper to ink at 3 + f dots: pixel 3 is covered 1 - f, and the
// first dot is 3 when f < 0.5 (the edge is nearer dot boundary 3), else 4.
TEST(BarcodeText, AnEdgeAtEverySubpixelPosition) {
  for (int tenth = 0; tenth < 10; ++tenth) {
    const uint8_t covered = static_cast<uint8_t>((10 - tenth) * 255 / 10);
    const int first = tenth < 5 ? 3 : 4;
    std::vector<int> expected(8, 0);
    for (int x = first; x < 8; ++x) expected[x] = 1;
    EXPECT_EQ(barcodeText(8, 1, {0, 0, 0, covered, 255, 255, 255, 255}), expected)
        << "edge at 3." << tenth << ", level " << int(covered);
    // Along a column the same.
    EXPECT_EQ(barcodeText(1, 8, {0, 0, 0, covered, 255, 255, 255, 255}), expected) << "vertical edge at 3." << tenth;
  }
}

// Continuous tone is diffused with Floyd-Steinberg: 100 prints nothing and
// sends 100 * 7 / 16 = 43 right; 143 prints and sends (143 - 255) * 7 / 16 =
// -49 right; 51 prints nothing. The threshold would print no dot at all.
TEST(BarcodeText, ContinuousToneStillDiffuses) {
  const KelvoHalftone method = KelvoHalftone::kBarcodeText;
  EXPECT_EQ(halftonedFlat(method, 3, 1, 100), (std::vector<int>{0, 1, 0}));
  // A quarter-tone patch prints about a quarter of its pixels.
  for (uint8_t level : {64, 128, 192}) {
    int dots = 0;
    for (int v : halftonedFlat(method, 32, 32, level)) dots += v;
    EXPECT_NEAR(dots / 1024.0, level / 255.0, 0.03) << int(level);
  }
  // Near paper and near full ink count as two-level: no stray dots.
  EXPECT_EQ(halftonedFlat(method, 9, 9, 16), std::vector<int>(81, 0));
  EXPECT_EQ(halftonedFlat(method, 9, 9, 239), std::vector<int>(81, 1));
}

// A grey logo beside bars on one label: the bars are the threshold's, dot for
// dot and the same on every row, and the logo is halftoned; its error stops
// at the bars. Columns 0..9 grey 90 (within 2 pixels of paper only: 90 apart,
// still tone), then paper, bars of 2 and 1.4 dots and paper.
TEST(BarcodeText, LogoBesideBars) {
  const std::vector<uint8_t> bars = {0, 0, 255, 255, 0, 0, 255, 102, 0, 0};
  std::vector<uint8_t> page;
  for (int y = 0; y < 6; ++y) {
    page.insert(page.end(), 10, 90);
    page.insert(page.end(), bars.begin(), bars.end());
  }
  const std::vector<int> all = barcodeText(20, 6, page);
  int logoDots = 0;
  for (int y = 0; y < 6; ++y) {
    for (int x = 0; x < 10; ++x) logoDots += all[y * 20 + x];
    for (int x = 10; x < 20; ++x) EXPECT_EQ(all[y * 20 + x], bars[x - 10] > 128 ? 1 : 0) << x << "," << y;
  }
  EXPECT_GT(logoDots, 60 * 90 / 255 - 6);
  EXPECT_LT(logoDots, 60 * 90 / 255 + 6);
}

// An edge counts within two pixels, down a column as along a row. Grey 100
// (tone, diffused: some dots on every line) beside full ink: the two lines
// next to the ink see the edge and take the threshold (no dot, and no lone
// peak, the ink being darker); the third line away diffuses again.
TEST(BarcodeText, AnEdgeReachesTwoPixels) {
  const unsigned n = 8, ink = 6;  // lines 0..5 grey, line 6 ink
  for (bool down : {true, false}) {
    std::vector<uint8_t> page(n * (ink + 1));
    for (unsigned a = 0; a <= ink; ++a)    // a: the line, across the edge
      for (unsigned b = 0; b < n; ++b)     // b: along it
        page[down ? a * n + b : b * (ink + 1) + a] = a == ink ? 255 : 100;
    const unsigned w = down ? n : ink + 1;
    const std::vector<int> all = barcodeText(w, down ? ink + 1 : n, page);
    for (unsigned a = 0; a <= ink; ++a) {
      int dots = 0;
      for (unsigned b = 0; b < n; ++b) dots += down ? all[a * w + b] : all[b * w + a];
      if (a == ink) EXPECT_EQ(dots, 8) << "ink line, down " << down;
      else if (a >= ink - 2) EXPECT_EQ(dots, 0) << "line " << a << ", down " << down;
      else EXPECT_GT(dots, 0) << "line " << a << ", down " << down;
    }
  }
}

// A lone QR module enlarged 1.5 times by bilinear interpolation peaks at 113
// on the nearest pixel (0.67 x 0.67 of full ink): the threshold would lose it,
// the peak rule prints that one pixel. A lone paper module in ink likewise.
TEST(BarcodeText, LoneModulesSurviveEnlarging) {
  const std::vector<uint8_t> ink = {0, 0,  0,   0,  0,  //
                                    0, 28, 57,  28, 0,  //
                                    0, 57, 113, 57, 0,  //
                                    0, 28, 57,  28, 0,  //
                                    0, 0,  0,   0,  0};
  std::vector<uint8_t> paper;
  for (uint8_t v : ink) paper.push_back(static_cast<uint8_t>(255 - v));
  std::vector<int> expected(25, 0);
  expected[12] = 1;
  EXPECT_EQ(barcodeText(5, 5, ink), expected);
  for (int& v : expected) v = 1 - v;
  EXPECT_EQ(barcodeText(5, 5, paper), expected);
  EXPECT_EQ(halftoned(KelvoHalftone::kThreshold, 5, 5, ink), std::vector<int>(25, 0));
  // The corner of an enlarged block: interpolation gives a pixel 0.6 of the
  // way into it along the row 153 and down the column 153, and the corner
  // pixel their product, 153 * 153 / 255 = 92, which the threshold loses.
  // The steps beside it show the pixel belongs 0.6 to the block both ways,
  // so the block prints 3 x 3 dots.
  const std::vector<uint8_t> corner = {255, 255, 153, 0, 0, 255, 255, 153, 0, 0, 153, 153, 92, 0, 0};
  std::vector<int> block = {1, 1, 1, 0, 0, 1, 1, 1, 0, 0, 1, 1, 1, 0, 0};
  block.resize(25, 0);
  EXPECT_EQ(barcodeText(5, 5, corner), block);
  EXPECT_EQ(halftoned(KelvoHalftone::kThreshold, 5, 5, corner)[12], 0);
}

// The lone module of the test above, cut by the page's last (and first)
// column: its peak still prints. A dot of ink elsewhere on the page, in the
// row that follows in memory, is not its neighbour.
TEST(BarcodeText, LoneModulesAtTheEdges) {
  const std::vector<uint8_t> right = {0,   0, 0, 0,  0,    //
                                      0,   0, 0, 28, 57,   //
                                      0,   0, 0, 57, 113,  //
                                      255, 0, 0, 28, 57,   //
                                      0,   0, 0, 0,  0};
  std::vector<uint8_t> left(25);
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 5; ++x) left[y * 5 + x] = right[y * 5 + 4 - x];
  left[19] = 0;  // the stray dot moves to the end of row 1
  left[9] = 255;
  for (bool atRight : {true, false}) {
    std::vector<int> expected(25, 0);
    expected[atRight ? 14 : 10] = 1;  // the peak
    expected[atRight ? 15 : 9] = 1;   // the stray dot
    EXPECT_EQ(barcodeText(5, 5, atRight ? right : left), expected) << (atRight ? "last column" : "first column");
  }
}

// Barcode and Text on a square page of `dots` x `dots` levels: "" when every
// dot is as expected, else how many are not and where the first is.
std::string wrongBarcodeDots(const std::vector<uint8_t>& page, int dots, const std::vector<int>& expected) {
  const std::vector<int> got = barcodeText(dots, dots, page);
  int wrong = 0, first = -1;
  for (size_t i = 0; i < got.size(); ++i)
    if (got[i] != expected[i] && wrong++ == 0) first = static_cast<int>(i);
  if (wrong == 0) return "";
  return std::to_string(wrong) + " wrong dots, the first at x " + std::to_string(first % dots) + ", y " +
         std::to_string(first / dots);
}

// A QR symbol (21 x 21 modules, zint's "KELVO QR 0042") enlarged twice by
// interpolation with its grid half a dot off, as imagetoraster makes a 150 ppi
// picture at 300 dpi: every module edge crosses the middle of a dot (127) and
// the dot at a corner of four modules is their mean, mid grey wherever they
// alternate. Every module prints as 2 x 2 dots, the halved dots going to the
// module above and to the left, however its neighbours alternate.
TEST(BarcodeText, ModulesEnlargedTwiceWithEveryEdgeAtATie) {
  const uint32_t qr[21] = {0x1fdc7f, 0x105541, 0x17575d, 0x17515d, 0x175a5d, 0x104941, 0x1fd57f,
                           0x001e00, 0x0d6b5f, 0x0a13a3, 0x12f659, 0x1a9fec, 0x0be370, 0x001489,
                           0x1fdcfc, 0x1041bb, 0x175b6f, 0x1746b2, 0x175279, 0x105f8b, 0x1fc671};
  const int n = 21, quiet = 2, dots = 2 * (n + 2 * quiet) + 1;
  // Module k (quiet zone included) covers dots 2k + 0.5 .. 2k + 2.5.
  auto ink = [&](int k, int j) {
    const int r = k - quiet, c = j - quiet;
    return r >= 0 && r < n && c >= 0 && c < n && ((qr[r] >> (n - 1 - c)) & 1);
  };
  auto halves = [](int d, int k) { return d == 2 * k + 1 ? 2 : (d == 2 * k || d == 2 * k + 2) ? 1 : 0; };
  std::vector<uint8_t> page;
  std::vector<int> expected;
  for (int y = 0; y < dots; ++y)
    for (int x = 0; x < dots; ++x) {
      int quarters = 0;
      for (int k = y / 2 - 1; k <= y / 2; ++k)
        for (int j = x / 2 - 1; j <= x / 2; ++j) quarters += ink(k, j) ? halves(y, k) * halves(x, j) : 0;
      page.push_back(static_cast<uint8_t>(255 * quarters / 4));
      expected.push_back(ink((y - 1) / 2, (x - 1) / 2) && y > 0 && x > 0 ? 1 : 0);
    }
  EXPECT_EQ(wrongBarcodeDots(page, dots, expected), "");
}

// Random symbols enlarged by less than 2 with bilinear interpolation, their
// grid off the dots: each prints exactly as its modules drawn with every
// edge on the nearest dot (a dot prints when its centre is in a dark
// module). Below 2 a dot may mix a module with the next while the dot before
// it stood for the module before both (the 1.3 pages went wrong that way);
// the last two need column shares from the rows below and from the grid
// of the enlargement (each page is wrong by 11 to 18 dots without either).
TEST(BarcodeText, ModulesEnlargedBelowTwiceLandOnTheNearestDot) {
  const struct { double scale; unsigned seed; } cases[] = {{1.3, 80}, {1.3, 262}, {1.5, 81}, {1.75, 38}};
  for (const auto& c : cases) {
    const EnlargedSymbol symbol = enlargedSymbol(c.scale, c.seed);
    EXPECT_EQ(wrongBarcodeDots(symbol.levels, symbol.dots, symbol.nearest), "")
        << "scale " << c.scale << ", seed " << c.seed;
  }
}

// Shares are read within 32 rows either way: a symbol prints the same with
// another symbol, enlarged differently, 80 rows above it.
TEST(BarcodeText, ASymbolFarAboveChangesNothing) {
  const EnlargedSymbol above = enlargedSymbol(1.5, 81), below = enlargedSymbol(1.75, 38);
  const int width = std::max(above.dots, below.dots), gap = 80;
  std::vector<uint8_t> page(static_cast<size_t>(width) * (above.dots + gap + below.dots), 0);
  std::vector<int> expected(page.size(), 0);
  auto place = [&](const EnlargedSymbol& s, int top) {
    for (int y = 0; y < s.dots; ++y)
      for (int x = 0; x < s.dots; ++x) {
        page[static_cast<size_t>((top + y) * width + x)] = s.levels[static_cast<size_t>(y * s.dots + x)];
        expected[static_cast<size_t>((top + y) * width + x)] = s.nearest[static_cast<size_t>(y * s.dots + x)];
      }
  };
  place(above, 0);
  place(below, above.dots + gap);
  EXPECT_EQ(barcodeText(width, above.dots + gap + below.dots, page), expected);
}

}  // namespace
