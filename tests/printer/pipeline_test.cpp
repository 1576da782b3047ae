// The printer object and its page pipeline: clamps, the debug BMP files, the
// anti-wrinkle frame and the blank-row counters. The halftone dispatch is held
// to the plain definitions in test_support/.
#include <glob.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include <cstring>
#include <ctime>
#include <vector>

#include "test_support/memory_printer.h"
#include "test_support/read_file.h"

namespace {

uint32_t le32(const std::string& s, size_t at) {
  return static_cast<unsigned char>(s[at]) | static_cast<unsigned char>(s[at + 1]) << 8 |
         static_cast<unsigned char>(s[at + 2]) << 16 | static_cast<uint32_t>(static_cast<unsigned char>(s[at + 3])) << 24;
}

TEST(PrinterObject, DefaultsAndClamps) {
  ZplPrinter p;
  EXPECT_EQ(p.getPrintSpeed(), 7);
  EXPECT_EQ(p.getPrintDensity(), 8);
  ASSERT_EQ(p.getOutputStreams().size(), 1u);
  EXPECT_EQ(p.getOutputStreams().front(), stdout);
  EXPECT_EQ(std::strncmp(p.getCopyRight(), "MFT:", 4), 0);

  struct Clamp {
    void (KelvoPrinter::*set)(int);
    int (KelvoPrinter::*get)() const;
    std::vector<std::pair<int, int>> inOut;
  };
  const Clamp clamps[] = {
      {&KelvoPrinter::setBrightness, &KelvoPrinter::getBrightness, {{-250, -100}, {100, 100}, {-37, -37}}},
      {&KelvoPrinter::setContrast, &KelvoPrinter::getContrast, {{101, 100}, {-101, -100}}},
      {&KelvoPrinter::setPrintDensity, &KelvoPrinter::getPrintDensity, {{-1, 0}, {30, 15}, {0, 0}}},
  };
  for (const Clamp& c : clamps)
    for (const auto& [in, out] : c.inOut) {
      (p.*c.set)(in);
      EXPECT_EQ((p.*c.get)(), out) << in;
    }
  // The speed starts at 1 where the density starts at 0.
  struct SpeedCase { const char* in; int out; };
  for (SpeedCase c : {SpeedCase{"0", 1}, {"fast", 1}, {"16", 15}, {"9", 9}, {"-3", 1}}) {
    std::vector<char> text(c.in, c.in + std::strlen(c.in) + 1);
    p.setPrintSpeed(text.data());
    EXPECT_EQ(p.getPrintSpeed(), c.out) << c.in;
  }
}

TEST(PrinterObject, PrintFormatReturnsCountOfLastStream) {
  ZplPrinter p;
  p.getOutputStreams().clear();
  EXPECT_EQ(p.printFormat("^PQ%d\n", 3), 0);  // no stream, nothing written
  FILE* a = std::tmpfile();
  FILE* b = std::tmpfile();
  p.getOutputStreams().push_back(a);
  p.getOutputStreams().push_back(b);
  EXPECT_EQ(p.printFormat("^PQ%d\n", 3), 5);
  p.printByte(0);
  for (FILE* f : {a, b}) {
    std::rewind(f);
    char buf[16] = {};
    ASSERT_EQ(std::fread(buf, 1, sizeof buf, f), 6u);
    EXPECT_EQ(std::string(buf, 6), std::string("^PQ3\n\0", 6));
    std::fclose(f);
  }
}

// The halftone type goes to the image library's Dither unchanged (names and
// methods sit one place apart on purpose), and negative printing swaps dot
// (1) and paper (0).
TEST(PageProcess, TypeNumberGoesToDitherUnchanged) {
  const int width = 13, height = 6;
  std::vector<unsigned char> page(width * height);
  for (size_t i = 0; i < page.size(); ++i) page[i] = static_cast<unsigned char>(i * 37 % 256);
  for (int type : {0, 1, 2, 3, 4, 5, 6, 7, 10, 42}) {
    for (bool negative : {false, true}) {
      MemoryPrinter p;
      p.setHalftoneType(static_cast<DitherType>(type));
      p.setNegativePrint(negative);
      ASSERT_TRUE(p.PageProcess(p.getHalftoneType(), page.data(), width, width, height));
      PaletteImage want;
      ASSERT_TRUE(want.CreateFromArray(page.data(), width, height, 8, width, false));
      ASSERT_TRUE(want.Dither(type) && want.IncreaseBpp(8));
      for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
          const unsigned char v = want.GetPixelIndex(x, y);
          ASSERT_EQ(p.processed()->GetPixelIndex(x, y), negative ? 1 - v : v) << type << " " << x << "," << y;
        }
    }
  }
}

