// halftonepreview with a page size: the picture lands on the page where CUPS
// puts it, and the printed dots come out of the filter's own pipeline.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "test_support/read_file.h"
#include "printer/png_io.h"

namespace {

struct Scratch {
  Scratch() : dir(testing::TempDir() + "kelvo-preview-" + std::to_string(getpid())) {
    EXPECT_EQ(std::system(("mkdir -p " + dir).c_str()), 0);
  }
  ~Scratch() { EXPECT_EQ(std::system(("rm -rf " + dir).c_str()), 0); }
  std::string dir;
};

// A picture from rows of '#' (black) and '.' (white).
void writePicture(const std::string& path, const std::vector<std::string>& rows) {
  std::vector<unsigned char> pixels;
  for (const std::string& row : rows)
    for (char c : row) pixels.push_back(c == '#' ? 0 : 255);
  std::string error;
  ASSERT_TRUE(kelvoPngWriteGray(path, pixels.data(), static_cast<uint32_t>(rows[0].size()),
                                static_cast<uint32_t>(rows.size()), rows[0].size(), error))
      << error;
}

// The preview as rows of '#' (dot) and '.' (paper).
std::vector<std::string> readPreview(const std::string& path) {
  GrayPage page;
  std::string error;
  std::vector<std::string> rows;
  if (!kelvoPngReadGray(path, page, error)) return {error};
  for (uint32_t y = 0; y < page.height; ++y) {
    rows.emplace_back();
    for (uint32_t x = 0; x < page.width; ++x) rows.back() += page.pixels[y * page.width + x] == 0 ? '#' : '.';
  }
  return rows;
}

std::vector<std::string> repeat(const std::string& row, size_t times) { return std::vector<std::string>(times, row); }

std::vector<std::string> join(std::vector<std::string> a, const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Threshold halftone (ink above 128 prints). At 72 dpi a size of wXhY points
// is X by Y dots.
TEST(HalftonePreview, PutsThePictureOnThePageAsCupsDoes) {
  const std::vector<std::string> leftHalfBlack = repeat("##########..........", 10);  // 20 x 10
  struct Case {
    const char* what;
    std::vector<std::string> picture;
    const char* size;
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      // Landscape on a portrait page: a quarter turn left puts the left half
      // at the bottom; 10 x 20 shrinks to 8 x 16, centred across.
      {"turned", leftHalfBlack, "w10h16", join(repeat("..........", 8), repeat(".########.", 8))},
      // Landscape on landscape: 20 x 10 shrinks to 16 x 8, centred down.
      {"upright", leftHalfBlack, "w16h10",
       join(join(repeat("................", 1), repeat("########........", 8)), repeat("................", 1))},
      // Enlarged four times between pixel centres: light 0, 0, 32, 96 print,
      // 159, 223, 255 and 255 do not. A square page turns nothing.
      {"enlarged", {"#."}, "w8h8",
       join(join(repeat("........", 2), repeat("####....", 4)), repeat("........", 2))},
  };
  Scratch s;
  for (const Case& c : cases) {
    writePicture(s.dir + "/in.png", c.picture);
    const std::string command = std::string(HALFTONEPREVIEW_PATH) + " -t threshold -r 72 -s " + c.size + " " + s.dir +
                                "/in.png " + s.dir + "/out.png > " + s.dir + "/log 2>&1";
    ASSERT_EQ(std::system(command.c_str()), 0) << c.what << ": " << readFile(s.dir + "/log");
    EXPECT_EQ(readPreview(s.dir + "/out.png"), c.expected) << c.what;
  }
}

// Every form of size name gives the page its size in dots at the resolution;
// anything else is refused before a file is written.
TEST(HalftonePreview, PageSizeNames) {
  const std::pair<std::string, std::string> cases[] = {
      {"-s 1x0.5 -r 100", "100 x 50"},  {"-s 10x5mm -r 254", "100 x 50"}, {"-s w144h36 -r 100", "200 x 50"},
      {"-s A6 -r 72", "298 x 420"},     {"-s Tattoo_A6 -r 72", "298 x 420"}, {"-s 4x6", "812 x 1218"},
      {"-s 4x6 -r 300", "1200 x 1800"}, {"-s 4y6", ""},  {"-s 4x6cm", ""}, {"-s w0h10", ""}, {"-s 4x6 -r 0", ""},
  };
  Scratch s;
  writePicture(s.dir + "/in.png", {"#"});
  for (const auto& c : cases) {
    std::remove((s.dir + "/out.png").c_str());
    const std::string command = std::string(HALFTONEPREVIEW_PATH) + " " + c.first + " " + s.dir + "/in.png " +
                                s.dir + "/out.png > " + s.dir + "/log 2>&1";
    const int status = std::system(command.c_str());
    if (c.second.empty()) {
      EXPECT_EQ(WEXITSTATUS(status), 2) << c.first;
      EXPECT_EQ(access((s.dir + "/out.png").c_str(), F_OK), -1) << c.first;
    } else {
      EXPECT_EQ(status, 0) << c.first << ": " << readFile(s.dir + "/log");
      GrayPage page;
      std::string error;
      ASSERT_TRUE(kelvoPngReadGray(s.dir + "/out.png", page, error)) << c.first << ": " << error;
      EXPECT_EQ(std::to_string(page.width) + " x " + std::to_string(page.height), c.second) << c.first;
    }
  }
}

}  // namespace
