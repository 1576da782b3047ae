#include "filter/ppd_helpers.h"

#include "filter_test_util.h"

namespace {

struct PpdFile {
  explicit PpdFile(const std::string& body) : file("helpers.ppd", ppdText(body)), ppd(ppdOpenFile(file.path.c_str())) {}
  ~PpdFile() { ppdClose(ppd); }
  TempFile file;
  ppd_file_t* ppd;
};

TEST(PpdHelpers, MarkedThenDeclaredThenCallerDefault) {
  PpdFile f(ppdOption("PaperType", "Continue", {"LabelGaps", "Continue"}) + ppdOption("Ghost", "Gone", {"Here"}) +
            ppdOption("Resolution", "203dpi") + "*kelvoOut: \"/var/tmp/rec\"\n*kelvoScale Main: \"2.5\"\n");
  ASSERT_NE(f.ppd, nullptr);
  EXPECT_STREQ(kelvoPpdGetChoiceAsStrDefault(f.ppd, "PaperType", "x"), "Continue");  // nothing marked yet
  ppdMarkOption(f.ppd, "PaperType", "LabelGaps");
  EXPECT_STREQ(kelvoPpdGetChoiceAsStrDefault(f.ppd, "PaperType", "x"), "LabelGaps");
  EXPECT_STREQ(kelvoPpdGetChoiceAsStrDefault(f.ppd, "NoSuchOption", "x"), "x");
  EXPECT_STREQ(kelvoPpdGetChoiceAsStrDefault(f.ppd, "Ghost", "x"), "x");  // the default names no choice
  EXPECT_EQ(kelvoPpdGetChoiceAsIntDefault(f.ppd, "Resolution", 7), 203);
  EXPECT_EQ(kelvoPpdGetChoiceAsIntDefault(f.ppd, "PaperType", 7), 0);
  EXPECT_STREQ(kelvoPpdGetAttrAsStrDefault(f.ppd, "kelvoOut", nullptr, "d"), "/var/tmp/rec");
  EXPECT_STREQ(kelvoPpdGetAttrAsStrDefault(f.ppd, "kelvoScale", "Other", "d"), "d");
  // Without a PPD every helper gives the default.
  EXPECT_EQ(kelvoPpdGetChoice(nullptr, "PageSize"), nullptr);
  EXPECT_STREQ(kelvoPpdGetChoiceAsStrDefault(nullptr, "PageSize", "d"), "d");
  EXPECT_EQ(kelvoPpdGetChoiceAsIntDefault(nullptr, "Darkness", 12), 12);
  EXPECT_EQ(kelvoPpdGetChoiceAsBoolDefault(nullptr, "MirrorImage", 3), 3);
  EXPECT_STREQ(kelvoPpdGetAttrAsStrDefault(nullptr, "kelvoOut", nullptr, "d"), "d");
}

TEST(PpdHelpers, TruthValues) {
  // Numbers keep their low byte as a signed value: 300 -> 44, 200 -> -56.
  const std::pair<std::string, int> cases[] = {{"YES", 1}, {"True", 1}, {"tRuE", 1}, {"NO", 0},   {"false", 0},
                                               {"3", 3},   {"300", 44}, {"256", 0},  {"200", -56}, {"On", 0}};
  std::string body;
  for (size_t i = 0; i < std::size(cases); ++i)
    body += ppdOption("B" + std::to_string(i), cases[i].first);
  PpdFile f(body);
  ASSERT_NE(f.ppd, nullptr);
  for (size_t i = 0; i < std::size(cases); ++i)
    EXPECT_EQ(kelvoPpdGetChoiceAsBoolDefault(f.ppd, ("B" + std::to_string(i)).c_str(), 9), cases[i].second);
  EXPECT_EQ(kelvoPpdGetChoiceAsBoolDefault(f.ppd, "NoSuchOption", 9), 9);
}

}  // namespace
