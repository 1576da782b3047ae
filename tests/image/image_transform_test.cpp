#include <gtest/gtest.h>

#include <cstring>

#include "image_test_util.h"

namespace {

const tagRGBQUAD kWhite = {255, 255, 255, 0};

TEST(Light, Tables) {
  struct Case { int brightness, contrast; std::vector<std::pair<int, int>> levelToOut; };
  const Case cases[] = {
      {0, 0, {{0, 0}, {77, 77}, {255, 255}}},
      {0, -100, {{0, 128}, {255, 128}}},  // c = 0: 128.5 truncated
      {50, 0, {{0, 50}, {204, 254}, {205, 255}, {255, 255}}},
      {0, 100, {{0, 0}, {64, 0}, {100, 72}, {191, 254}, {192, 255}}},
      {0, -30, {{133, 132}}},  // 5 x 0.7f rounds to 3.5f in single precision
      {-500, 0, {{255, 0}}},
  };
  std::vector<uint8_t> ramp(256);
  for (int i = 0; i < 256; ++i) ramp[i] = static_cast<uint8_t>(i);
  for (const Case& c : cases) {
    PaletteImage img;
    makeGray(img, 256, 1, ramp);
    ASSERT_TRUE(img.Light(c.brightness, c.contrast));
    for (auto [level, out] : c.levelToOut) EXPECT_EQ(img.GetPixelIndex(level, 0), out) << c.brightness << "/" << c.contrast;
  }
}

TEST(Rebuild, RotateAndMirror) {
  PaletteImage img, dst;
  img.Create(5, 3, 1, 0);
  img.SetPaletteColor(1, 4, 5, 6);
  img.SetPixelIndex(4, 2, 1);
  img.SetPixelIndex(1, 0, 1);
  ASSERT_TRUE(img.Rotate180(&dst));
  EXPECT_EQ(dst.GetNumColors(), 256u);
  EXPECT_EQ(dst.GetPaletteColor(1).rgbBlue, 6);
  EXPECT_EQ(indices(dst), (std::vector<int>{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0}));

  makeGray(img, 5, 2, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
  img.Mirror();
  EXPECT_EQ(indices(img), (std::vector<int>{5, 4, 3, 2, 1, 10, 9, 8, 7, 6}));
}

// A valid 1-bpp page whose 8-bpp working copy fails the size test.
TEST(Rebuild, WorkingImageTooLarge) {
  PaletteImage img;
  for (int op = 0; op < 3; ++op) {
    ASSERT_NE(img.Create(32768, 32768, 1, 0), nullptr);
    if (op == 0) {
      EXPECT_TRUE(img.Rotate180(nullptr));
    } else if (op == 1) {
      img.Mirror();
    } else {
      EXPECT_FALSE(img.IncreaseBpp(8));
    }
    EXPECT_EQ(img.IsValid(), op == 2) << "only IncreaseBpp keeps the old image";
    EXPECT_STREQ(img.GetLastError(), "IMAGE_MAX_MEMORY exceeded") << op;
  }
}

TEST(IncreaseBpp, AfterDitherThenNegative) {
  PaletteImage img;
  makeGray(img, 3, 2, {0, 0, 0, 0, 200, 0});
  EXPECT_FALSE(img.IncreaseBpp(4) || img.IncreaseBpp(16));
  img.Dither(0);
  ASSERT_TRUE(img.IncreaseBpp(8));
  EXPECT_EQ(indices(img), (std::vector<int>{0, 0, 0, 0, 1, 0}));
  EXPECT_EQ(std::memcmp(img.GetPalette(), "\0\0\0\0\xFF\xFF\xFF\0\0\0\0\0", 12), 0);
  img.Negative();
  EXPECT_EQ(std::memcmp(img.GetBits(0), "\xFF\xFF\xFF\xFF\xFF\xFE\xFF\xFF", 8), 0);  // padding too
  img.Negative();
  EXPECT_EQ(std::memcmp(img.GetBits(0), "\0\0\0\0\0\1\0\0", 8), 0);
}

TEST(Expand, LayoutBottomMarginFirst) {
  std::vector<uint8_t> levels;
  for (int i = 0; i < 100; ++i) levels.push_back(static_cast<uint8_t>(i));
  struct Margins { long l, t, r, b; };
  for (const Margins& m : {Margins{2, 3, 2, 3}, Margins{1, 2, 3, 4}, Margins{0, 0, 0, 0}}) {
    PaletteImage img;
    makeGray(img, 10, 10, levels);
    ASSERT_TRUE(img.Expand(m.l, m.t, m.r, m.b, kWhite));
    ASSERT_EQ(img.GetWidth(), 10 + m.l + m.r);
    ASSERT_EQ(img.GetHeight(), 10 + m.t + m.b);
    for (long y = 0; y < long(img.GetHeight()); ++y)
      for (long x = 0; x < long(img.GetWidth()); ++x) {
        const bool old = x >= m.l && x < m.l + 10 && y >= m.b && y < m.b + 10;
        ASSERT_EQ(img.GetPixelIndex(x, y), old ? (y - m.b) * 10 + (x - m.l) : 255) << x << "," << y;
      }
    EXPECT_FALSE(img.Expand(-1, 0, 0, 0, kWhite));
  }
  // A 4-bit page goes pixel by pixel; its pixels land the same way.
  PaletteImage four;
  ASSERT_NE(four.Create(5, 4, 4, 0), nullptr);
  for (long y = 0; y < 4; ++y)
    for (long x = 0; x < 5; ++x) four.SetPixelIndex(x, y, static_cast<uint8_t>((y * 5 + x) % 16));
  ASSERT_TRUE(four.Expand(2, 1, 1, 3, kWhite));
  ASSERT_EQ(four.GetWidth(), 8u);
  ASSERT_EQ(four.GetHeight(), 8u);
  for (long y = 0; y < 4; ++y)
    for (long x = 0; x < 5; ++x) EXPECT_EQ(four.GetPixelIndex(x + 2, y + 3), (y * 5 + x) % 16) << x << "," << y;
  // A 24-bit page keeps its colours and takes the canvas colour in the margin.
  PaletteImage rgb;
  ASSERT_NE(rgb.Create(2, 1, 24, 0), nullptr);
  rgb.BlindSetPixelColor(1, 0, {1, 2, 3, 0});
  ASSERT_TRUE(rgb.Expand(1, 0, 0, 1, {10, 20, 30, 0}));
  const tagRGBQUAD margin = rgb.BlindGetPixelColor(0, 0), kept = rgb.BlindGetPixelColor(2, 1);
  EXPECT_EQ(std::vector<int>({margin.rgbBlue, margin.rgbGreen, margin.rgbRed, kept.rgbBlue, kept.rgbGreen, kept.rgbRed}),
            std::vector<int>({10, 20, 30, 1, 2, 3}));
}

// The two members without a caller keep their documented behaviour.
TEST(Rebuild, MakeCenterAndDrawLine) {
  PaletteImage img;
  makeGray(img, 3, 2, {10, 20, 30, 40, 50, 60});
  img.MakeCenter(8);  // the old pixels from column (8 - 3) / 2 = 2
  ASSERT_EQ(img.GetWidth(), 8u);
  for (long y = 0; y < 2; ++y)
    for (long x = 0; x < 3; ++x) EXPECT_EQ(img.GetPixelIndex(x + 2, y), 10 + 10 * (y * 3 + x)) << x << "," << y;
  img.MakeCenter(5);  // not wider: unchanged
  EXPECT_EQ(img.GetWidth(), 8u);
  // Both x first: from (0, 0) to (3, 1) sets (0,0), (1,0), (2,1), (3,1); the
  // same line drawn backwards sets the same pixels.
  for (bool backwards : {false, true}) {
    makeFlat(img, 5, 3, 0);
    if (backwards) img.DrawLine(3, 0, 1, 0, 9);
    else img.DrawLine(0, 3, 0, 1, 9);
    std::vector<int> want(15, 0);
    for (int i : {0, 1, 7, 8}) want[i] = 9;
    EXPECT_EQ(indices(img), want) << backwards;
  }
  // Steep: y moves every pixel, x once the accumulator (from 4 / 2, adding 1)
  // reaches 4: (0,0), (0,1), (1,2), (1,3), (1,4).
  makeFlat(img, 5, 5, 0);
  img.DrawLine(0, 1, 0, 4, 9);
  std::vector<int> want(25, 0);
  for (int i : {0, 5, 11, 16, 21}) want[i] = 9;
  EXPECT_EQ(indices(img), want);
}

}  // namespace
