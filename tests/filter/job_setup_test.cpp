#include "printer/label_setup.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "filter_test_util.h"

namespace {

// Millimetres as the page loop derives them from a raster header.
float mm(unsigned dots, unsigned dpi) { return static_cast<float>(dots * 25.4 / dpi); }

TEST(JobSetup, FourBySixLabelBlock) {
  Settings s{};
  s.pageWidth = mm(812, 203), s.pageHeight = mm(1218, 203), s.GapsHeight = 3, s.Darkness = 15;
  std::strcpy(s.PaperType, "LabelGaps"), std::strcpy(s.Origin, "Rotation180"), std::strcpy(s.PrintSpeed, "4");
  std::strcpy(s.MediaMethod, "Transfer"), std::strcpy(s.PostAction, "TearOff");
  // 812 x 1218 dots give 811 and 1217: the single-precision product falls
  // just short of the whole number before the truncation.
  const std::string rest = "^MNY\r\n^POI\r\n^PR4\r\n~SD15\r\n^MTT\r\n^MMT,N\r\n^XZ\r\n\r\n";
  EXPECT_EQ(printed([&](KelvoPrinter& p) { jobSetup(p, &s); }),
            "SIZE 101.6 mm, 152.4 mm\r\n^XX\r\n^PW811\r\n^LL1217\r\n" + rest);
  // Standard ZPL: "^XA", no TSPL line, the page's own dots at any resolution.
  s.dialect = kDialectStandard;
  const std::pair<unsigned, unsigned> pages[] = {{812, 1218}, {1200, 1800}, {2480, 3508}, {406, 1}};
  for (const auto& dots : pages) {
    s.pageWidthDots = dots.first, s.pageHeightDots = dots.second;
    EXPECT_EQ(printed([&](KelvoPrinter& p) { jobSetup(p, &s); }),
              "^XA\r\n^PW" + std::to_string(dots.first) + "\r\n^LL" + std::to_string(dots.second) + "\r\n" + rest);
  }
}

TEST(JobSetup, LabelSizeInDotsAt203Dpi) {
  const std::pair<std::pair<float, float>, const char*> cases[] = {
      {{50.8f, 100.0f}, "^PW405\r\n^LL799\r\n"},
      // A 103-dot page: 203 x 12.8877 mm rounds to a float just under 2616.2,
      // which divides to 102.99...; a double product would give 103.
      {{mm(103, 203), mm(1218, 300)}, "^PW102\r\n^LL824\r\n"},  // 203 dpi whatever the raster's resolution
      {{0.0f, -1.0f}, "^PW0\r\n^LL-7\r\n"},
      {{NAN, INFINITY}, "^PW0\r\n^LL2147483647\r\n"},  // a zero resolution in the header: no size, no crash
      // Sizes past a dot count (a 128 MiB row at 1 dpi is 3.4e9 mm) saturate
      // instead of being undefined.
      {{3.4e9f, -3.4e9f}, "^PW2147483647\r\n^LL-2147483648\r\n"},
      {{-INFINITY, 3.4e9f}, "^PW-2147483648\r\n^LL2147483647\r\n"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(printed([&](KelvoPrinter& p) { setSize(p, c.first.first, c.first.second); }), c.second);
}

TEST(JobSetup, ChoiceRules) {
  struct Case { const char* paper; float gap; const char* speed; int dark; const char* method; const char* post;
                const char* expected; };
  const Case cases[] = {
      {"LabelGaps", 3, "2", 0, "Direct", "PeelOff", "^MNY\r\n^PR2\r\n~SD0\r\n^MTD\r\n^MMP,N\r\n"},
      {"LabelGaps", 0, "Normal", 30, "", "PartialCut", "^MNN\r\n~SD30\r\n^MMC,N\r\n"},
      {"LabelMark", 2, "0", 31, "Ribbon", "CutEvery5", "^MNM\r\n^MMC,N\r\n"},
      {"LabelMark", 0, "abc", -1, "Transfer", "NormalTearOff", "^MNN\r\n^MTT\r\n"},
      // Only one or two digits follow ^PR: anything else could carry commands.
      {"Continue", 5, "6ips", 1, "", "None", "^MNN\r\n~SD1\r\n"},
      {"Continue", 5, "12", 1, "", "None", "^MNN\r\n^PR12\r\n~SD1\r\n"},
      {"Continue", 5, "2^XA^FDX^FS^XZ", 1, "", "None", "^MNN\r\n~SD1\r\n"},
      {"Continue", 5, "123", 1, "", "None", "^MNN\r\n~SD1\r\n"},
      {"MyLabelGapsRoll", 1, "2Normal", 5, "", "Rewind", "^MNY\r\n~SD5\r\n"},
      {"Normal", 0, "4", 40, "", "TearOff", "^PR4\r\n^MMT,N\r\n"},
      {"Mystery", 3, "", 3, "", "", "~SD3\r\n"},
  };
  for (const Case& c : cases) {
    std::string speed = c.speed;
    testing::internal::CaptureStderr();
    EXPECT_EQ(printed([&](KelvoPrinter& p) {
                setGap(p, c.gap, 0, c.paper), setSpeedAndDensity(p, speed.c_str(), c.dark), setRibbon(p, c.method);
                setPostAction(p, c.post);
              }),
              c.expected);
    const std::string err = testing::internal::GetCapturedStderr();
    const bool badSpeed = std::atof(c.speed) > 0 && !std::strstr(c.speed, "Normal") && !kelvoPrintSpeedIsValid(c.speed);
    EXPECT_EQ(err.find("WARNING: Print speed \"" + speed + "\"") != std::string::npos, badSpeed) << err;
    if (!badSpeed) {
      EXPECT_EQ(err, !std::strcmp(c.paper, "Normal")    ? "DEBUG:Skip the GAP cmd by Normal paper type\n"
                     : !std::strcmp(c.paper, "Mystery") ? "DEBUG:Unknown paper type: Mystery!\n" : "");
    }
  }
  EXPECT_EQ(printed([](KelvoPrinter& p) { setDirection(p, "xRotation180", 0), setDirection(p, "Normal", 1); }),
            "^POI\r\n^PON\r\n");
  EXPECT_EQ(printed([](KelvoPrinter& p) { setReference(p), setOffset(p, 5), setCls(p), endPage(p, Settings{}); }),
            "\r\n");
}

}  // namespace