class SavedImage : public testing::Test {
 protected:
  void SetUp() override {
    char dirTemplate[] = "/tmp/kelvo-bmp-XXXXXX";
    ASSERT_NE(mkdtemp(dirTemplate), nullptr);
    dir = dirTemplate;
    p.setDebugImages(true, dir, "job/7");
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
  MemoryPrinter p;
  std::string dir;
};

TEST_F(SavedImage, EightBitHeaderPaletteAndUnpaddedRows) {
  const unsigned char data[] = {1, 2, 3, 4, 5, 99, 99, 6, 7, 8, 9, 10, 99, 99, 11, 12, 13, 14, 15, 99, 99};
  const time_t before = std::time(nullptr);
  p.saveImage(data, 7, 3, 5, 8, "origin");
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
  // Two rows of ten pixels: a zero byte is paper and sets its bit.
  const unsigned char data[] = {0, 1, 0, 1, 0, 1, 0, 1, 0, 1,   // row 0
                                1, 1, 1, 1, 1, 1, 1, 1, 0, 0};  // row 1
  p.saveImage(data, 10, 2, 10, 1, "dithered");
  const std::string bmp = readFile(onlyFile());
  ASSERT_EQ(bmp.size(), 62u + 2 * 4u);
  EXPECT_EQ(le32(bmp, 10), 62u);
  EXPECT_EQ(le32(bmp, 34), 8u);
  EXPECT_EQ(le32(bmp, 46), 0u);
  EXPECT_EQ(le32(bmp, 54), 0u);          // black
  EXPECT_EQ(le32(bmp, 58), 0x00FFFFFFu);  // white
  // Row 1 first; bits 8 and 9 fall in byte 1, whose unused low bits are set.
  const unsigned char rows[] = {0x00, 0xC0 | 0x3F, 0, 0, 0xAA, 0x80 | 0x3F, 0, 0};
  EXPECT_EQ(bmp.substr(62), std::string(reinterpret_cast<const char*>(rows), 8));
}

TEST_F(SavedImage, OneBitRowOfThirtyTwoIsFourBytes) {
  // 32 pixels fill four bytes exactly: no padding, no unused bits. Ink
  // everywhere but the last pixel.
  std::vector<unsigned char> data(32, 1);
  data[31] = 0;
  p.saveImage(data.data(), 32, 1, 32, 1, "dithered");
  const std::string bmp = readFile(onlyFile());
  ASSERT_EQ(bmp.size(), 62u + 4u);
  EXPECT_EQ(le32(bmp, 2), 66u);
  EXPECT_EQ(le32(bmp, 34), 4u);
  EXPECT_EQ(bmp.substr(62), std::string("\0\0\0\x01", 4));
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
  for (int i = 0; i < 70; ++i) p.saveImage(data, 2, 2, 2, 8, "origin");
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
  p.setDebugImages(true, "/nonexistent-kelvo-dir", "x");
  const unsigned char data[4] = {};
  testing::internal::CaptureStderr();
  p.saveImage(data, 2, 2, 2, 8, "origin");
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.rfind("WARNING: Debug picture not saved: unable to create /nonexistent-kelvo-dir/kelvozpl-debug-", 0),
            0u)
      << err;
  EXPECT_EQ(p.debugImageCount(), 1u);
}

