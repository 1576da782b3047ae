#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/halftone_type.h"
#include "support/kelvo_log.h"
#include "support/kelvo_string.h"

namespace {

std::string logLine(int level, const char* format, int value) {
  testing::internal::CaptureStderr();
  kelvoLogCommon(level, format, value);
  return testing::internal::GetCapturedStderr();
}

TEST(Log, PrefixJoinsMessageWithoutBlank) {
  struct Case { int level; const char* expected; };
  const Case cases[] = {
      {0, "DEBUG:x=5\n"}, {1, "DEBUG:x=5\n"},  {2, "WARN:x=5\n"},
      {3, "ERROR:x=5\n"}, {4, "CRIT:x=5\n"},   {5, "INVALID:x=5\n"},
  };
  for (const Case& c : cases) EXPECT_EQ(logLine(c.level, "x=%d", 5), c.expected) << c.level;
}

TEST(HalftoneNames, RoundTripAndEdges) {
  const char* names[] = {"None",   "FloydSteinberg", "Ordered", "Burkes", "Stucki", "JarvisJudiceNinke",
                         "Sierra", "StevensonArce",  "Tattoo",  "Tattoo_X8",        "BarcodeText"};
  for (int i = 0; i < 11; ++i) {
    EXPECT_STREQ(kelvoHalftoneTypeToStr(static_cast<DitherType>(i)), names[i]);
    EXPECT_EQ(kelvoHalftoneTypeFromStr(names[i]), i);
  }
  EXPECT_STREQ(kelvoHalftoneTypeToStr(static_cast<DitherType>(11)), "None");
  EXPECT_STREQ(kelvoHalftoneTypeToStr(static_cast<DitherType>(-1)), "None");
  EXPECT_STREQ(kelvoHalftoneTypeToStr(static_cast<DitherType>(100)), "None");
  // Only the exact PPD choice word selects a method.
  for (const char* other : {"floydsteinberg", "", " Tattoo", "Tattoo ", "TattooX8", "Tattoo_x8"})
    EXPECT_EQ(kelvoHalftoneTypeFromStr(other), None) << other;
}

TEST(Basename, BothSeparatorsCount) {
  struct Case { const char* path; const char* base; };
  const Case cases[] = {
      {"/a/b\\c.txt", "c.txt"}, {"c:\\x/y", "y"}, {"name", "name"},
      {"/dir/", ""},           {"a\\b", "b"},    {"/usr/lib/cups/filter/rastertokelvozpl", "rastertokelvozpl"},
  };
  for (const Case& c : cases) EXPECT_STREQ(kelvoPathGetBasename(c.path), c.base) << c.path;
  EXPECT_EQ(kelvoPathGetBasename(nullptr), nullptr);
  const char* p = "x/y";
  EXPECT_EQ(kelvoPathGetBasename(p), p + 2);  // points into the argument
}

TEST(StrCpy, TruncatesAndPads) {
  char buf[8];
  std::memset(buf, 'Z', sizeof buf);
  EXPECT_EQ(kelvoStrCpy(buf, "abcdef", 4), buf);
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(buf[4], 'Z');  // nothing past size is touched

  std::memset(buf, 'Z', sizeof buf);
  kelvoStrCpy(buf, "ab", 8);
  const char expected[8] = {'a', 'b', 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(std::memcmp(buf, expected, 8), 0);

  char one[1] = {'Q'};
  kelvoStrCpy(one, "long", 1);
  EXPECT_EQ(one[0], '\0');
}

}  // namespace
