#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "printer/zpl_printer.h"
#include "tools/zpl_decode.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Replaces a printer's streams with temporary files and reads them back.
class Capture {
 public:
  Capture(KelvoPrinter& printer, int streams) {
    printer.getOutputStreams().clear();
    for (int i = 0; i < streams; ++i) {
      files_.push_back(std::tmpfile());
      printer.getOutputStreams().push_back(files_.back());
    }
  }
  ~Capture() {
    for (FILE* f : files_) std::fclose(f);
  }
  std::string text(size_t i = 0) const {
    std::fflush(files_[i]);
    std::rewind(files_[i]);
    std::string out;
    for (int c; (c = std::fgetc(files_[i])) != EOF;) out.push_back(static_cast<char>(c));
    return out;
  }

 private:
  std::vector<FILE*> files_;
};

Bytes repeat(size_t n, unsigned char value) { return Bytes(n, value); }
Bytes dotsThenPaper(size_t dotBytes, size_t paperBytes) {
  Bytes row(dotBytes + paperBytes, 0x00);
  std::fill_n(row.begin(), dotBytes, 0xFF);
  return row;
}
std::string times(size_t n, const std::string& s) {
  std::string out;
  while (n-- > 0) out += s;
  return out;
}

// Pixels from picture rows: '#' is a dot (any non-zero value), anything else paper.
Bytes picture(const std::vector<std::string>& rows) {
  Bytes pixels;
  unsigned char ink = 1;
  for (const std::string& row : rows)
    for (char c : row) pixels.push_back(c == '#' ? ink++ | 1 : 0);
  return pixels;
}

// Plain one-pixel-at-a-time packing, the reference for the emitter's packer.
Bytes packReference(const Bytes& pixels, size_t width, size_t height, size_t kept) {
  const size_t rowBytes = (kept + 7) / 8;
  Bytes packed(rowBytes * height, 0);
  for (size_t y = 0; y < height; ++y)
    for (size_t x = 0; x < kept; ++x)
      if (pixels[y * width + x] != 0) packed[y * rowBytes + x / 8] |= static_cast<unsigned char>(1 << (7 - x % 8));
  return packed;
}

class Zpl : public testing::Test {
 protected:
  void SetUp() override {
    sPrinter = &printer;
    LastSet = 0;
    header.NumCopies = 1;
    printer.setPageHeader(&header);
  }
  void TearDown() override { sPrinter = nullptr; }

  std::string line(const Bytes& row, int lastSet) {
    Capture capture(printer, 1);
    LastSet = lastSet;
    printer.ZPLPrintLine(row.data(), static_cast<int>(row.size()));
    EXPECT_EQ(LastSet, 1);
    return capture.text();
  }
  std::string page(const Bytes& pixels, unsigned long width, unsigned long height) {
    Capture capture(printer, 1);
    LastSet = 0;
    printer.doPrintImage(pixels.data(), 999, height, width);
    return capture.text();
  }

  ZplPrinter printer;
  cups_page_header2_t header{};
};

TEST_F(Zpl, RowsAreSentInTheirCompressedForm) {
  struct Case { Bytes row; int lastSet; std::string sent; };
  const Case cases[] = {
      {{0xFF, 0xFF, 0, 0, 0, 0, 0, 0}, 0, "JF,"},
      {{0x0F, 0x00, 0x00}, 0, "0F,"},
      {{0x0F, 0x00, 0x00}, 1, "0F,"},  // only all-dots rows are ever repeats
      {{0x80, 0x00, 0x00}, 0, "80,"},
      {{0x00, 0x00, 0x00}, 0, ","},
      {{0x80}, 0, "80"},
      {{0xF0, 0x0F}, 0, "FH0F"},  // inner zeros are an ordinary run
      {{0x00, 0x01}, 1, "I01"},
      {dotsThenPaper(50, 10), 0, "kF,"},
      {repeat(104, 0xFF), 0, "pNF"},
      {repeat(104, 0xFF), 1, ":"},
      {repeat(60, 0x12), 0, times(60, "12")},
  };
  for (const Case& c : cases) EXPECT_EQ(line(c.row, c.lastSet), c.sent) << c.sent;
}

TEST_F(Zpl, RunLengthsAddUpFromTheCountLetters) {
  struct Case { unsigned count; std::string sent; };
  const Case cases[] = {{1, "7"},     {2, "H7"},    {19, "Y7"},  {20, "g7"},     {39, "gY7"}, {380, "y7"},
                        {399, "yY7"}, {400, "z7"}, {437, "zgW7"}, {821, "zzgG7"}};
  for (const Case& c : cases) {
    Capture capture(printer, 1);
    printer.ZPLCompress('7', c.count);
    EXPECT_EQ(capture.text(), c.sent) << c.count;
  }
}

TEST_F(Zpl, GrayToMonoPacksInPlace) {
  struct Case { int width; unsigned long skip; std::vector<std::string> rows; Bytes packed; };
  const std::string full20(20, '#');
  const Case cases[] = {
      {20, 0, {full20}, {0xFF, 0xFF, 0xF0}},
      {20, 4, {full20, "...................#"}, {0xFF, 0xFF, 0x00, 0x00}},
      {20, 20, {full20}, {0xFF, 0xFF, 0xF0}},  // a skip of the whole row keeps it
      {20, 25, {full20}, {0xFF, 0xFF, 0xF0}},
      {9, 0, {"#.......#", ".......#."}, {0x80, 0x80, 0x01, 0x00}},
      {3, 1, {"#.#", ".#."}, {0x80, 0x40}},
  };
  for (const Case& c : cases) {
    Bytes pixels = picture(c.rows);
    printer.setSkipRightPixels(c.skip);
    const int total = printer.GrayToMono(c.width, static_cast<int>(c.rows.size()), pixels.data());
    ASSERT_EQ(total, static_cast<int>(c.packed.size())) << c.width << "/" << c.skip;
    EXPECT_EQ(Bytes(pixels.begin(), pixels.begin() + total), c.packed) << c.width << "/" << c.skip;
  }
}

