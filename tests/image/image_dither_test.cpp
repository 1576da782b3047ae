#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "image_test_util.h"

namespace {

// Dithers a flat page and returns its top-left 4x4 tile as "0"/"1" rows,
// after checking that the tile repeats over the whole page.
std::string flatTile(long method, uint8_t level) {
  PaletteImage img;
  makeFlat(img, 9, 6, level);
  EXPECT_TRUE(img.Dither(method));
  std::string tile;
  for (long y = 0; y < 4; ++y)
    for (long x = 0; x < 4; ++x) tile += static_cast<char>('0' + img.GetPixelIndex(x, y));
  for (long y = 0; y < 6; ++y)
    for (long x = 0; x < 9; ++x) EXPECT_EQ(img.GetPixelIndex(x, y), tile[(y % 4) * 4 + x % 4] - '0') << level;
  return tile;
}

TEST(Dither, OrderedTablesOnFlatPages) {
  struct Case { long method; uint8_t level; const char* tile; };
  const Case cases[] = {
      // 4x4 ordered: cells whose matrix entry is below (level * 16) / 255.
      {1, 16, "1000000000000000"},  {1, 128, "1010010110100101"}, {1, 254, "1111111111110111"},
      // Bayer: level above {0 192 48 240 / 128 64 176 112 / 32 224 16 208 / 160 96 144 80}.
      {7, 1, "1000000000000000"},   {7, 128, "1010010110100101"}, {7, 200, "1110111110101111"},
      {0, 128, "0000000000000000"}, {0, 129, "1111111111111111"},  // fixed threshold
  };
  for (const Case& c : cases) EXPECT_EQ(flatTile(c.method, c.level), c.tile) << c.method << "/" << int(c.level);
}

struct Cell { int dx, dy, w; };
struct RefKernel { std::vector<long> methods; int divisor; std::vector<Cell> cells; };

const RefKernel kKernels[] = {
    {{2}, 32, {{1, 0, 8}, {2, 0, 4}, {-2, 1, 2}, {-1, 1, 4}, {0, 1, 8}, {1, 1, 4}, {2, 1, 2}}},
    {{3}, 42, {{1, 0, 8}, {2, 0, 4}, {-2, 1, 2}, {-1, 1, 4}, {0, 1, 8}, {1, 1, 4}, {2, 1, 2},
               {-2, 2, 1}, {-1, 2, 2}, {0, 2, 4}, {1, 2, 2}, {2, 2, 1}}},
    {{4}, 48, {{1, 0, 7}, {2, 0, 5}, {-2, 1, 3}, {-1, 1, 5}, {0, 1, 7}, {1, 1, 5}, {2, 1, 3},
               {-2, 2, 1}, {-1, 2, 3}, {0, 2, 5}, {1, 2, 3}, {2, 2, 1}}},
    {{5}, 32, {{1, 0, 5}, {2, 0, 3}, {-2, 1, 2}, {-1, 1, 4}, {0, 1, 5}, {1, 1, 4}, {2, 1, 2},
               {-1, 2, 2}, {0, 2, 3}, {1, 2, 2}}},
    {{6}, 200, {{2, 0, 32}, {-3, 1, 12}, {-1, 1, 26}, {1, 1, 30}, {3, 1, 16}, {-2, 2, 12}, {0, 2, 26},
                {2, 2, 12}, {-3, 3, 5}, {-1, 3, 12}, {1, 3, 12}, {3, 3, 5}}},
    {{-1, 8, 9, 100}, 16, {{1, 0, 7}, {-1, 1, 3}, {0, 1, 5}, {1, 1, 1}}},
};

// Plain error diffusion on a level grid: threshold 128, each share truncated
// toward zero, clamped as it lands, cells off the page dropped.
std::vector<int> referenceDiffusion(std::vector<int> g, int w, int h, const RefKernel& k) {
  std::vector<int> out(g.size());
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const int level = g[y * w + x];
      out[y * w + x] = level > 128;
      const int err = level > 128 ? level - 255 : level;
      for (const Cell& c : k.cells) {
        const int nx = x + c.dx, ny = y + c.dy;
        if (nx < 0 || nx >= w || ny >= h) continue;
        const int v = g[ny * w + nx] + err * c.w / k.divisor;
        g[ny * w + nx] = v < 0 ? 0 : (v > 255 ? 255 : v);
      }
    }
  }
  return out;
}

TEST(Dither, ErrorDiffusionMatchesPlainKernels) {
  const int w = 13, h = 9;
  std::vector<int> levels;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) levels.push_back((x * 37 + y * 91 + x * y * 13) % 256);
  for (const RefKernel& k : kKernels) {
    const std::vector<int> expected = referenceDiffusion(levels, w, h, k);
    for (long method : k.methods) {
      PaletteImage img;
      makeGray(img, w, h, std::vector<uint8_t>(levels.begin(), levels.end()));
      ASSERT_TRUE(img.Dither(method));
      EXPECT_EQ(indices(img), expected) << "method " << method;
    }
  }
}

TEST(Dither, WorkedExamplesAndOneBit) {
  PaletteImage img;
  makeFlat(img, 2, 1, 128);  // 0 first, then 128 + 128 * 7 / 16 = 184 gives 1
  img.Dither(-1);
  EXPECT_EQ(indices(img), (std::vector<int>{0, 1}));
  makeFlat(img, 1, 1, 200);
  img.Dither(100);
  EXPECT_EQ(indices(img), (std::vector<int>{1}));
  uint8_t* bits = img.GetBits(0);
  EXPECT_TRUE(img.Dither(2));  // already 1 bpp: untouched
  EXPECT_EQ(img.GetBits(0), bits);
}

// Flat black and white pages stay so on every width, with the exact palette.
TEST(Dither, EveryMethodEveryWidth) {
  for (long method = -1; method <= 8; ++method)
    for (unsigned w = 1; w <= 17; ++w)
      for (uint8_t flat : {0, 255}) {
        PaletteImage img;
        makeFlat(img, w, 3, flat);
        ASSERT_TRUE(img.Dither(method));
        ASSERT_EQ(img.GetNumColors(), 2u);
        EXPECT_EQ(std::memcmp(img.GetPalette(), "\0\0\0\0\xFF\xFF\xFF\0", 8), 0);
        EXPECT_EQ(indices(img), std::vector<int>(w * 3, flat ? 1 : 0)) << method << " w=" << w;
      }
}

}  // namespace
