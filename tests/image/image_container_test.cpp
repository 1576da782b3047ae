#include <gtest/gtest.h>

#include <cstring>

#include "image_test_util.h"

namespace {

const char* kZeroSize = "PaletteImage::Create : width and height must be greater than zero";

TEST(Create, SizesAndWrapAround) {
  struct Case { unsigned w, h, bpp; unsigned bits, colors, eff, size; const char* error; };
  const Case cases[] = {
      {1, 1, 1, 1, 2, 4, 52, nullptr},
      {5, 2, 3, 4, 16, 4, 40 + 64 + 8, nullptr},
      {3, 2, 32, 24, 0, 12, 40 + 24, nullptr},
      {10, 3, 8, 8, 256, 12, 40 + 1024 + 36, nullptr},
      {0, 5, 8, 0, 0, 0, 0, kZeroSize},
      {5, 0, 8, 0, 0, 0, 0, kZeroSize},
      // width x height x 8 wraps to 0 and is caught.
      {32768, 32768, 8, 0, 0, 0, 0, "IMAGE_MAX_MEMORY exceeded"},
      {32768, 32768, 1, 1, 2, 4096, 134217776, nullptr},
      // width x height itself wraps to 0: passes, with a block sized from 0.
      {65536, 65536, 8, 8, 256, 65536, 1064, nullptr},
  };
  for (const Case& c : cases) {
    PaletteImage img;
    void* block = img.Create(c.w, c.h, c.bpp, 7);
    if (c.error) {
      EXPECT_EQ(block, nullptr) << c.w;
      EXPECT_FALSE(img.IsValid());
      EXPECT_STREQ(img.GetLastError(), c.error);
      continue;
    }
    ASSERT_NE(block, nullptr) << c.w << "x" << c.h;
    EXPECT_EQ(img.GetNumColors(), c.colors);
    EXPECT_EQ(img.GetEffWidth(), c.eff);
    EXPECT_EQ(img.GetSize(), c.size);
    uint32_t stored;
    std::memcpy(&stored, block, 4);
    EXPECT_EQ(stored, 40u);
    EXPECT_EQ(img.GetBits(0), static_cast<uint8_t*>(block) + 40 + 4 * c.colors);
    if (c.size < 4096) {  // never touch the wrapped one's pixels
      const uint8_t* b = static_cast<uint8_t*>(block);
      for (unsigned i = 40; i < c.size; ++i) ASSERT_EQ(b[i], 0) << "palette and rows, padding included, start at 0";
      EXPECT_EQ(img.GetBits(c.h), nullptr);
    }
  }
}

TEST(Pixels, PackingAndOutOfRange) {
  struct Case { unsigned bpp; std::vector<int> row; std::vector<uint8_t> bytes; };
  const Case cases[] = {
      {1, {1, 0, 1, 0, 0, 1, 0, 1, 1}, {0xA5, 0x80}},
      {4, {0xA, 0x5, 0xF, 0x0, 0x3}, {0xA5, 0xF0, 0x30}},
      {8, {9, 200, 0}, {9, 200, 0}},
  };
  for (const Case& c : cases) {
    PaletteImage img;
    img.Create(static_cast<unsigned>(c.row.size()), 2, c.bpp, 0);
    for (size_t x = 0; x < c.row.size(); ++x) img.SetPixelIndex(static_cast<long>(x), 1, static_cast<uint8_t>(c.row[x]));
    for (size_t x = 0; x < c.row.size(); ++x) img.SetPixelIndex(static_cast<long>(x), 0, static_cast<uint8_t>(c.row[x]));
    EXPECT_EQ(std::vector<uint8_t>(img.GetBits(1), img.GetBits(1) + c.bytes.size()), c.bytes) << c.bpp;
    // Off the image the first pixel byte comes back whole, even when packed.
    for (long xy : {-1L, 1000L}) {
      EXPECT_EQ(img.GetPixelIndex(xy, 0), c.bytes[0]) << c.bpp;
      EXPECT_EQ(img.GetPixelIndex(0, xy), c.bytes[0]) << c.bpp;
    }
    img.SetPixelIndex(0, 0, 255);
    EXPECT_EQ(img.GetPixelIndex(0, 0), (1 << c.bpp) - 1) << "255 stores the low bits";
  }
}

TEST(Palette, GrayNearestAndColorOrder) {
  PaletteImage img;
  img.Create(2, 2, 4, 0);
  img.SetGrayPalette();
  EXPECT_EQ(img.GetPaletteColor(1).rgbRed, 17);
  EXPECT_EQ(img.GetPaletteColor(15).rgbGreen, 255);

  img.SetPaletteColor(3, 10, 20, 30, 40);  // red, green, blue, reserved
  const uint8_t* e = reinterpret_cast<uint8_t*>(img.GetPalette()) + 12;
  EXPECT_EQ(std::vector<uint8_t>(e, e + 4), (std::vector<uint8_t>{30, 20, 10, 40}));

  img.Create(1, 1, 1, 0);
  img.SetGrayPalette();
  EXPECT_EQ(img.GetNearestIndex({128, 128, 128, 0}), 1);  // 48387 to white against 49152 to black
  EXPECT_EQ(img.GetNearestIndex({127, 127, 127, 9}), 0);  // reserved byte is ignored

  img.Create(1, 1, 8, 0);  // all 256 entries black: equal distances, lowest index
  EXPECT_EQ(img.GetNearestIndex({255, 255, 255, 0}), 0);
  img.SetPaletteColor(5, 100, 0, 0);
  img.SetPaletteColor(9, 100, 0, 0);
  img.SetPaletteColor(7, 80, 0, 0);
  img.SetPaletteColor(8, 80, 0, 0);
  EXPECT_EQ(img.GetNearestIndex({0, 0, 95, 0}), 5);
  EXPECT_EQ(img.GetNearestIndex({0, 0, 80, 0}), 7);
}

TEST(Ownership, TransferAndCopyInfo) {
  PaletteImage a, b, empty;
  a.Create(3, 2, 8, 0);
  b.Create(0, 1, 8, 0);
  uint8_t* bits = a.GetBits(0);
  EXPECT_TRUE(b.Transfer(a));
  EXPECT_EQ(b.GetBits(0), bits);
  EXPECT_EQ(b.GetWidth(), 3u);
  EXPECT_FALSE(a.IsValid());
  EXPECT_EQ(a.GetWidth(), 0u);
  EXPECT_STREQ(b.GetLastError(), "");

  a.CopyInfo(empty);
  PaletteImage failed;
  failed.Create(0, 0, 8, 0);
  b.CopyInfo(failed);  // holds a block: nothing changes
  EXPECT_EQ(b.GetEffWidth(), 4u);
  a.CopyInfo(failed);
  EXPECT_STREQ(a.GetLastError(), kZeroSize);

  b.Transfer(empty);
  EXPECT_FALSE(b.IsValid());
  EXPECT_EQ(b.GetWidth() + b.GetHeight() + b.GetNumColors() + b.GetEffWidth(), 0u);
}

TEST(CreateFromArray, StridesFlipAndDepth) {
  uint8_t src[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  PaletteImage img;
  ASSERT_TRUE(img.CreateFromArray(src, 2, 3, 8, 4, true));  // longer stride, flipped
  EXPECT_EQ(indices(img), (std::vector<int>{9, 10, 5, 6, 1, 2}));
  EXPECT_EQ(img.GetPaletteColor(200).rgbBlue, 200);
  ASSERT_TRUE(img.CreateFromArray(src, 6, 2, 8, 3, false));  // shorter stride: rest stays 0
  EXPECT_EQ(indices(img), (std::vector<int>{1, 2, 3, 0, 0, 0, 4, 5, 6, 0, 0, 0}));
  ASSERT_TRUE(img.CreateFromArray(src, 3, 1, 32, 12, false));  // alpha bytes dropped
  EXPECT_EQ(std::vector<uint8_t>(img.GetBits(0), img.GetBits(0) + 9), (std::vector<uint8_t>{1, 2, 3, 5, 6, 7, 9, 10, 11}));
  EXPECT_FALSE(img.CreateFromArray(src, 1, 1, 16, 1, false));
  EXPECT_FALSE(img.CreateFromArray(nullptr, 1, 1, 8, 1, false));
}

}  // namespace
