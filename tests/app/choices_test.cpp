// The Kelvo choices in words: each halftone, "after printing" and graphic
// transfer keyword stands for what the filter makes of the PPD word whose
// words it has, and every PPD word is reachable. The PPD files are the
// filter's own, compiled from ppd/kelvo.drv, not made by the code under test.
#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <map>
#include <string>

#include <cstdlib>

#include "app/drivers.h"
#include "filter/settings.h"

namespace {

// The PPD's "*<option> Word/Text:" lines: word -> text.
std::map<std::string, std::string> ppdChoices(const char* ppd, const std::string& option) {
  std::ifstream in(std::string(KELVO_PPD_DIR) + "/" + ppd);
  std::map<std::string, std::string> choices;
  const std::string prefix = "*" + option + " ";
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, prefix.size(), prefix) != 0) continue;
    const size_t slash = line.find('/'), colon = line.find(':');
    if (slash == std::string::npos || colon == std::string::npos || slash > colon) continue;
    choices[line.substr(prefix.size(), slash - prefix.size())] = line.substr(slash + 1, colon - slash - 1);
  }
  return choices;
}

std::string lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// What the filter makes of the PPD word `word` of `option` on the shipped
// label printer, as a KelvoWord's value.
int filterValue(const std::string& option, const std::string& word) {
  setenv("PPD", (std::string(KELVO_PPD_DIR) + "/kelvo203.ppd").c_str(), 1);
  Settings settings;
  testing::internal::CaptureStderr();
  kelvoParseSettings(&settings, (option + "=" + word).c_str());
  testing::internal::GetCapturedStderr();
  const KelvoJobSettings job = kelvoEngineSettings(settings);
  return option == "HalftoneType" ? static_cast<int>(job.halftone)
         : option == "PostAction" ? static_cast<int>(job.postAction)
                                  : static_cast<int>(job.encoding);
}

const KelvoChoice& choice(const char* name) {
  int count = 0;
  const KelvoChoice* choices = kelvoChoices(&count);
  for (int i = 0; i < count; ++i)
    if (std::string(choices[i].name) == name) return choices[i];
  ADD_FAILURE() << "no choice " << name;
  return choices[0];
}

TEST(KelvoChoices, WordsAreThePpdsWords) {
  for (const auto& [name, option] : {std::pair{"kelvo-halftone", "HalftoneType"},
                                     std::pair{"kelvo-post-action", "PostAction"},
                                     std::pair{"kelvo-graphic-encoding", "GraphicEncoding"}}) {
    const std::map<std::string, std::string> ppd = ppdChoices("kelvo203.ppd", option);
    ASSERT_FALSE(ppd.empty()) << option;
    const KelvoChoice& c = choice(name);
    std::map<std::string, int> reached;  // keyword -> PPD words it stands for
    for (const auto& [word, text] : ppd) {
      SCOPED_TRACE(std::string(option) + " " + word);
      const int value = filterValue(option, word);
      int same = 0;
      for (int i = 0; i < c.numWords; ++i)
        if (c.words[i].text != nullptr && c.words[i].value == value && lower(c.words[i].text) == lower(text)) {
          ++same;
          ++reached[c.words[i].keyword];
        }
      EXPECT_EQ(same, 1) << text;
    }
    for (int i = 0; i < c.numWords; ++i) {
      if (c.words[i].text == nullptr || c.words[i].value < 0) continue;  // old keywords, "auto"
      EXPECT_EQ(reached[c.words[i].keyword], 1) << c.words[i].keyword;
    }
  }
}

// The keywords before the renaming run what they ran: each is a PPD word
// written in lower case with dashes, and runs what the filter runs for it.
TEST(KelvoChoices, OldHalftoneKeywordsKeepTheirMethods) {
  const KelvoChoice& c = choice("kelvo-halftone");
  const std::map<std::string, std::string> ppd = ppdChoices("kelvo203.ppd", "HalftoneType");
  int old = 0;
  for (int i = 0; i < c.numWords; ++i) {
    if (c.words[i].text != nullptr) continue;
    ++old;
    int matched = 0;
    for (const auto& [word, text] : ppd) {
      std::string dashed;
      for (size_t k = 0; k < word.size(); ++k) {
        if (std::isupper(static_cast<unsigned char>(word[k])) && k > 0) dashed += '-';
        dashed += static_cast<char>(std::tolower(static_cast<unsigned char>(word[k])));
      }
      if (dashed != c.words[i].keyword) continue;
      ++matched;
      EXPECT_EQ(static_cast<int>(kelvoHalftoneFromKeyword(c.words[i].keyword)), filterValue("HalftoneType", word))
          << word;
    }
    EXPECT_EQ(matched, 1) << c.words[i].keyword;
  }
  EXPECT_EQ(old, 8);
  EXPECT_EQ(kelvoHalftoneFromKeyword("jarvis-judice-ninke-diffusion"), KelvoHalftone::kJarvisJudiceNinke);
  EXPECT_EQ(kelvoHalftoneFromKeyword("threshold"), KelvoHalftone::kThreshold);
  EXPECT_EQ(kelvoHalftoneFromKeyword("no-such-method"), KelvoHalftone::kThreshold);
}

}  // namespace
