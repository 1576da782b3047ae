#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "tests/common/memory_printer.h"
#include "tests/reference/reference.h"
#include "tools/zpl_decode.h"

namespace {

using Bytes = std::vector<unsigned char>;

std::string contents(FILE* f) {
  std::string text(static_cast<size_t>(std::ftell(f)), '\0');
  std::rewind(f);
  text.resize(std::fread(&text[0], 1, text.size(), f));
  std::fclose(f);
  return text;
}

// '#' is a dot, given as varying non-zero values; anything else is paper.
Bytes picture(const std::vector<std::string>& rows) {
  Bytes pixels;
  for (const std::string& row : rows)
    for (char c : row) pixels.push_back(c == '#' ? static_cast<unsigned char>(1 + pixels.size() % 255) : 0);
  return pixels;
}

struct Zpl : testing::Test {
  void SetUp() override { sPrinter = &printer, header.NumCopies = 1, printer.setPageHeader(&header); }
  void TearDown() override { sPrinter = nullptr; }
  // The page as sent; a second stream receives the same bytes.
  std::string page(const Bytes& pixels, unsigned long width, unsigned long height) {
    printer.getOutputStreams().push_back(std::tmpfile());
    LastSet = 0;  // as the driver does before every page
    printer.doPrintImage(pixels.data(), 999, height, width);
    FILE* second = printer.getOutputStreams().back();
    printer.getOutputStreams().pop_back();
    const std::string out = printer.take();
    EXPECT_EQ(contents(second), out) << "every stream receives the same bytes";
    return out;
  }
  MemoryPrinter printer;
  cups_page_header2_t header{};
};

TEST_F(Zpl, RowsAndRunsAreSentCompressed) {
  Bytes dotsThenPaper(60, 0x00);
  std::fill_n(dotsThenPaper.begin(), 50, 0xFF);
  std::string twelves;
  while (twelves.size() < 120) twelves += "12";
  struct Case { Bytes row; int lastSet; std::string sent; };
  const Case rows[] = {
      {{0xFF, 0xFF, 0, 0, 0, 0, 0, 0}, 0, "JF,"}, {{0x0F, 0, 0}, 1, "0F,"}, {{0x80, 0, 0}, 0, "80,"},
      {{0, 0, 0}, 0, ","}, {{0x80}, 0, "80"}, {{0xF0, 0x0F}, 0, "FH0F"}, {dotsThenPaper, 0, "kF,"},
      {Bytes(104, 0xFF), 0, "pNF"}, {Bytes(104, 0xFF), 1, ":"}, {Bytes(60, 0x12), 0, twelves},
  };
  for (const Case& c : rows) {
    LastSet = c.lastSet;
    printer.ZPLPrintLine(c.row.data(), static_cast<int>(c.row.size()));
    EXPECT_EQ(printer.take(), c.sent);
    EXPECT_EQ(LastSet, 1);
  }
  const std::pair<unsigned, std::string> runs[] = {{1, "7"},     {19, "Y7"},     {20, "g7"},     {39, "gY7"},
                                                  {399, "yY7"}, {437, "zgW7"}, {821, "zzgG7"}};
  for (const auto& run : runs) {
    printer.ZPLCompress('7', run.first);
    EXPECT_EQ(printer.take(), run.second) << run.first;
  }
}

TEST_F(Zpl, GrayToMonoPacksRowsInPlace) {
  for (unsigned long skip : {0ul, 20ul, 25ul}) {  // a skip of the whole row or more keeps the row
    Bytes pixels = picture({std::string(20, '#'), "...............#...#"});
    printer.setSkipRightPixels(skip);
    pixels.resize(static_cast<size_t>(printer.GrayToMono(20, 2, pixels.data())));
    EXPECT_EQ(pixels, (Bytes{0xFF, 0xFF, 0xF0, 0x00, 0x01, 0x10})) << skip;
  }
}

TEST_F(Zpl, GraphicStreamOfSmallPages) {
  const std::string end = "^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n", full16(16, '#'), full20(20, '#');
  struct Case { unsigned long width, skip; unsigned copies; std::vector<std::string> rows; std::string sent; };
  const Case cases[] = {
      {8, 0, 1, {"#......."}, "^XX\r\n^PQ1\n~DGR:CUPS.GRF,1,1,\n80" + end},
      {16, 0, 3, {full16, full16, "####........####", "####........####", full16},
       "^XX\r\n^PQ3\n~DGR:CUPS.GRF,10,2,\nJF:FH0FFH0F:" + end},
      {20, 4, 1, {full20, full20, "...................#"}, "^XX\r\n^PQ1\n~DGR:CUPS.GRF,6,2,\nJF:," + end},
      {12, 0, 2, {"############", "############"}, "^XX\r\n^PQ2\n~DGR:CUPS.GRF,4,2,\nIF0IF0" + end},
  };
  for (const Case& c : cases) {
    header.NumCopies = c.copies;
    printer.setSkipRightPixels(c.skip);
    const Bytes pixels = picture(c.rows);
    EXPECT_EQ(page(pixels, c.width, c.rows.size()), c.sent);
    EXPECT_EQ(pixels, picture(c.rows)) << "the caller's page stays as it was";
  }
  EXPECT_EQ(page(Bytes(8, 1), 8, 0) + page(Bytes(8, 1), 0, 1), "") << "an empty page sends nothing";
  MemoryPrinter current;  // the copy count goes to the process-wide printer
  sPrinter = &current, header.NumCopies = 4;
  EXPECT_EQ(page(picture({"#"}), 1, 1).substr(0, 6), "^XX\r\n~");
  EXPECT_EQ(current.take(), "^PQ4\n");
}

Bytes decodedRows(const std::string& job) {
  std::vector<ZplGraphic> graphics;
  std::string error;
  EXPECT_TRUE(kelvoZplDecode(reinterpret_cast<const unsigned char*>(job.data()), job.size(), graphics, error)) << error;
  return graphics.size() == 1 ? graphics[0].rows : Bytes{};
}

// An all-dots row after a row that is not all dots is sent as ":", so a
// printer repeats the row before it and the black row is lost.
TEST_F(Zpl, AllDotsRowAfterAnotherRowPrintsAsThatRow) {
  EXPECT_EQ(decodedRows(page(picture({"####....", "########"}), 8, 2)), (Bytes{0xF0, 0xF0}));
}

// Random pages read back as their plain packing, but for that one exception.
TEST_F(Zpl, RandomPagesDecodeToThePackedPage) {
  std::mt19937 random(20240611);
  for (size_t width : {1, 3, 4, 7, 8, 12, 13, 16, 20, 21, 36, 64, 100, 333, 832})
    for (size_t height : {1, 2, 17})
      for (double ink : {0.0, 0.1, 0.5, 0.97, 1.0})
        for (size_t skip : {0, 3}) {
          std::bernoulli_distribution dot(ink);
          Bytes pixels(width * height);
          for (unsigned char& p : pixels) p = dot(random) ? static_cast<unsigned char>(1 + random() % 255) : 0;
          Bytes want = pixels;
          want.resize(static_cast<size_t>(kref::grayToMono(int(width), int(height), want.data(), skip)));
          printer.setSkipRightPixels(skip);
          EXPECT_EQ(decodedRows(page(pixels, width, height)), kref::asPrinted(want, want.size() / height))
              << width << "x" << height << " ink " << ink << " skip " << skip;
        }
}

}  // namespace
