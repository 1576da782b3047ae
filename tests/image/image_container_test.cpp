#include <gtest/gtest.h>

#include <cstring>

#include "image_test_util.h"

namespace {

const char* kZeroSize = "PaletteImage::Create : width and height must be greater than zero";
const char* kTooLarge = "IMAGE_MAX_MEMORY exceeded";

TEST(Create, SizesAndWrapAround) {
  struct Case { unsigned w, h, bpp, colors, eff, size; const char* error; };
  const Case cases[] = {
      {1, 1, 1, 2, 4, 52, nullptr},          {5, 2, 3, 16, 4, 40 + 64 + 8, nullptr},
      {3, 2, 32, 0, 12, 40 + 24, nullptr},   {10, 3, 8, 256, 12, 40 + 1024 + 36, nullptr},
      {0, 5, 8, 0, 0, 0, kZeroSize},         {5, 0, 8, 0, 0, 0, kZeroSize},
      {32768, 32768, 8, 0, 0, 0, kTooLarge},  // x 8 wraps to 0: caught
      {32768, 32768, 1, 2, 4096, 134217776, nullptr},
      {65536, 65536, 8, 256, 65536, 1064, nullptr},  // width x height wraps to 0: passes
  };
  for (const Case& c : cases) {
    PaletteImage img;
    const uint8_t* block = static_cast<uint8_t*>(img.Create(c.w, c.h, c.bpp, 7));
    EXPECT_EQ(block == nullptr, c.error != nullptr) << c.w;
    EXPECT_STREQ(img.GetLastError(), c.error ? c.error : "");
    if (!block) continue;
    EXPECT_EQ(img.GetNumColors(), c.colors);
    EXPECT_EQ(img.GetEffWidth(), c.eff);
    EXPECT_EQ(img.GetSize(), c.size);
    EXPECT_EQ(img.GetBits(0), block + 40 + 4 * c.colors);
    EXPECT_EQ(block[0], 40);
    for (unsigned i = 40; i < c.size && c.size < 4096; ++i) ASSERT_EQ(block[i], 0) << "padding included";
  }
}

TEST(Pixels, PackingAndOutOfRange) {
  struct Case { unsigned bpp; std::vector<int> row; std::vector<uint8_t> bytes; };
  const Case cases[] = {{1, {1, 0, 1, 0, 0, 1, 0, 1, 1}, {0xA5, 0x80}}, {4, {10, 5, 15, 0, 3}, {0xA5, 0xF0, 0x30}},
                        {8, {9, 200, 0}, {9, 200, 0}}};
  for (const Case& c : cases) {
    PaletteImage img;
    img.Create(static_cast<unsigned>(c.row.size()), 1, c.bpp, 0);
    for (size_t x = 0; x < c.row.size(); ++x) img.SetPixelIndex(long(x), 0, static_cast<uint8_t>(c.row[x]));
    EXPECT_EQ(std::vector<uint8_t>(img.GetBits(0), img.GetBits(0) + c.bytes.size()), c.bytes) << c.bpp;
    for (long xy : {-1L, 1000L}) {  // off the image: the first byte, packed or not
      EXPECT_EQ(img.GetPixelIndex(xy, 0), c.bytes[0]);
      EXPECT_EQ(img.GetPixelIndex(0, xy), c.bytes[0]);
    }
    img.SetPixelIndex(1, 0, 255);
    EXPECT_EQ(img.GetPixelIndex(1, 0), (1 << c.bpp) - 1) << c.bpp;
    // One past the last column or row writes nothing, not even the padding.
    const std::vector<uint8_t> before(img.GetBits(0), img.GetBits(0) + img.GetEffWidth());
    img.SetPixelIndex(static_cast<long>(c.row.size()), 0, 255);
    img.SetPixelIndex(0, 1, 255);
    EXPECT_EQ(std::vector<uint8_t>(img.GetBits(0), img.GetBits(0) + img.GetEffWidth()), before) << c.bpp;
  }
}

// A 32-bit page keeps the first three bytes of each pixel as a 24-bit
// picture, which has colours and no indices: reading an index gives 0 and
// setting one changes nothing.
TEST(Pixels, ThirtyTwoBitPagesAreColourOnly) {
  unsigned char rows[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  PaletteImage img;
  ASSERT_TRUE(img.CreateFromArray(rows, 3, 1, 32, 12, false));
  const std::vector<uint8_t> colours = {1, 2, 3, 5, 6, 7, 9, 10, 11};
  EXPECT_EQ(std::vector<uint8_t>(img.GetBits(0), img.GetBits(0) + colours.size()), colours);
  EXPECT_EQ(img.GetPixelIndex(1, 0), 0);
  img.SetPixelIndex(1, 0, 200);
  EXPECT_EQ(std::vector<uint8_t>(img.GetBits(0), img.GetBits(0) + colours.size()), colours);
}

// Rows given top first can be stored the other way round.
TEST(Pixels, CreateFromArrayFlipped) {
  unsigned char rows[] = {1, 2, 0, 0, 3, 4, 0, 0, 5, 6, 0, 0};  // stride 4
  PaletteImage img;
  ASSERT_TRUE(img.CreateFromArray(rows, 2, 3, 8, 4, true));
  std::vector<int> got;
  for (long y = 0; y < 3; ++y)
    for (long x = 0; x < 2; ++x) got.push_back(img.GetPixelIndex(x, y));
  EXPECT_EQ(got, (std::vector<int>{5, 6, 3, 4, 1, 2}));
}

TEST(Palette, GrayNearestAndColorOrder) {
  PaletteImage img;
  img.Create(2, 2, 4, 0);
  img.SetGrayPalette();
  EXPECT_EQ(img.GetPaletteColor(1).rgbRed, 17);
  EXPECT_EQ(img.GetPaletteColor(15).rgbGreen, 255);
  img.SetPaletteColor(3, 10, 20, 30, 40);  // stored blue, green, red, reserved
  EXPECT_EQ(std::memcmp(img.GetPalette() + 3, "\x1E\x14\x0A\x28", 4), 0);

  img.Create(1, 1, 1, 0);
  img.SetGrayPalette();
  EXPECT_EQ(img.GetNearestIndex({128, 128, 128, 0}), 1);  // 48387 to white, 49152 to black
  EXPECT_EQ(img.GetNearestIndex({127, 127, 127, 9}), 0);
  img.Create(1, 1, 8, 0);
  for (int i : {5, 9}) img.SetPaletteColor(static_cast<uint8_t>(i), 100, 0, 0);
  for (int i : {7, 8}) img.SetPaletteColor(static_cast<uint8_t>(i), 80, 0, 0);
  EXPECT_EQ(img.GetNearestIndex({0, 0, 95, 0}), 5);  // equal distances: lowest index
  EXPECT_EQ(img.GetNearestIndex({0, 0, 80, 0}), 7);
  EXPECT_EQ(img.GetNearestIndex({0, 255, 0, 0}), 0);
}

TEST(Ownership, TransferAndCopyInfo) {
  PaletteImage a, b, failed;
  a.Create(3, 2, 8, 0);
  failed.Create(0, 0, 8, 0);
  uint8_t* bits = a.GetBits(0);
  b.CopyInfo(failed);
  EXPECT_STREQ(b.GetLastError(), kZeroSize);
  EXPECT_TRUE(b.Transfer(a));
  EXPECT_EQ(b.GetBits(0), bits);
  EXPECT_STREQ(b.GetLastError(), "");
  EXPECT_FALSE(a.IsValid());
  b.CopyInfo(failed);  // holds a block: nothing changes
  EXPECT_STREQ(b.GetLastError(), "");
  b.Transfer(a);
  EXPECT_FALSE(b.IsValid());
  EXPECT_EQ(b.GetWidth() + b.GetHeight() + b.GetNumColors() + b.GetEffWidth(), 0u);
}

}  // namespace
