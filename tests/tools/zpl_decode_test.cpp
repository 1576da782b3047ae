#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "tools/zpl_decode.h"

namespace {

bool decode(const std::string& job, std::vector<ZplGraphic>& graphics, std::string& error) {
  return kelvoZplDecode(reinterpret_cast<const unsigned char*>(job.data()), job.size(), graphics, error);
}

std::string hex(const std::vector<unsigned char>& bytes) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char b : bytes) out += {digits[b >> 4], digits[b & 15]};
  return out;
}

TEST(ZplDecode, ExpandsEveryFormOfRowData) {
  struct Case { std::string job; size_t bytesPerRow; std::string rows; };
  const Case cases[] = {
      {"~DGR:A.GRF,4,2,\nJF,", 2, "FFFF0000"},
      {"^XA~dgR:A.GRF,2,2,\nab\r\ncD^XZ", 2, "ABCD"},  // either case, line breaks between digits
      {"~DGX,2,2,\nF,", 2, "F000"},
      {"~DGX,2,2,\n8!", 2, "8FFF"},
      {"~DGX,3,1,\n5A::", 1, "5A5A5A"},
      {"~DGX,3,1,\n,:G01", 1, "000001"},
      {"~DGX,219,219,\nzgW70", 219, std::string(437, '7') + "0"},
      {"~DGX,201,201,\nGGzA", 201, std::string(402, 'A')},  // letters add up in any order
  };
  for (const Case& c : cases) {
    std::vector<ZplGraphic> graphics;
    std::string error;
    ASSERT_TRUE(decode(c.job, graphics, error)) << c.job << ": " << error;
    ASSERT_EQ(graphics.size(), 1u) << c.job;
    EXPECT_EQ(graphics[0].bytesPerRow, c.bytesPerRow) << c.job;
    EXPECT_EQ(graphics[0].height, c.rows.size() / 2 / c.bytesPerRow) << c.job;
    EXPECT_EQ(hex(graphics[0].rows), c.rows) << c.job;
  }
}

TEST(ZplDecode, FindsEveryGraphicOfAJob) {
  std::vector<ZplGraphic> graphics;
  std::string error;
  ASSERT_TRUE(decode("^XA^XZ", graphics, error));
  EXPECT_TRUE(graphics.empty());
  ASSERT_TRUE(decode("SIZE 4,6\r\n~DGA,1,1,\n80^FS\n~DGR:B.GRF,2,1,\n0F:\r\n", graphics, error)) << error;
  ASSERT_EQ(graphics.size(), 2u);
  EXPECT_EQ(graphics[0].name, "A");
  EXPECT_EQ(graphics[0].offset, 10u);
  EXPECT_EQ(hex(graphics[0].rows), "80");
  EXPECT_EQ(graphics[1].name, "R:B.GRF");
  EXPECT_EQ(graphics[1].offset, 26u);
  EXPECT_EQ(hex(graphics[1].rows), "0F0F");
  EXPECT_EQ(kelvoZplCountDots(graphics[1]), 8u);
}

TEST(ZplDecode, RefusesMalformedJobsNamingTheByte) {
  struct Case { std::string job; std::string error; };
  const Case cases[] = {
      {"~DGX,2,1,\nGGGF", "byte 10: repeat count runs past the end of the row"},
      {"~DGX,2,1,\nFzzzzzzzzzzF", "byte 11: repeat count runs past the end of the row"},
      {"~DGX,2,1,\nG", "byte 11: repeat count is not followed by a hex digit"},
      {"~DGX,2,1,\nG\n0", "byte 11: repeat count is not followed by a hex digit"},
      {"~DGX,1,1,\nF?", "byte 11: unexpected character '?' in the data of graphic \"X\""},
      {"~DGX,1,1,\nF\t", "byte 11: unexpected character 0x09 in the data of graphic \"X\""},
      {"~DGX,2,1,\nFF0", "byte 13: graphic \"X\" is truncated after 1 of 2 bytes"},
      {"~DGX,2,1,\nFF^XZ", "byte 12: graphic \"X\" is truncated after 1 of 2 bytes"},
      {"~DGX,1,1,\nFF0", "byte 12: data of graphic \"X\" continues past its declared size"},
      {"~DGX,2,1,\n:", "byte 10: ':' on the first row has no row to repeat"},
      {"~DGX,4,2,\nF:", "byte 11: ':' in the middle of a row"},
      {"~DGX,3,2,\n", "byte 5: total size 3 is not a multiple of the row size 2"},
      {"~DGX,0,2,\n", "byte 5: graphic \"X\" has a total size of 0 bytes"},
      {"~DGX,2,0,\n", "byte 7: graphic \"X\" has a row size of 0 bytes"},
      {"~DGX,99999999999999999999999,1,\n", "byte 5: total size of the graphic is larger than the limit of 67108864 bytes"},
      {"~DGX,8193,8193,\n", "byte 10: row size of the graphic is larger than the limit of 8192 bytes"},
      {"~DGX,,1,", "byte 5: the total size of the graphic is missing"},
      {"~DGX,a,1,\n", "byte 5: unexpected character 'a' in the total size"},
      {"~DGX,1", "byte 6: the job ends inside the header of a graphic"},
      {"~DG,1,1,\n80", "byte 3: graphic has no name"},
      {"~DGA B,1,1,\n80", "byte 4: unexpected character 0x20 in the graphic name"},
      {"~DG" + std::string(65, 'N') + ",1,1,\n80", "byte 3: graphic name longer than 64 characters"},
  };
  for (const Case& c : cases) {
    std::vector<ZplGraphic> graphics;
    std::string error;
    EXPECT_FALSE(decode(c.job, graphics, error)) << c.job;
    EXPECT_EQ(error, c.error) << c.job;
  }
}

// Damaged copies of a valid job either decode or are refused with a byte
// offset inside the job; the sanitizer build checks that nothing else happens.
TEST(ZplDecode, SurvivesDamagedJobs) {
  const std::string valid = "^XX\r\n^PQ1\n~DGR:CUPS.GRF,21,3,\nJF,0F,LF!:,80,\n^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n";
  const std::string alphabet = "0123456789ABCDEFafGYgyz,!:~^D\n\r\x01\xff";
  std::vector<ZplGraphic> intact;
  std::string intactError;
  ASSERT_TRUE(decode(valid, intact, intactError)) << intactError;
  ASSERT_EQ(hex(intact.at(0).rows), "FFFF000F0000FFFFFFFFFFFFFFFFFF000000800000");
  std::mt19937 random(7);
  for (int i = 0; i < 20000; ++i) {
    std::string job = valid;
    for (int edits = 1 + static_cast<int>(random() % 4); edits > 0; --edits) {
      const size_t at = random() % job.size();
      const unsigned r = random() % 3;
      if (r == 0) job[at] = alphabet[random() % alphabet.size()];
      else if (r == 1) job.erase(at, 1);
      else job.insert(at, 1, alphabet[random() % alphabet.size()]);
    }
    std::vector<ZplGraphic> graphics;
    std::string error;
    if (decode(job, graphics, error)) {
      for (const ZplGraphic& g : graphics) ASSERT_EQ(g.rows.size(), g.bytesPerRow * g.height) << job;
    } else {
      ASSERT_EQ(error.compare(0, 5, "byte "), 0) << error;
      ASSERT_LE(std::stoul(error.substr(5)), job.size()) << error;
    }
  }
}

}  // namespace
