#include <gtest/gtest.h>

#include <cstring>

#include "image_test_util.h"

namespace {

const tagRGBQUAD kWhite = {255, 255, 255, 0};

TEST(Light, Tables) {
  struct Probe { int level, out; };
  struct Case { int brightness, contrast; std::vector<Probe> probes; };
  const Case cases[] = {
      {0, -100, {{0, 128}, {255, 128}}},  // c = 0: 128.5 truncated
      {50, 0, {{0, 50}, {204, 254}, {205, 255}, {255, 255}}},
      {0, 100, {{0, 0}, {64, 0}, {100, 72}, {191, 254}, {192, 255}}},
      // 5 x 0.7f rounds to 3.5f in single precision: 131.5 + 0.5 = 132.
      {0, -30, {{133, 132}}},
      {-500, 0, {{255, 0}}},
  };
  std::vector<uint8_t> ramp(256);
  for (int i = 0; i < 256; ++i) ramp[i] = static_cast<uint8_t>(i);
  for (const Case& c : cases) {
    PaletteImage img;
    makeGray(img, 256, 1, ramp);
    ASSERT_TRUE(img.Light(c.brightness, c.contrast));
    for (const Probe& p : c.probes) EXPECT_EQ(img.GetPixelIndex(p.level, 0), p.out) << c.brightness << "/" << c.contrast;
  }
  PaletteImage img;
  makeGray(img, 256, 1, ramp);
  img.Light(0, 0);
  EXPECT_EQ(indices(img), std::vector<int>(ramp.begin(), ramp.end()));

  uint8_t rgb[] = {1, 2, 3, 200, 201, 202};
  img.CreateFromArray(rgb, 2, 1, 24, 6, false);
  EXPECT_TRUE(img.Light(50, 50));
  EXPECT_EQ(std::memcmp(img.GetBits(0), rgb, 6), 0);
  PaletteImage empty;
  EXPECT_FALSE(empty.Light(0, 0));
}

TEST(Rebuild, RotateMirrorCenter) {
  PaletteImage img, dst;
  img.Create(5, 3, 1, 0);
  img.SetPaletteColor(0, 1, 2, 3);
  img.SetPaletteColor(1, 4, 5, 6);
  img.SetPixelIndex(4, 2, 1);
  img.SetPixelIndex(1, 0, 1);
  ASSERT_TRUE(img.Rotate180(&dst));
  EXPECT_EQ(img.GetNumColors(), 2u);  // source untouched
  EXPECT_EQ(dst.GetNumColors(), 256u);
  EXPECT_EQ(dst.GetPaletteColor(1).rgbBlue, 6);
  EXPECT_EQ(dst.GetPaletteColor(2).rgbBlue, 0);
  EXPECT_EQ(indices(dst), (std::vector<int>{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0}));

  makeGray(img, 5, 2, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
  img.Mirror();
  EXPECT_EQ(indices(img), (std::vector<int>{5, 4, 3, 2, 1, 10, 9, 8, 7, 6}));
  EXPECT_EQ(img.GetBits(0)[5], 0);  // padding left clear
  makeGray(img, 1, 3, {7, 8, 9});
  img.Mirror();
  EXPECT_EQ(indices(img), (std::vector<int>{7, 8, 9}));

  makeGray(img, 3, 2, {1, 2, 3, 4, 5, 6});
  img.MakeCenter(3);
  EXPECT_EQ(img.GetWidth(), 3u);
  img.MakeCenter(8);  // offset (8 - 3) / 2 = 2
  EXPECT_EQ(indices(img), (std::vector<int>{0, 0, 1, 2, 3, 0, 0, 0, 0, 0, 4, 5, 6, 0, 0, 0}));
}

TEST(Rebuild, WorkingImageTooLarge) {
  // A valid 1-bpp page whose 8-bpp copy fails the size test.
  PaletteImage img, dst;
  for (int op = 0; op < 4; ++op) {
    ASSERT_NE(img.Create(32768, 32768, 1, 0), nullptr);
    if (op == 0) {
      EXPECT_TRUE(img.Rotate180(nullptr));
    } else if (op == 1) {
      img.Mirror();
    } else if (op == 2) {
      img.MakeCenter(32769);
    }
    if (op == 3) {
      EXPECT_FALSE(img.IncreaseBpp(8));
      EXPECT_TRUE(img.IsValid());
    } else {
      EXPECT_FALSE(img.IsValid()) << op;
    }
    EXPECT_STREQ(img.GetLastError(), "IMAGE_MAX_MEMORY exceeded") << op;
  }
}

TEST(Negative, InvertsPaddingAndTwiceRestores) {
  PaletteImage img;
  makeFlat(img, 3, 2, 40);
  img.Dither(0);
  ASSERT_TRUE(img.IncreaseBpp(8));
  img.SetPixelIndex(1, 1, 1);
  EXPECT_EQ(img.GetPaletteColor(1).rgbRed, 255);
  EXPECT_EQ(img.GetPaletteColor(2).rgbRed, 0);
  img.Negative();
  EXPECT_EQ(indices(img), (std::vector<int>{255, 255, 255, 255, 254, 255}));
  EXPECT_EQ(img.GetBits(0)[3], 0xFF);
  img.Negative();
  const uint8_t expected[8] = {0, 0, 0, 0, 0, 1, 0, 0};
  EXPECT_EQ(std::memcmp(img.GetBits(0), expected, 8), 0);
}

TEST(IncreaseBpp, DepthRules) {
  struct Case { unsigned from, to; bool ok; unsigned bits; };
  const Case cases[] = {{8, 4, false, 8}, {8, 8, true, 8}, {8, 16, false, 8}, {1, 4, true, 4}, {1, 24, true, 24}};
  for (const Case& c : cases) {
    PaletteImage img;
    img.Create(3, 1, c.from, 0);
    img.SetGrayPalette();
    img.SetPixelIndex(1, 0, 1);
    EXPECT_EQ(img.IncreaseBpp(c.to), c.ok) << c.to;
    EXPECT_EQ(img.GetEffWidth(), ((c.bits * 3 + 31) / 32) * 4);
    if (c.bits == 24) {  // the white entry becomes blue, green, red bytes
      EXPECT_EQ(std::vector<uint8_t>(img.GetBits(0), img.GetBits(0) + 9),
                (std::vector<uint8_t>{0, 0, 0, 255, 255, 255, 0, 0, 0}));
    } else {
      EXPECT_EQ(indices(img), (std::vector<int>{0, 1, 0}));
    }
  }
}

TEST(Expand, LayoutBottomMarginFirst) {
  std::vector<uint8_t> levels;
  for (int i = 0; i < 100; ++i) levels.push_back(static_cast<uint8_t>(i));
  struct Case { long l, t, r, b; };
  for (const Case& c : {Case{2, 3, 2, 3}, Case{1, 2, 3, 4}, Case{0, 0, 0, 0}}) {
    PaletteImage img;
    makeGray(img, 10, 10, levels);
    ASSERT_TRUE(img.Expand(c.l, c.t, c.r, c.b, kWhite));
    ASSERT_EQ(img.GetWidth(), 10 + c.l + c.r);
    ASSERT_EQ(img.GetHeight(), 10 + c.t + c.b);
    for (long y = 0; y < long(img.GetHeight()); ++y)
      for (long x = 0; x < long(img.GetWidth()); ++x) {
        const bool old = x >= c.l && x < c.l + 10 && y >= c.b && y < c.b + 10;
        ASSERT_EQ(img.GetPixelIndex(x, y), old ? (y - c.b) * 10 + (x - c.l) : 255) << x << "," << y;
      }
  }
  PaletteImage img;
  img.Create(3, 1, 1, 0);
  img.SetPaletteColor(1, 255, 255, 255);
  EXPECT_FALSE(img.Expand(-1, 0, 0, 0, kWhite));
  ASSERT_TRUE(img.Expand(1, 1, 0, 0, kWhite));
  EXPECT_EQ(indices(img), (std::vector<int>{1, 0, 0, 0, 1, 1, 1, 1}));

  uint8_t rgb[] = {1, 2, 3};
  img.CreateFromArray(rgb, 1, 1, 24, 3, false);
  ASSERT_TRUE(img.Expand(1, 0, 0, 0, {9, 8, 7, 0}));
  EXPECT_EQ(std::vector<uint8_t>(img.GetBits(0), img.GetBits(0) + 8), (std::vector<uint8_t>{9, 8, 7, 1, 2, 3, 0, 0}));
}

TEST(DrawLine, StepsAndClipping) {
  struct Case { int x0, x1, y0, y1; std::vector<int> lit; };  // lit: y * 4 + x
  const Case cases[] = {
      {0, 3, 0, 1, {0, 1, 6, 7}},
      {3, 0, 1, 0, {0, 1, 6, 7}},
      {0, 1, 0, 3, {0, 4, 9, 13}},
      {-2, 2, 2, 2, {8, 9, 10}},
  };
  for (const Case& c : cases) {
    PaletteImage img;
    img.Create(4, 4, 8, 0);
    img.DrawLine(c.x0, c.x1, c.y0, c.y1, 9);
    std::vector<int> expected(16, 0);
    for (int i : c.lit) expected[i] = 9;
    EXPECT_EQ(indices(img), expected) << c.x0 << "," << c.y0;
  }
}

}  // namespace