// At 300 dpi the side lines are 12 dots a millimetre of level, the top and
// bottom lines 12 dots. Frame dots are 255; the added margin takes the gray
// palette's white, 255 as well; the old page keeps its 0.
TEST(AntiWrinkle, FrameAlongTheCanvas) {
  struct Case {
    const char* pageSize;
    int level, width, height;
    int expectWidth, expectHeight;
    int frameX0, frameY0, canvasWidth, canvasHeight;  // canvas in image coordinates
  };
  const Case cases[] = {
      // A4 at 300 dpi: 2362 x 3000 grows to the 2386 x 3272 canvas.
      {"A4", 1, 2362, 3000, 2386, 3272, 0, 0, 2386, 3272},
      // One dot short: the difference halves to 0, no widening, and the
      // right line's last column lies outside the image.
      {"A4", 1, 2385, 3272, 2385, 3272, 0, 0, 2386, 3272},
      // Wider than the canvas: the frame is drawn into the picture from 307;
      // taller too: from row 164 down.
      {"A4", 1, 3000, 3272, 3000, 3272, 307, 0, 2386, 3272},
      {"A4", 1, 3000, 3600, 3000, 3600, 307, 164, 2386, 3272},
      {"Tattoo_A6", 2, 1000, 1400, 1228, 1418, 0, 0, 1229, 1418},
      // Letter: 210 x 257 mm is 24803.1 and 30354.3 tenths of a dot, which
      // round to 2480 and 3035 dots (a tenth of 4 rounds down).
      {"Letter", 1, 2500, 3055, 2504, 3059, 0, 0, 2504, 3059},
      // Unknown names (also by letter case) get no frame at all.
      {"a4", 1, 40, 30, 40, 30, 0, 0, 0, 0},
      {"w288h432", 1, 40, 30, 40, 30, 0, 0, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.pageSize) + " " + std::to_string(c.width) + "x" + std::to_string(c.height));
    ZplPrinter p;
    cups_page_header2_t header{};
    std::snprintf(header.cupsPageSizeName, sizeof header.cupsPageSizeName, "%s", c.pageSize);
    p.setPageHeader(&header);
    p.setAntiWrinkle(c.level);
    PaletteImage image;
    std::vector<unsigned char> blank(static_cast<size_t>(c.width) * c.height, 0);
    ASSERT_TRUE(image.CreateFromArray(blank.data(), c.width, c.height, 8, c.width, false));
    p.EnableAntiWrink(image);
    ASSERT_EQ(static_cast<int>(image.GetWidth()), c.expectWidth);
    ASSERT_EQ(static_cast<int>(image.GetHeight()), c.expectHeight);
    const int lineV = c.level == 1 ? 12 : 24, lineH = 12;
    const int ex = (c.expectWidth - c.width) / 2, ey = (c.expectHeight - c.height) / 2;
    long mismatches = 0;
    for (int y = 0; y < c.expectHeight; ++y) {
      for (int x = 0; x < c.expectWidth; ++x) {
        const int cx = x - c.frameX0, cy = y - c.frameY0;
        const bool inCanvas = cx >= 0 && cy >= 0 && cx < c.canvasWidth && cy < c.canvasHeight;
        const bool frame = inCanvas && (cx < lineV || cx >= c.canvasWidth - lineV || cy < lineH ||
                                        cy >= c.canvasHeight - lineH);
        const bool oldArea = x >= ex && x < ex + c.width && y >= ey && y < ey + c.height;
        mismatches += image.GetPixelIndex(x, y) != (frame || !oldArea ? 255 : 0);
      }
    }
    EXPECT_EQ(mismatches, 0);
  }
  // Before any page header has come there is no sheet to frame.
  ZplPrinter p;
  p.setAntiWrinkle(1);
  PaletteImage image;
  std::vector<unsigned char> blank(40 * 30, 0);
  ASSERT_TRUE(image.CreateFromArray(blank.data(), 40, 30, 8, 40, false));
  p.EnableAntiWrink(image);
  EXPECT_EQ(image.GetWidth(), 40u);
  EXPECT_EQ(std::vector<unsigned char>(image.GetBits(0), image.GetBits(0) + 40 * 30), blank);
}

TEST(BlankRows, CountersFromFrontAndBack) {
  struct Case {
    std::vector<int> inkRows;  // rows holding a non-zero byte
    size_t front, back;
  };
  const size_t height = 6, width = 5;
  const Case cases[] = {
      {{}, height, 0},
      {{0}, height, 1},  // the front count never looks at the first row
      {{2}, 1, 3},
      {{1, 4}, 0, 5},
      {{5}, 4, 6},
  };
  for (const Case& c : cases) {
    std::vector<unsigned char> page(width * height, 0);
    for (int r : c.inkRows) page[r * width + 2] = 9;
    EXPECT_EQ(kelvoImageCountBlankLinesFromFront(page.data(), width, height, 0, width), c.front);
    EXPECT_EQ(kelvoImageCountBlankLinesFromBack(page.data(), width, height, 0, width), c.back);
  }
  // Ink only in the skipped right-hand pixels does not count.
  std::vector<unsigned char> page(width * height, 0);
  page[3 * width + 4] = 1;
  EXPECT_EQ(kelvoImageCountBlankLinesFromBack(page.data(), width, height, 1, width), 0u);
  EXPECT_EQ(kelvoImageCountBlankLinesFromBack(page.data(), width, height, 0, width), 4u);
  EXPECT_EQ(kelvoImageCountBlankLinesFromBack(page.data(), width, height, 99, width), 4u);
}

}  // namespace
