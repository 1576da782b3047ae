#include <gtest/gtest.h>
#include <png.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tools/png_io.h"

namespace {

class PngFiles : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kelvo-png-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    for (const std::string& f : made_) std::remove(f.c_str());
    rmdir(dir_.c_str());
  }
  std::string file(const std::string& name) {
    made_.push_back(dir_ + "/" + name);
    return made_.back();
  }
  // Writes a PNG in another layout with libpng itself, as other programs would.
  std::string other(const std::string& name, png_uint_32 format, const void* pixels, const void* colormap = nullptr,
                    png_uint_32 colors = 0) {
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    image.width = 2;
    image.height = 1;
    image.format = format;
    image.colormap_entries = colors;
    const std::string path = file(name);
    EXPECT_NE(png_image_write_to_file(&image, path.c_str(), 0, pixels, 0, colormap), 0) << image.message;
    return path;
  }

  std::string dir_;
  std::vector<std::string> made_;
};

TEST_F(PngFiles, GrayPageRoundTripsWithAnyStride) {
  const unsigned char pixels[] = {0, 1, 2, 99, 99, 128, 254, 255, 99, 99};
  const std::string path = file("gray.png");
  std::string error;
  ASSERT_TRUE(kelvoPngWriteGray(path, pixels, 3, 2, 5, error)) << error;
  GrayPage page;
  ASSERT_TRUE(kelvoPngReadGray(path, page, error)) << error;
  EXPECT_EQ(page.width, 3u);
  EXPECT_EQ(page.height, 2u);
  EXPECT_EQ(page.pixels, (std::vector<unsigned char>{0, 1, 2, 128, 254, 255}));
}

TEST_F(PngFiles, OtherLayoutsReadAsGrayOnWhitePaper) {
  const unsigned char rgb[] = {0, 0, 0, 255, 255, 255};
  const unsigned char grayAlpha[] = {0, 0, 0, 255};  // transparent black, opaque black
  const png_uint_16 deep[] = {65535, 0};
  const unsigned char indices[] = {1, 0};
  const unsigned char palette[] = {0, 0, 0, 255, 255, 255};
  struct Case { std::string path; std::vector<unsigned char> gray; };
  const Case cases[] = {
      {other("rgb.png", PNG_FORMAT_RGB, rgb), {0, 255}},
      {other("alpha.png", PNG_FORMAT_GA, grayAlpha), {255, 0}},
      {other("deep.png", PNG_FORMAT_LINEAR_Y, deep), {255, 0}},
      {other("palette.png", PNG_FORMAT_RGB_COLORMAP, indices, palette, 2), {255, 0}},
  };
  for (const Case& c : cases) {
    GrayPage page;
    std::string error;
    ASSERT_TRUE(kelvoPngReadGray(c.path, page, error)) << c.path << ": " << error;
    EXPECT_EQ(page.pixels, c.gray) << c.path;
  }
}

TEST_F(PngFiles, ReportsFilesItCannotUse) {
  const std::string text = file("text.png");
  FILE* f = std::fopen(text.c_str(), "w");
  ASSERT_NE(f, nullptr);
  std::fputs("not a picture\n", f);
  std::fclose(f);
  const unsigned char pixel = 0;
  GrayPage page;
  std::string error;
  EXPECT_FALSE(kelvoPngReadGray(text, page, error));
  EXPECT_EQ(error.rfind(text + ": ", 0), 0u) << error;
  EXPECT_FALSE(kelvoPngReadGray(dir_ + "/missing.png", page, error));
  EXPECT_FALSE(kelvoPngWriteGray(dir_ + "/no/such/dir.png", &pixel, 1, 1, 1, error));
  EXPECT_FALSE(kelvoPngWriteGray(file("empty.png"), &pixel, 0, 1, 1, error));
  EXPECT_EQ(error, dir_ + "/empty.png: cannot write an empty image");
}

}  // namespace
