#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "image/pixel_rows.h"
#include "printer/zpl_graphic.h"
#include "test_support/memory_sink.h"
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

// The dots of an 8-bit page (0 paper).
KelvoDots dotsOf(const Bytes& pixels, unsigned width, unsigned height) {
  KelvoDots dots;
  dots.reset(width, height);
  for (unsigned y = 0; y < height; ++y) kelvoPackNonZero(&pixels[y * width], width, dots.row(y));
  return dots;
}

struct Zpl : testing::Test {
  // The graphic of the page; a second stream receives the same bytes.
  std::string page(const Bytes& pixels, unsigned width, unsigned height) {
    MemorySink sink;
    FILE* second = std::tmpfile();
    sink.addStream(second);
    kelvoWriteGraphic(sink, settings, dotsOf(pixels, width, height));
    const std::string out = sink.take();
    std::fflush(second);
    EXPECT_EQ(contents(second), out) << "every stream receives the same bytes";
    return out;
  }
  // The rows one after the other through one encoder.
  std::string encoded(ZplRowEncoder& encoder, const Bytes& row) {
    const uint8_t* text = nullptr;
    const size_t n = encoder.encode(row.data(), row.size(), &text);
    return std::string(reinterpret_cast<const char*>(text), n);
  }
  KelvoJobSettings settings;
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
  for (ZplDialect dialect : {ZplDialect::kKelvo, ZplDialect::kStandard}) {
    const bool kelvo = dialect == ZplDialect::kKelvo;
    ZplRowEncoder encoder(dialect);
    for (const Row& row : rows) EXPECT_EQ(encoded(encoder, row.bytes), kelvo ? row.kelvo : row.standard) << kelvo;
    // A new page never repeats a row of the page before.
    for (int page = 0; page < 2; ++page) {
      ZplRowEncoder fresh(dialect);
      EXPECT_EQ(encoded(fresh, rows[0].bytes), "JF,");
    }
  }
  // Runs of "7": count letters for 1 to 19, 20 to 380, 400 each; an odd run
  // ends the row in a single "0".
  const std::pair<unsigned, std::string> runs[] = {{1, "7"},     {19, "Y7"},     {20, "g7"},     {39, "gY7"},
                                                  {399, "yY7"}, {400, "z7"}, {437, "zgW7"}, {800, "zz7"}, {821, "zzgG7"}};
  for (const auto& run : runs) {
    Bytes row(run.first / 2, 0x77);
    if (run.first % 2 != 0) row.push_back(0x70);
    ZplRowEncoder encoder(ZplDialect::kKelvo);
    EXPECT_EQ(encoded(encoder, row), run.second + (run.first % 2 != 0 ? "0" : "")) << run.first;
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
  struct Case { ZplDialect dialect; unsigned width, copies; std::vector<std::string> rows; std::string sent; };
  const std::vector<std::string> band = {full16, full16, "####........####", "####........####", full16};
  const Case cases[] = {
      {ZplDialect::kKelvo, 8, 1, {"#......."}, "^XX\r\n^PQ1\n~DGR:CUPS.GRF,1,1,\n80" + end},
      // The last all-dots row follows a patterned one: sent in full.
      {ZplDialect::kKelvo, 16, 3, band, "^XX\r\n^PQ3\n~DGR:CUPS.GRF,10,2,\nJF:FH0FFH0FJF" + end},
      {ZplDialect::kStandard, 16, 3, band, "^XA\r\n^PQ3\n~DGR:CUPS.GRF,10,2,\n!:FH0!:!" + end},
      {ZplDialect::kKelvo, 20, 1, {full20, full20, "...................#"}, "^XX\r\n^PQ1\n~DGR:CUPS.GRF,9,3,\nKF0KF0J010" + end},
      {ZplDialect::kKelvo, 12, 2, {"############", "############"}, "^XX\r\n^PQ2\n~DGR:CUPS.GRF,4,2,\nIF0IF0" + end},
      {ZplDialect::kStandard, 12, 2, {"############", "############"}, "^XA\r\n^PQ2\n~DGR:CUPS.GRF,4,2,\nIF,:" + end},
  };
  for (const Case& c : cases) {
    settings.copies = c.copies;
    settings.dialect = c.dialect;
    EXPECT_EQ(page(picture(c.rows), c.width, c.rows.size()), c.sent);
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
    settings.copies = c.first;
    testing::internal::CaptureStderr();
    const std::string sent = page(picture({"#"}), 1, 1);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(sent.substr(5, c.second.size()), c.second) << c.first;
    const bool clamped = c.second != "^PQ" + std::to_string(c.first) + "\n";
    EXPECT_EQ(err.find("WARNING: Copy count " + std::to_string(c.first)) != std::string::npos, clamped) << err;
  }
}

// Random pages read back as their plain packing in both dialects. A third
// of the rows repeat the row above, so every kind of row meets a repeat.
TEST_F(Zpl, RandomPagesDecodeToThePackedPage) {
  std::mt19937 random(20240611);
  for (size_t width : {1, 3, 4, 7, 8, 12, 13, 16, 20, 21, 36, 64, 100, 333, 832})
    for (size_t height : {1, 2, 17})
      for (double ink : {0.0, 0.1, 0.5, 0.97, 1.0})
        {
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
          want.resize(static_cast<size_t>(kref::grayToMono(int(width), int(height), want.data())));
          for (ZplDialect dialect : {ZplDialect::kKelvo, ZplDialect::kStandard}) {
            settings.dialect = dialect;
            EXPECT_EQ(decodedRows(page(pixels, width, height)), want)
                << width << "x" << height << " ink " << ink << " standard " << (dialect == ZplDialect::kStandard);
          }
        }
}

// The Z64 encodings carry the same bitmap as the hex download: deflated,
// base64, checked by CRC, as a download or as an inline field.
TEST_F(Zpl, Z64EncodingsCarryTheSamePage) {
  std::mt19937 random(64);
  for (size_t width : {1, 8, 13, 406, 812})
    for (size_t height : {1, 5, 60}) {
      Bytes pixels(width * height);
      for (unsigned char& p : pixels) p = random() % 3 == 0 ? 1 : 0;
      settings.encoding = GraphicEncoding::kHex;
      const Bytes hexRows = decodedRows(page(pixels, width, height));
      const size_t rowBytes = (width + 7) / 8, total = rowBytes * height;
      const std::string sizes = std::to_string(total) + "," + std::to_string(rowBytes) + ",";
      for (GraphicEncoding encoding : {GraphicEncoding::kZ64, GraphicEncoding::kInlineZ64}) {
        settings.encoding = encoding;
        const std::string sent = page(pixels, width, height);
        EXPECT_EQ(decodedRows(sent), hexRows) << width << "x" << height;
        const std::string head = encoding == GraphicEncoding::kZ64 ? "^XX\r\n^PQ1\n~DGR:CUPS.GRF," + sizes + ":Z64:"
                                                          : "^XX\r\n^PQ1\n^FO0,0^GFA," + std::to_string(total) +
                                                                "," + sizes + ":Z64:";
        EXPECT_EQ(sent.substr(0, head.size()), head);
        const std::string tail = encoding == GraphicEncoding::kZ64 ? "\n^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n" : "^FS\n^XZ\r\n";
        EXPECT_EQ(sent.substr(sent.size() - tail.size()), tail);
      }
    }
}

}  // namespace
