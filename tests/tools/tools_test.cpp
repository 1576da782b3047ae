#include <gtest/gtest.h>
#include <png.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "test_support/read_file.h"
#include "printer/png_io.h"
#include "support/z64.h"
#include "tools/zpl_decode.h"

namespace {

// Names and rows of every graphic, rows in hexadecimal.
std::string decoded(const std::string& job) {
  std::vector<ZplGraphic> graphics;
  std::string error, out;
  if (!kelvoZplDecode(reinterpret_cast<const unsigned char*>(job.data()), job.size(), graphics, error)) return error;
  for (const ZplGraphic& g : graphics) {
    out += g.name + "@" + std::to_string(g.offset) + "/" + std::to_string(g.height) + ":";
    for (unsigned char b : g.rows) out += {"0123456789ABCDEF"[b >> 4], "0123456789ABCDEF"[b & 15]};
  }
  return out;
}

std::string crcOf(const std::string& text) {
  char crc[8];
  std::snprintf(crc, sizeof crc, "%04X", kelvoCrc16(reinterpret_cast<const unsigned char*>(text.data()), text.size()));
  return crc;
}

TEST(ZplDecode, ExpandsEveryFormOfRowData) {
  const std::pair<std::string, std::string> cases[] = {
      {"~DGR:A.GRF,4,2,\nJF,", "R:A.GRF@0/2:FFFF0000"},  {"^XA~dgX,2,2,\nab\r\ncD^XZ", "X@3/1:ABCD"},
      {"~DGX,2,2,\nF,", "X@0/1:F000"},                  {"~DGX,2,2,\n8!", "X@0/1:8FFF"},
      {"~DGX,3,1,\n5A::", "X@0/3:5A5A5A"},              {"~DGX,3,1,\n,:G01", "X@0/3:000001"},
      {"~DGX,219,219,\nzgW70", "X@0/1:" + std::string(437, '7') + "0"},
      {"~DGX,201,201,\nGGzA", "X@0/1:" + std::string(402, 'A')},  // letters add up in any order
      {"SIZE 4,6\r\n~DGA,1,1,\n80^FS\n~DGB,2,1,\n0F:\r\n^XZ", "A@10/1:80B@26/2:0F0F"},
      {"^XA^XZ", ""},
      {"^XA^FO0,0^GFA,2,2,1,80:^FS^XZ", "^GFA@9/2:8080"},  // an inline field in hex
      {"~DGX,2,1,:B64:gA8=:" + crcOf("gA8=") + "\n^XZ", "X@0/2:800F"},
      {"^GFA,2,2,2,:B64:/wA=:" + crcOf("/wA=") + "^FS", "^GFA@0/1:FF00"},
  };
  for (const auto& c : cases) EXPECT_EQ(decoded(c.first), c.second) << c.first;
}

TEST(ZplDecode, RefusesMalformedJobsNamingTheByte) {
  const std::pair<std::string, std::string> cases[] = {
      {"~DGX,2,1,\nGGGF", "byte 10: repeat count runs past the end of the row"},
      {"~DGX,2,1,\nG\n0", "byte 11: repeat count is not followed by a hex digit"},
      {"~DGX,1,1,\nF\t", "byte 11: unexpected character 0x09 in the data of graphic \"X\""},
      {"~DGX,2,1,\nFF0", "byte 13: graphic \"X\" is truncated after 1 of 2 bytes"},
      {"~DGX,2,1,\nFF^XZ", "byte 12: graphic \"X\" is truncated after 1 of 2 bytes"},
      {"~DGX,1,1,\nFF0", "byte 12: data of graphic \"X\" continues past its declared size"},
      {"~DGX,2,1,\n:", "byte 10: ':' on the first row has no row to repeat"},
      {"~DGX,4,2,\nF:", "byte 11: ':' in the middle of a row"},
      {"~DGX,3,2,\n", "byte 5: total size 3 is not a multiple of the row size 2"},
      {"~DGX,0,2,\n", "byte 5: graphic \"X\" has a total size of 0 bytes"},
      {"~DGX,2,0,\n", "byte 7: graphic \"X\" has a row size of 0 bytes"},
      {"~DGX,99999999999999999999,1,", "byte 5: total size of the graphic is larger than the limit of 67108864 bytes"},
      {"~DGX,8193,8193,\n", "byte 10: row size of the graphic is larger than the limit of 8192 bytes"},
      {"~DGX,,1,", "byte 5: the total size of the graphic is missing"},
      {"~DGX,a,1,\n", "byte 5: unexpected character 'a' in the total size"},
      {"~DGX,1", "byte 6: the job ends inside the header of a graphic"},
      {"~DG,1,1,\n80", "byte 3: graphic has no name"},
      {"~DGA B,1,1,\n80", "byte 4: unexpected character 0x20 in the graphic name"},
      {"~DG" + std::string(65, 'N') + ",1,1,\n80", "byte 3: graphic name longer than 64 characters"},
      {"~DGX,2,1,:B64:gA8=:0000", "byte 19: encoded data of graphic \"X\" does not match its CRC (0000 given, " +
                                      crcOf("gA8=") + " computed)"},
      {"~DGX,2,1,:B64:gA8=", "byte 18: encoded data of graphic \"X\" is truncated: no CRC after it"},
      {"~DGX,2,1,:B64:gA8=:12", "byte 18: the CRC of graphic \"X\" is truncated"},
      {"~DGX,2,1,:B64:g!8=:" + crcOf("g!8="), "byte 15: graphic \"X\": not base64"},
      {"~DGX,3,1,:B64:gA8=:" + crcOf("gA8="), "byte 14: B64 data of graphic \"X\" holds 2 bytes, not 3"},
      {"~DGX,2,1,:Z64:gA8=:" + crcOf("gA8="),
       "byte 14: Z64 data of graphic \"X\" does not inflate to its 2 bytes (data error)"},
      {"^GFB,1,1,1,x^FS", "byte 3: graphic field compression 'B' is not read (only A is)"},
  };
  for (const auto& c : cases) EXPECT_EQ(decoded(c.first), c.second) << c.first;
}

// Damaged copies of a valid job decode or are refused with an offset inside
// the job; the sanitizer build checks that nothing else happens.
TEST(ZplDecode, SurvivesDamagedJobs) {
  const std::string valid = "^XX\r\n^PQ1\n~DGR:CUPS.GRF,21,3,\nJF,0F,LF!:,80,\n^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n";
  const std::string alphabet = "0123456789ABCDEFafGYgyz,!:~^D\n\r\x01\xff";
  ASSERT_EQ(decoded(valid), "R:CUPS.GRF@10/7:FFFF000F0000FFFFFFFFFFFFFFFFFF000000800000");
  std::mt19937 random(7);
  for (int i = 0; i < 20000; ++i) {
    std::string job = valid;
    for (unsigned edits = 1 + random() % 4; edits > 0; --edits)
      job.replace(random() % job.size(), random() % 2, random() % 3 ? 1 : 0, alphabet[random() % alphabet.size()]);
    const std::string result = decoded(job);
    if (result.compare(0, 5, "byte ") == 0) {
      ASSERT_LE(std::stoul(result.substr(5)), job.size()) << result;
    }
  }
}

// Gray pages round-trip, a transparent file from another program reads as
// gray on white paper, and zplpreview draws dots black.
TEST(Png, ReadsWhatItAndOthersWrite) {
  const std::string dir = testing::TempDir() + "kelvo-png-" + std::to_string(getpid());
  ASSERT_EQ(std::system(("mkdir -p " + dir).c_str()), 0);
  const unsigned char gray[] = {0, 1, 2, 99, 128, 254, 255, 99}, grayAlpha[] = {0, 0, 0, 255};
  std::string error;
  ASSERT_TRUE(kelvoPngWriteGray(dir + "/gray.png", gray, 3, 2, 4, error)) << error;
  png_image image{};
  image.version = PNG_IMAGE_VERSION, image.width = 2, image.height = 1, image.format = PNG_FORMAT_GA;
  ASSERT_TRUE(png_image_write_to_file(&image, (dir + "/alpha.png").c_str(), 0, grayAlpha, 0, nullptr));
  GrayPage page;
  for (const auto& read : {std::make_pair("/gray.png", std::vector<unsigned char>{0, 1, 2, 128, 254, 255}),
                           std::make_pair("/alpha.png", std::vector<unsigned char>{255, 0})}) {
    ASSERT_TRUE(kelvoPngReadGray(dir + read.first, page, error)) << error;
    EXPECT_EQ(page.pixels, read.second) << read.first;
  }
  const std::string run = std::string(ZPLPREVIEW_PATH) + " -o " + dir + "/p - > " + dir + "/out 2>&1 <<'EOF'\n";
  EXPECT_EQ(std::system((run + "^XA\n~DGR:CUPS.GRF,4,1,\n0F:,80\n^XZ\nEOF").c_str()), 0);
  EXPECT_EQ(readFile(dir + "/out"), dir + "/p-1.png: 8 x 4 dots, 9 printed (graphic R:CUPS.GRF)\n");
  ASSERT_TRUE(kelvoPngReadGray(dir + "/p-1.png", page, error)) << error;
  std::vector<unsigned char> expected(32, 255);
  for (int x : {4, 5, 6, 7, 12, 13, 14, 15, 24}) expected[x] = 0;
  EXPECT_EQ(page.pixels, expected);
  // -s 3: each dot a 3 x 3 square, as a barcode reader's camera sees it.
  const std::string scaled = std::string(ZPLPREVIEW_PATH) + " -s 3 -o " + dir + "/s - > " + dir + "/out 2>&1 <<'EOF'\n";
  EXPECT_EQ(std::system((scaled + "^XA\n~DGR:CUPS.GRF,2,1,\n0F:\n^XZ\nEOF").c_str()), 0);
  EXPECT_EQ(readFile(dir + "/out"), dir + "/s-1.png: 8 x 2 dots, 8 printed (graphic R:CUPS.GRF)\n");
  ASSERT_TRUE(kelvoPngReadGray(dir + "/s-1.png", page, error)) << error;
  ASSERT_EQ(page.pixels.size(), 24u * 6u);
  for (size_t i = 0; i < page.pixels.size(); ++i) EXPECT_EQ(page.pixels[i], i % 24 >= 12 ? 0 : 255) << i;
  for (const char* bad : {"0", "17", "x", "-1", ""})
    EXPECT_EQ(std::system((std::string(ZPLPREVIEW_PATH) + " -s '" + bad + "' </dev/null >/dev/null 2>&1").c_str()) >> 8,
              2) << bad;
  EXPECT_NE(std::system((run + "~DGR:CUPS.GRF,2,1,\nzF\nEOF").c_str()), 0);
  EXPECT_EQ(readFile(dir + "/out"), "zplpreview: standard input: byte 19: repeat count runs past the end of the row\n");
  // What a standard ZPL printer does differently is said under the page.
  EXPECT_EQ(std::system((run + "^XX\n^PW8\n^LL2\n~DGR:CUPS.GRF,6,2,\nFFFF::\n^XZ\nEOF").c_str()), 0);
  EXPECT_EQ(readFile(dir + "/out"),
            dir + "/p-1.png: 16 x 3 dots, 48 printed (graphic R:CUPS.GRF)\n"
                  "  page 1: its format is not opened with ^XA; a standard ZPL printer prints nothing of it\n"
                  "  page 1: the graphic (16 x 3 dots) is larger than the label (^PW8, ^LL2); a standard ZPL printer "
                  "cuts off 32 of its dots\n");
  EXPECT_EQ(std::system(("rm -rf " + dir).c_str()), 0);
}

}  // namespace
