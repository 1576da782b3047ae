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
  for (long method : {-1L, 0L, 1L, 2L, 3L, 4L, 5L, 6L, 7L, 8L, 9L, 100L})
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
