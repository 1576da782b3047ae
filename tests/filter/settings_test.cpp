#include "filter/settings.h"

#include <cmath>
#include <cstring>
#include <ctime>
#include <regex>

#include "filter_test_util.h"

namespace {

const char kLongWord[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmn";  // 40 characters, the most a PPD allows

std::string settingsPpd(const std::string& extra = "") {
  return labelPpd(ppdOption("MediaMethod", "Transfer") + ppdOption("GapsHeight", "3") +
                  ppdOption("PostAction", kLongWord) + ppdOption("HalftoneType", "Burkes", {"Burkes", "Tattoo_x8"}) +
                  ppdOption("MirrorImage", "True") + ppdOption("PrintSpeed", "3", {"3", "4"}) +
                  ppdOption("Brightness", "-20") + extra);
}

Settings parse(const std::string& ppdPath, const char* options, std::string* log = nullptr) {
  setenv("PPD", ppdPath.c_str(), 1);
  Settings s;
  std::memset(&s, 0x5A, sizeof s);  // must come back cleared
  testing::internal::CaptureStderr();
  kelvoParseSettings(&s, options);
  const std::string err = testing::internal::GetCapturedStderr();
  if (log != nullptr) *log = err;
  return s;
}

TEST(Settings, PpdDefaultsJobOptionsAndLog) {
  TempFile ppd("settings.ppd", settingsPpd());
  std::string log;
  const Settings s = parse(ppd.path, "PrintSpeed=4", &log);
  EXPECT_EQ(s.Brightness, -20);
  EXPECT_STREQ(s.outputFile, "");
  // The log shows every other field. The job option beats the PPD's speed;
  // 288 x 432 pt give 101.6064 x 152.4096 mm by the rounded factor 0.3528,
  // not 101.6 x 152.4 as 25.4 / 72 would.
  EXPECT_EQ(log, std::string("DEBUG:PageSizeName: w288h432\n"
                             "DEBUG:Custom Size: (288.000000,432.000000,4.000000,6.000000,280.000000,420.000000)\n"
                             "DEBUG:Set page size: width 101.606400 mm, height 152.409607 mm\n"
                             "DEBUG:settings->MediaMethod:Transfer\n"
                             "DEBUG:settings->PaperType:\nDEBUG:settings->GapsHeight:3\nDEBUG:settings->PostAction:") +
                         kLongWord +
                     "\nDEBUG:settings->Origin:\nDEBUG:settings->MirrorImage:1\nDEBUG:settings->NegativeImage:0\n"
                     "DEBUG:settings->PrintSpeed:4\nDEBUG:settings->Darkness:0\nDEBUG:settings->halftoneType:3\n"
                     "DEBUG:settings->PageSize:w288h432\n"
                     "DEBUG:settings->pageWidth:101.606400\nDEBUG:settings->pageHeight:152.409607\n");
  // "Burkes" runs Stucki's kernel; names match exactly.
  EXPECT_EQ(s.halftoneType, KelvoHalftone::kStucki);
  EXPECT_EQ(parse(ppd.path, "HalftoneType=Tattoo_x8").halftoneType, KelvoHalftone::kThreshold);
  EXPECT_EQ(parse("/nonexistent.ppd", "PrintSpeed=4").pageWidth, 0.0f);
}

TEST(Settings, RecordingFileName) {
  const std::string prefix = "*kelvoFilterOutputFile: \"/var/tmp/rec\"\n";
  const std::pair<std::string, std::string> cases[] = {
      {prefix, ""},
      {prefix + ppdOption("RecordPrinterCommands", "1", {"0", "1"}), "/var/tmp/rec-(\\d{14})\\.bin"},
      {ppdOption("RecordPrinterCommands", "2"), "-(\\d{14})\\.bin"},  // relative without the attribute
      // A name that would not fit is not cut short: nothing is recorded.
      {"*kelvoFilterOutputFile: \"/" + std::string(240, 'd') + "\"\n" + ppdOption("RecordPrinterCommands", "1"), ""},
  };
  for (const auto& c : cases) {
    TempFile ppd("record.ppd", settingsPpd(c.first));
    const time_t before = std::time(nullptr);
    const std::string name = parse(ppd.path, "").outputFile;
    std::smatch match;
    ASSERT_TRUE(std::regex_match(name, match, std::regex(c.second))) << name;
    struct tm stamp = {};  // the digits are the local time of the call
    if (match.size() < 2) continue;
    ASSERT_NE(strptime(match[1].str().c_str(), "%Y%m%d%H%M%S", &stamp), nullptr);
    stamp.tm_isdst = -1;
    EXPECT_LE(std::abs(std::difftime(std::mktime(&stamp), before)), 2.0) << name;
  }
}

}  // namespace
