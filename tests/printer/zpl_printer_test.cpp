#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "test_support/memory_printer.h"
#include "test_support/reference.h"
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
  void SetUp() override { header.NumCopies = 1, printer.setPageHeader(&header); }
  // The page as sent, rows `stride` bytes apart (default: no padding); a
  // second stream receives the same bytes.
  std::string page(const Bytes& pixels, unsigned long width, unsigned long height, unsigned long stride = 0) {
    printer.getOutputStreams().push_back(std::tmpfile());
    printer.doPrintImage(pixels.data(), stride != 0 ? stride : width, height, width);
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
  // Rows in this order on one page. Kelvo: an all-dots row is ":" only right
  // after another all-dots row, trailing paper is "," after an even number
  // of "0" digits. Standard: any row equal to the one before is ":", the
  // last run of paper is "," and of dots "!" from whatever digit it starts.
  struct Row { Bytes bytes; std::string kelvo, standard; };
  const Row rows[] = {
      {{0xFF, 0xFF, 0, 0, 0, 0, 0, 0}, "JF,", "JF,"},
      {{0x0F, 0, 0}, "0F,", "0F,"},
      {{0x80, 0, 0}, "80,", "8,"},    // five trailing zeros
      {{0x80, 0, 0}, "80,", ":"},
      {{0, 0, 0}, ",", ","},
      {{0, 0, 0}, ",", ":"},
      {{0x80}, "80", "8,"},
      {{0xF0, 0x0F}, "FH0F", "FH0!"},
      {{0xF0, 0x0F}, "FH0F", ":"},
      {{0x0F, 0xFF}, "0IF", "0!"},
      {dotsThenPaper, "kF,", "kF,"},  // 100 = 5 x 20 "F" digits
      {Bytes(104, 0xFF), "pNF", "!"},  // 208 = 200 + 8
      {Bytes(104, 0xFF), ":", ":"},
      {Bytes(104, 0xFF), ":", ":"},
      {Bytes(60, 0x12), twelves, twelves},
      {Bytes(1, 0xFF), "HF", "!"},
      {Bytes(1, 0xFF), ":", ":"},
      {{0x1F}, "1F", "1!"},
      {{0x1F, 0xFF, 0xF0}, "1JF0", "1JF,"},
  };
  for (ZplDialect dialect : {kDialectKelvo, kDialectStandard}) {
    printer.setDialect(dialect);
    printer.startPage();
    for (const Row& row : rows) {
      printer.ZPLPrintLine(row.bytes.data(), static_cast<int>(row.bytes.size()));
      EXPECT_EQ(printer.take(), dialect == kDialectKelvo ? row.kelvo : row.standard) << dialect;
    }
    // A new page never repeats a row of the page before.
    for (int page = 0; page < 2; ++page) {
      printer.startPage();
      printer.ZPLPrintLine(rows[0].bytes.data(), 8);
    }
    EXPECT_EQ(printer.take(), "JF,JF,");
  }
  printer.setDialect(kDialectKelvo);
  const std::pair<unsigned, std::string> runs[] = {{1, "7"},     {19, "Y7"},     {20, "g7"},     {39, "gY7"},
                                                  {399, "yY7"}, {400, "z7"}, {437, "zgW7"}, {800, "zz7"}, {821, "zzgG7"}};
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

Bytes decodedRows(const std::string& job) {
  std::vector<ZplGraphic> graphics;
  std::string error;
  EXPECT_TRUE(kelvoZplDecode(reinterpret_cast<const unsigned char*>(job.data()), job.size(), graphics, error)) << error;
  return graphics.size() == 1 ? graphics[0].rows : Bytes{};
}

TEST_F(Zpl, GraphicStreamOfSmallPages) {
  const std::string end = "^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n", full16(16, '#'), full20(20, '#');
  struct Case { ZplDialect dialect; unsigned long width, skip; unsigned copies; std::vector<std::string> rows; std::string sent; };
  const std::vector<std::string> band = {full16, full16, "####........####", "####........####", full16};
  const Case cases[] = {
      {kDialectKelvo, 8, 0, 1, {"#......."}, "^XX\r\n^PQ1\n~DGR:CUPS.GRF,1,1,\n80" + end},
      // The last all-dots row follows a patterned one: sent in full.
      {kDialectKelvo, 16, 0, 3, band, "^XX\r\n^PQ3\n~DGR:CUPS.GRF,10,2,\nJF:FH0FFH0FJF" + end},
      {kDialectStandard, 16, 0, 3, band, "^XA\r\n^PQ3\n~DGR:CUPS.GRF,10,2,\n!:FH0!:!" + end},
      {kDialectKelvo, 20, 4, 1, {full20, full20, "...................#"}, "^XX\r\n^PQ1\n~DGR:CUPS.GRF,6,2,\nJF:," + end},
      {kDialectKelvo, 12, 0, 2, {"############", "############"}, "^XX\r\n^PQ2\n~DGR:CUPS.GRF,4,2,\nIF0IF0" + end},
      {kDialectStandard, 12, 0, 2, {"############", "############"}, "^XA\r\n^PQ2\n~DGR:CUPS.GRF,4,2,\nIF,:" + end},
  };
  for (const Case& c : cases) {
    header.NumCopies = c.copies;
    printer.setSkipRightPixels(c.skip);
    printer.setDialect(c.dialect);
    const Bytes pixels = picture(c.rows);
    EXPECT_EQ(page(pixels, c.width, c.rows.size()), c.sent);
    EXPECT_EQ(pixels, picture(c.rows)) << "the caller's page stays as it was";
  }
  EXPECT_EQ(page(Bytes(8, 1), 8, 0) + page(Bytes(8, 1), 0, 1), "") << "an empty page sends nothing";
}

// ZPL takes 1 to 99,999,999 copies; the header's count is anyone's to write.
TEST_F(Zpl, CopyCountIsClamped) {
  const std::pair<unsigned, std::string> cases[] = {
      {0, "^PQ1\n"},         {1, "^PQ1\n"},         {99999999, "^PQ99999999\n"}, {100000000, "^PQ99999999\n"},
      {2147483647u, "^PQ99999999\n"}, {2147483648u, "^PQ1\n"}, {4294967295u, "^PQ1\n"},
  };
  for (const auto& c : cases) {
    header.NumCopies = c.first;
    testing::internal::CaptureStderr();
    const std::string sent = page(picture({"#"}), 1, 1);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(sent.substr(5, c.second.size()), c.second) << c.first;
    const bool clamped = c.second != "^PQ" + std::to_string(c.first) + "\n";
    EXPECT_EQ(err.find("WARNING: Copy count " + std::to_string(c.first)) != std::string::npos, clamped) << err;
  }
}

// Image rows are padded to four bytes; the padding is never printed, so a
// vertical line stays vertical at every width.
TEST_F(Zpl, RowsAreReadAtTheStride) {
  for (unsigned long width : {1ul, 5ul, 7ul, 9ul, 406ul}) {
    const unsigned long stride = (width + 3) / 4 * 4 + 4, height = 3;
    Bytes pixels(stride * height, 0x55);  // padding full of "dots"
    for (unsigned long y = 0; y < height; ++y) {
      std::fill_n(pixels.begin() + y * stride, width, 0);
      pixels[y * stride] = 1;  // a line down the left edge
    }
    Bytes want((width + 7) / 8 * height, 0);
    for (unsigned long y = 0; y < height; ++y) want[y * ((width + 7) / 8)] = 0x80;
    EXPECT_EQ(decodedRows(page(pixels, width, height, stride)), want) << width;
  }
}


// Random pages read back as their plain packing in both dialects. A third
// of the rows repeat the row above, so every kind of row meets a repeat.
TEST_F(Zpl, RandomPagesDecodeToThePackedPage) {
  std::mt19937 random(20240611);
  for (size_t width : {1, 3, 4, 7, 8, 12, 13, 16, 20, 21, 36, 64, 100, 333, 832})
    for (size_t height : {1, 2, 17})
      for (double ink : {0.0, 0.1, 0.5, 0.97, 1.0})
        for (size_t skip : {0, 3}) {
          std::bernoulli_distribution dot(ink);
          Bytes pixels(width * height);
          for (size_t y = 0; y < height; ++y) {
            unsigned char* row = &pixels[y * width];
            if (y > 0 && random() % 3 == 0)
              std::copy_n(row - width, width, row);
            else
              for (size_t x = 0; x < width; ++x) row[x] = dot(random) ? static_cast<unsigned char>(1 + random() % 255) : 0;
          }
          Bytes want = pixels;
          want.resize(static_cast<size_t>(kref::grayToMono(int(width), int(height), want.data(), skip)));
          printer.setSkipRightPixels(skip);
          for (ZplDialect dialect : {kDialectKelvo, kDialectStandard}) {
            printer.setDialect(dialect);
            EXPECT_EQ(decodedRows(page(pixels, width, height)), want)
                << width << "x" << height << " ink " << ink << " skip " << skip << " dialect " << dialect;
          }
        }
  printer.setDialect(kDialectKelvo);
}

// The Z64 encodings carry the same bitmap as the hex download: deflated,
// base64, checked by CRC, as a download or as an inline field.
TEST_F(Zpl, Z64EncodingsCarryTheSamePage) {
  std::mt19937 random(64);
  for (size_t width : {1, 8, 13, 406, 812})
    for (size_t height : {1, 5, 60}) {
      Bytes pixels(width * height);
      for (unsigned char& p : pixels) p = random() % 3 == 0 ? 1 : 0;
      printer.setGraphicEncoding(kEncodingHex);
      const Bytes hexRows = decodedRows(page(pixels, width, height));
      const size_t rowBytes = (width + 7) / 8, total = rowBytes * height;
      const std::string sizes = std::to_string(total) + "," + std::to_string(rowBytes) + ",";
      for (GraphicEncoding encoding : {kEncodingZ64, kEncodingInlineZ64}) {
        printer.setGraphicEncoding(encoding);
        const std::string sent = page(pixels, width, height);
        EXPECT_EQ(decodedRows(sent), hexRows) << width << "x" << height;
        const std::string head = encoding == kEncodingZ64 ? "^XX\r\n^PQ1\n~DGR:CUPS.GRF," + sizes + ":Z64:"
                                                          : "^XX\r\n^PQ1\n^FO0,0^GFA," + std::to_string(total) +
                                                                "," + sizes + ":Z64:";
        EXPECT_EQ(sent.substr(0, head.size()), head);
        const std::string tail = encoding == kEncodingZ64 ? "\n^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n" : "^FS\n^XZ\r\n";
        EXPECT_EQ(sent.substr(sent.size() - tail.size()), tail);
      }
    }
  printer.setGraphicEncoding(kEncodingHex);
}

}  // namespace
