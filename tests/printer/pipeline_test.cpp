// The page pipeline's debug BMP files and the anti-wrinkle frame. The
// halftones are held to the plain definitions in test_support/.
#include <glob.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <ctime>
#include <vector>

#include "printer/anti_wrinkle.h"
#include "printer/debug_pictures.h"
#include "test_support/read_file.h"

namespace {

uint32_t le32(const std::string& s, size_t at) {
  return static_cast<unsigned char>(s[at]) | static_cast<unsigned char>(s[at + 1]) << 8 |
         static_cast<unsigned char>(s[at + 2]) << 16 | static_cast<uint32_t>(static_cast<unsigned char>(s[at + 3])) << 24;
}

class SavedImage : public testing::Test {
 protected:
  void SetUp() override {
    char dirTemplate[] = "/tmp/kelvo-bmp-XXXXXX";
    ASSERT_NE(mkdtemp(dirTemplate), nullptr);
    dir = dirTemplate;
    p = std::make_unique<KelvoDebugPictures>(dir, "job/7");
  }
  void TearDown() override { std::system(("rm -rf " + dir).c_str()); }
  std::vector<std::string> files(const char* pattern = "/*") {
    glob_t found{};
    glob((dir + pattern).c_str(), 0, nullptr, &found);
    std::vector<std::string> paths(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    globfree(&found);
    return paths;
  }
  std::string onlyFile() {
    const std::vector<std::string> all = files();
    EXPECT_EQ(all.size(), 1u);
    return all.empty() ? "" : all[0];
  }
  std::unique_ptr<KelvoDebugPictures> p;
  std::string dir;
};

TEST_F(SavedImage, EightBitHeaderPaletteAndUnpaddedRows) {
  const unsigned char data[] = {1, 2, 3, 4, 5, 99, 99, 6, 7, 8, 9, 10, 99, 99, 11, 12, 13, 14, 15, 99, 99};
  const time_t before = std::time(nullptr);
  p->saveReceived(data, 5, 3);
  const time_t after = std::time(nullptr);
  const std::string path = onlyFile();
  // The job tag cannot reach another folder; pid and page number keep two
  // jobs of the same second apart; the local date and time close the name.
  const std::string name = path.substr(dir.size() + 1);
  EXPECT_EQ(name.rfind("kelvozpl-debug-origin-job_7-" + std::to_string(getpid()) + "-0-", 0), 0u) << name;
  auto stamp = [](time_t t) {
    struct tm local {};
    localtime_r(&t, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%d%H%M%S.bmp", &local);
    return std::string(text);
  };
  const std::string end = name.substr(name.rfind('-') + 1);
  EXPECT_TRUE(end == stamp(before) || end == stamp(after)) << name;
  struct stat info {};
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  const std::string bmp = readFile(path);
  // 54 header bytes, 1024 palette bytes, then width x height bytes straight
  // from the buffer: 15, although the header declares 3 rows of 8.
  ASSERT_EQ(bmp.size(), 54u + 1024u + 15u);
  EXPECT_EQ(bmp.substr(0, 2), "BM");
  const uint32_t fields[][2] = {{2, 1078 + 24}, {6, 0},  {10, 1078}, {14, 40}, {18, 5},  {22, 3},
                                {30, 0},        {34, 24}, {38, 0},   {42, 0},  {46, 256}, {50, 256}};
  for (const auto& f : fields) EXPECT_EQ(le32(bmp, f[0]), f[1]) << "offset " << f[0];
  EXPECT_EQ(le32(bmp, 26), 1u | 8u << 16);  // planes 1, 8 bits per pixel
  for (int i = 0; i < 256; ++i) EXPECT_EQ(le32(bmp, 54 + 4 * i), static_cast<uint32_t>(i * 0x010101)) << i;
  EXPECT_EQ(bmp.substr(1078), std::string(reinterpret_cast<const char*>(data), 15));
}

TEST_F(SavedImage, OneBitRowsBottomUpWithPaperBitsSet) {
  // Two rows of ten dots and one of 32 (four bytes exactly: no padding, no
  // unused bits); a dot is black, bit 0.
  KelvoDots dots;
  dots.reset(10, 2);
  dots.row(0)[0] = 0x55, dots.row(0)[1] = 0x40;  // .#.#.#.#.#
  dots.row(1)[0] = 0xFF;                          // ########..
  p->savePrinted(dots);
  dots.reset(32, 1);
  std::memset(dots.row(0), 0xFF, 4);
  dots.row(0)[3] = 0xFE;  // the last pixel is paper
  p->savePrinted(dots);
  // Sizes past 16 bits: 600 dots are 76 bytes a row, 1000 rows 76000 bytes.
  dots.reset(600, 1000);
  p->savePrinted(dots);
  std::vector<std::string> saved = files();
  ASSERT_EQ(saved.size(), 3u);
  const std::string large = readFile(saved[2].find("-2-") != std::string::npos   ? saved[2]
                                     : saved[1].find("-2-") != std::string::npos ? saved[1]
                                                                                 : saved[0]);
  EXPECT_EQ(le32(large, 2), 62u + 76000u);
  EXPECT_EQ(le32(large, 18), 600u);
  EXPECT_EQ(le32(large, 22), 1000u);
  EXPECT_EQ(le32(large, 34), 76000u);
  saved.erase(std::remove_if(saved.begin(), saved.end(),
                             [](const std::string& path) { return path.find("-2-") != std::string::npos; }),
              saved.end());
  ASSERT_EQ(saved.size(), 2u);
  const std::string ten = readFile(saved[0].find("-0-") != std::string::npos ? saved[0] : saved[1]);
  const std::string wide = readFile(saved[0].find("-0-") != std::string::npos ? saved[1] : saved[0]);
  ASSERT_EQ(ten.size(), 62u + 2 * 4u);
  EXPECT_EQ(ten.substr(0, 2), "BM");
  const uint32_t fields[][2] = {{2, 70}, {10, 62}, {14, 40}, {18, 10}, {22, 2}, {34, 8}, {46, 0},
                                {54, 0} /* black */, {58, 0x00FFFFFF} /* white */};
  for (const auto& f : fields) EXPECT_EQ(le32(ten, f[0]), f[1]) << "offset " << f[0];
  EXPECT_EQ(le32(ten, 26), 1u | 1u << 16);  // planes 1, 1 bit per pixel
  // Row 1 first; bits 8 and 9 fall in byte 1, whose unused low bits are set.
  const unsigned char rows[] = {0x00, 0xC0 | 0x3F, 0, 0, 0xAA, 0x80 | 0x3F, 0, 0};
  EXPECT_EQ(ten.substr(62), std::string(reinterpret_cast<const char*>(rows), 8));
  ASSERT_EQ(wide.size(), 62u + 4u);
  EXPECT_EQ(le32(wide, 2), 66u);
  EXPECT_EQ(le32(wide, 34), 4u);
  EXPECT_EQ(wide.substr(62), std::string("\0\0\0\x01", 4));
}

// Only the newest 64 pictures stay, oldest removed first; files of other
// names (one a letter off the pictures' prefix), links and what they point
// to are left alone.
TEST_F(SavedImage, FolderKeepsABoundedNumberOfOwnPictures) {
  const std::string target = dir + "/target", link = dir + "/kelvozpl-debug-link.bmp";
  const std::vector<std::string> others = {dir + "/kelvozpl-debug-keep.txt", dir + "/kelvozpl-debugs.bmp", target};
  for (const std::string& other : others) std::fclose(std::fopen(other.c_str(), "w"));
  ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
  const unsigned char data[4] = {1, 2, 3, 4};
  for (int i = 0; i < 70; ++i) p->saveReceived(data, 2, 2);
  const std::vector<std::string> pictures = files("/kelvozpl-debug-origin-*.bmp");
  ASSERT_EQ(pictures.size(), 64u);
  // Names carry the page number: 6 to 69 remain.
  std::vector<int> numbers;
  for (const std::string& path : pictures) {
    const size_t end = path.rfind('-'), start = path.rfind('-', end - 1);
    numbers.push_back(std::stoi(path.substr(start + 1, end - start - 1)));
  }
  EXPECT_EQ(*std::min_element(numbers.begin(), numbers.end()), 6);
  EXPECT_EQ(*std::max_element(numbers.begin(), numbers.end()), 69);
  for (const std::string& kept : {others[0], others[1], target, link}) EXPECT_EQ(access(kept.c_str(), F_OK), 0) << kept;
}

TEST_F(SavedImage, UnwritableDirectoryOnlyCostsTheMessage) {
  p = std::make_unique<KelvoDebugPictures>("/nonexistent-kelvo-dir", "x");
  const unsigned char data[4] = {};
  testing::internal::CaptureStderr();
  p->saveReceived(data, 2, 2);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.rfind("WARNING: Debug picture not saved: unable to create /nonexistent-kelvo-dir/kelvozpl-debug-", 0),
            0u)
      << err;
  EXPECT_EQ(p->count(), 1u);
}

// At 300 dpi the side lines are 12 dots a millimetre of level, the top and
// bottom lines 12 dots. A page smaller than the canvas is centred on paper;
// the frame's dots are set and the page keeps its own.
TEST(AntiWrinkle, FrameAlongTheCanvas) {
  struct Case {
    const char* sheet;
    int level;
    unsigned width, height;
    unsigned expectWidth, expectHeight;
    int frameX0, frameY0, canvasWidth, canvasHeight;  // canvas in page coordinates
  };
  const Case cases[] = {
      // A4 at 300 dpi: 2362 x 3000 grows to the 2386 x 3272 canvas.
      {"A4", 1, 2362, 3000, 2386, 3272, 0, 0, 2386, 3272},
      // One dot short: the difference halves to 0, no widening, and the
      // right line's last column lies outside the page.
      {"A4", 1, 2385, 3272, 2385, 3272, 0, 0, 2386, 3272},
      // Wider than the canvas: the frame is drawn into the picture from 307;
      // taller too: from row 164 down.
      {"A4", 1, 3000, 3272, 3000, 3272, 307, 0, 2386, 3272},
      {"A4", 1, 3000, 3600, 3000, 3600, 307, 164, 2386, 3272},
      // The page moves 114 dots right: not a whole number of bytes.
      {"Tattoo_A6", 2, 1000, 1400, 1228, 1418, 0, 0, 1229, 1418},
      // Letter: 210 x 257 mm is 24803.1 and 30354.3 tenths of a dot, which
      // round to 2480 and 3035 dots (a tenth of 4 rounds down).
      {"Letter", 1, 2500, 3055, 2504, 3059, 0, 0, 2504, 3059},
  };
  std::mt19937 rng(3);
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.sheet) + " " + std::to_string(c.width) + "x" + std::to_string(c.height));
    KelvoDots page;
    page.reset(c.width, c.height);
    for (uint8_t& b : page.bits) b = static_cast<uint8_t>(rng() & rng());
    for (unsigned y = 0; y < c.height; ++y) page.row(y)[page.rowBytes - 1] &= page.lastByteMask();
    KelvoDots dots = page;
    ASSERT_TRUE(kelvoDrawAntiWrinkleFrame(dots, c.level, c.sheet, 300, 300));
    ASSERT_EQ(dots.width, c.expectWidth);
    ASSERT_EQ(dots.height, c.expectHeight);
    const int lineV = c.level == 1 ? 12 : 24, lineH = 12;
    const int ex = (c.expectWidth - c.width) / 2, ey = (c.expectHeight - c.height) / 2;
    auto dot = [](const KelvoDots& d, int x, int y) { return (d.row(y)[x / 8] >> (7 - x % 8)) & 1; };
    long mismatches = 0;
    for (int y = 0; y < static_cast<int>(c.expectHeight); ++y) {
      for (int x = 0; x < static_cast<int>(c.expectWidth); ++x) {
        const int cx = x - c.frameX0, cy = y - c.frameY0;
        const bool inCanvas = cx >= 0 && cy >= 0 && cx < c.canvasWidth && cy < c.canvasHeight;
        const bool frame = inCanvas && (cx < lineV || cx >= c.canvasWidth - lineV || cy < lineH ||
                                        cy >= c.canvasHeight - lineH);
        const bool old = x >= ex && x < ex + static_cast<int>(c.width) && y >= ey && y < ey + static_cast<int>(c.height);
        mismatches += dot(dots, x, y) != (frame || (old && dot(page, x - ex, y - ey)));
      }
      mismatches += (dots.row(y)[dots.rowBytes - 1] & ~dots.lastByteMask()) != 0;
    }
    EXPECT_EQ(mismatches, 0);
  }
  // Only the stencil sheets have a frame (names match exactly).
  for (const char* other : {"a4", "w288h432", ""}) {
    KelvoDots dots;
    dots.reset(40, 30);
    EXPECT_FALSE(kelvoDrawAntiWrinkleFrame(dots, 1, other, 300, 300)) << other;
    EXPECT_EQ(dots.width, 40u);
    EXPECT_EQ(std::count(dots.bits.begin(), dots.bits.end(), 0), static_cast<long>(dots.bits.size()));
  }
}

}  // namespace