TEST_F(Zpl, WholeGraphicStreamOfSmallPages) {
  const std::string end = "^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n";
  const std::string full16(16, '#'), full20(20, '#');
  struct Case { unsigned long width; unsigned long skip; unsigned copies; std::vector<std::string> rows; std::string sent; };
  const Case cases[] = {
      {8, 0, 1, {"#......."}, "^XX\r\n^PQ1\n~DGR:CUPS.GRF,1,1,\n80" + end},
      // The first all-dots row is sent in full, later ones as ":"; equal rows
      // that are not all dots are each sent in full.
      {16, 0, 3, {full16, full16, "####........####", "####........####", full16},
       "^XX\r\n^PQ3\n~DGR:CUPS.GRF,10,2,\nJF:FH0FFH0F:" + end},
      {20, 4, 1, {full20, full20, "...................#"}, "^XX\r\n^PQ1\n~DGR:CUPS.GRF,6,2,\nJF:," + end},
      {12, 0, 2, {"############", "############"}, "^XX\r\n^PQ2\n~DGR:CUPS.GRF,4,2,\nIF0IF0" + end},
  };
  for (const Case& c : cases) {
    header.NumCopies = c.copies;
    printer.setSkipRightPixels(c.skip);
    const Bytes pixels = picture(c.rows);
    Capture capture(printer, 2);
    LastSet = 0;
    printer.doPrintImage(pixels.data(), 999, c.rows.size(), c.width);
    EXPECT_EQ(capture.text(0), c.sent);
    EXPECT_EQ(capture.text(1), c.sent) << "every stream receives the same bytes";
    EXPECT_EQ(pixels, picture(c.rows)) << "the caller's page is left as it was";
  }
}

TEST_F(Zpl, CopyCountGoesThroughTheCurrentPrinter) {
  ZplPrinter current;
  Capture other(current, 1);
  sPrinter = &current;
  header.NumCopies = 4;
  EXPECT_EQ(page(picture({"#......."}), 8, 1), "^XX\r\n~DGR:CUPS.GRF,1,1,\n80^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n");
  EXPECT_EQ(other.text(), "^PQ4\n");
}

TEST_F(Zpl, EmptyPageSendsNothing) {
  const Bytes pixels(8, 1);
  EXPECT_EQ(page(pixels, 8, 0), "");
  EXPECT_EQ(page(pixels, 0, 1), "");
}

// What a printer draws: an all-dots row after a row that is not all dots is
// sent as ":", so the printer repeats the row before it and the black row is lost.
TEST_F(Zpl, AllDotsRowAfterAnotherRowPrintsAsThatRow) {
  const std::string job = page(picture({"####....", "########"}), 8, 2);
  std::vector<ZplGraphic> graphics;
  std::string error;
  ASSERT_TRUE(kelvoZplDecode(reinterpret_cast<const unsigned char*>(job.data()), job.size(), graphics, error)) << error;
  ASSERT_EQ(graphics.size(), 1u);
  EXPECT_EQ(graphics[0].rows, (Bytes{0xF0, 0xF0}));
}

// Random pages, encoded and decoded again, give back the packed page, except
// that an all-dots row after the first row reads back as the row before it.
TEST_F(Zpl, RandomPagesDecodeToThePackedPage) {
  std::mt19937 random(20240611);
  const size_t widths[] = {1, 3, 4, 7, 8, 12, 13, 16, 20, 21, 36, 64, 100, 333, 832};
  const double inks[] = {0.0, 0.1, 0.5, 0.97, 1.0};
  for (size_t width : widths)
    for (size_t height : {1, 2, 17})
      for (double ink : inks)
        for (unsigned long skip : {0ul, 3ul}) {
          std::bernoulli_distribution dot(ink);
          Bytes pixels(width * height);
          for (unsigned char& p : pixels) p = dot(random) ? static_cast<unsigned char>(1 + random() % 255) : 0;
          const size_t kept = (skip != 0 && skip < width) ? width - skip : width;
          const size_t rowBytes = (kept + 7) / 8;
          Bytes expected = packReference(pixels, width, height, kept);
          for (size_t y = 1; y < height; ++y) {
            auto row = expected.begin() + static_cast<long>(y * rowBytes);
            if (std::all_of(row, row + static_cast<long>(rowBytes), [](unsigned char b) { return b == 0xFF; }))
              std::copy(row - static_cast<long>(rowBytes), row, row);
          }
          printer.setSkipRightPixels(skip);
          const std::string job = page(pixels, width, height);
          std::vector<ZplGraphic> graphics;
          std::string error;
          const std::string where = std::to_string(width) + "x" + std::to_string(height) + " ink " +
                                    std::to_string(ink) + " skip " + std::to_string(skip);
          ASSERT_TRUE(kelvoZplDecode(reinterpret_cast<const unsigned char*>(job.data()), job.size(), graphics, error))
              << where << ": " << error;
          ASSERT_EQ(graphics.size(), 1u) << where;
          EXPECT_EQ(graphics[0].bytesPerRow, rowBytes) << where;
          EXPECT_EQ(graphics[0].height, height) << where;
          EXPECT_EQ(graphics[0].rows, expected) << where;
        }
}

}  // namespace
