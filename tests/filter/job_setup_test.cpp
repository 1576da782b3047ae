// The label setup block, from the PPD's choice words to the commands.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "filter_test_util.h"

namespace {

TEST(JobSetup, FourBySixLabelBlock) {
  Settings s{};
  s.GapsHeight = 3, s.Darkness = 15;
  std::strcpy(s.PaperType, "LabelGaps"), std::strcpy(s.Origin, "Rotation180"), std::strcpy(s.PrintSpeed, "4");
  std::strcpy(s.MediaMethod, "Transfer"), std::strcpy(s.PostAction, "TearOff");
  // 812 x 1218 dots give 811 and 1217: the single-precision product falls
  // just short of the whole number before the truncation.
  const std::string rest = "^MNY\r\n^POI\r\n^PR4\r\n~SD15\r\n^MTT\r\n^MMT,N\r\n^XZ\r\n\r\n";
  EXPECT_EQ(setupBlock(s), "SIZE 101.6 mm, 152.4 mm\r\n^XX\r\n^PW811\r\n^LL1217\r\n" + rest);
  // Standard ZPL: "^XA", no TSPL line, the page's own dots at any resolution.
  s.dialect = ZplDialect::kStandard;
  const KelvoPageSize pages[] = {{812, 1218, 203, 203}, {1200, 1800, 300, 300}, {2480, 3508, 300, 600}, {406, 1, 1, 1}};
  for (const KelvoPageSize& page : pages)
    EXPECT_EQ(setupBlock(s, page), "^XA\r\n^PW" + std::to_string(page.widthDots) + "\r\n^LL" +
                                       std::to_string(page.heightDots) + "\r\n" + rest);
}

// Millimetres of the page at its resolution, then dots at 203 dpi: the
// product in single precision, divided in double and truncated.
TEST(JobSetup, LabelSizeInDotsAt203Dpi) {
  const std::pair<KelvoPageSize, const char*> cases[] = {
      {{406, 1000, 203, 254}, "SIZE 50.8 mm, 100.0 mm\r\n^XX\r\n^PW405\r\n^LL799\r\n"},
      // A 103-dot page: 203 x 12.8877 mm rounds to a float just under 2616.2,
      // which divides to 102.99...; a double product would give 103.
      {{103, 1218, 203, 300}, "SIZE 12.9 mm, 103.1 mm\r\n^XX\r\n^PW102\r\n^LL824\r\n"},
      // No resolution: no size (not a number, or infinite), no crash.
      {{0, 1, 0, 0}, "^PW0\r\n^LL2147483647\r\n"},
      // Sizes past a dot count saturate instead of being undefined.
      {{4294967295u, 8, 1, 1}, "^PW2147483647\r\n^LL1623\r\n"},
  };
  for (const auto& c : cases) EXPECT_NE(setupBlock(Settings{}, c.first).find(c.second), std::string::npos) << c.second;
}

TEST(JobSetup, ChoiceRules) {
  struct Case { const char* paper; int gap; const char* speed; int dark; const char* method; const char* post;
                const char* expected; };
  const Case cases[] = {
      {"LabelGaps", 3, "2", 0, "Direct", "PeelOff", "^MNY\r\n^PR2\r\n~SD0\r\n^MTD\r\n^MMP,N\r\n"},
      {"LabelGaps", 0, "Normal", 30, "", "PartialCut", "^MNN\r\n~SD30\r\n^MMC,N\r\n"},
      {"LabelMark", 2, "0", 31, "Ribbon", "CutEvery5", "^MNM\r\n^MMC,N\r\n"},
      {"LabelMark", 0, "abc", -1, "Transfer", "NormalTearOff", "^MNN\r\n^MTT\r\n"},
      // Only one or two digits follow ^PR: anything else could carry commands.
      {"Continue", 5, "6ips", 1, "", "None", "^MNN\r\n~SD1\r\n"},
      {"Continue", 5, "12", 1, "", "None", "^MNN\r\n^PR12\r\n~SD1\r\n"},
      {"Continue", 5, "04", 1, "", "None", "^MNN\r\n^PR04\r\n~SD1\r\n"},  // the word itself, zero and all
      {"Continue", 5, "2^XA^FDX^FS^XZ", 1, "", "None", "^MNN\r\n~SD1\r\n"},
      {"Continue", 5, "123", 1, "", "None", "^MNN\r\n~SD1\r\n"},
      {"MyLabelGapsRoll", 1, "2Normal", 5, "", "Rewind", "^MNY\r\n~SD5\r\n"},
      {"Normal", 0, "4", 40, "", "TearOff", "^PR4\r\n^MMT,N\r\n"},
      {"Mystery", 3, "", 3, "", "", "~SD3\r\n"},
      {"", 0, "", 3, "", "", "^MNN\r\n~SD3\r\n"},  // no tracking named and no gap: continuous
  };
  const std::string head = "SIZE 101.6 mm, 152.4 mm\r\n^XX\r\n^PW811\r\n^LL1217\r\n";
  for (const Case& c : cases) {
    Settings s{};
    std::strcpy(s.PaperType, c.paper), std::strcpy(s.PrintSpeed, c.speed), std::strcpy(s.MediaMethod, c.method);
    std::strcpy(s.PostAction, c.post);
    s.GapsHeight = c.gap, s.Darkness = c.dark;
    testing::internal::CaptureStderr();
    std::string block = setupBlock(s);
    const std::string err = testing::internal::GetCapturedStderr();
    ASSERT_EQ(block.compare(0, head.size(), head), 0) << block;
    block.erase(0, head.size());
    const size_t turn = block.find("^PON\r\n");
    ASSERT_NE(turn, std::string::npos);
    block.erase(turn, 6);
    EXPECT_EQ(block, std::string(c.expected) + "^XZ\r\n\r\n") << c.paper << " " << c.speed << " " << c.post;
    const bool badSpeed = std::atof(c.speed) > 0 && !std::strstr(c.speed, "Normal") &&
                          (std::strlen(c.speed) > 2 || std::strspn(c.speed, "0123456789") != std::strlen(c.speed));
    EXPECT_EQ(err.find("WARNING: Print speed \"" + std::string(c.speed) + "\"") != std::string::npos, badSpeed) << err;
    if (!badSpeed) {
      EXPECT_EQ(err, !std::strcmp(c.paper, "Mystery") ? "DEBUG:Unknown paper type: Mystery!\n" : "");
    }
  }
  for (const auto& [origin, command] : {std::pair<const char*, const char*>{"xRotation180", "^POI"}, {"Normal", "^PON"}}) {
    Settings s{};
    std::strcpy(s.Origin, origin);
    EXPECT_NE(setupBlock(s).find(command), std::string::npos) << origin;
  }
}

}  // namespace
