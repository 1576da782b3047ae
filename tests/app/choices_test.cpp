// The Kelvo choices in words: each halftone, "after printing" and graphic
// transfer keyword names what the PPD's word of the same value says it
// does, and every PPD word is reachable. The PPD files are the filter's own, compiled from
// ppd/kelvo.drv, not made by the code under test.
#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <map>
#include <string>

#include "app/drivers.h"
#include "support/halftone_type.h"

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
    std::map<std::string, int> reached;
    const KelvoChoice& c = choice(name);
    for (int i = 0; i < c.numWords; ++i) {
      const KelvoWord& word = c.words[i];
      if (word.ppd == nullptr) continue;  // "auto": the printer's label mode
      SCOPED_TRACE(word.keyword);
      ASSERT_TRUE(ppd.count(word.ppd)) << word.ppd;
      if (word.text == nullptr) continue;  // an old keyword
      ++reached[word.ppd];
      EXPECT_EQ(lower(word.text), lower(ppd.at(word.ppd)));
    }
    for (const auto& [word, text] : ppd) EXPECT_EQ(reached[word], 1) << option << " " << word << " (" << text << ")";
  }
}

// The keywords before the renaming run what they ran: each is its PPD word
// written in lower case with dashes.
TEST(KelvoChoices, OldHalftoneKeywordsKeepTheirMethods) {
  const KelvoChoice& c = choice("kelvo-halftone");
  int old = 0;
  for (int i = 0; i < c.numWords; ++i) {
    if (c.words[i].text != nullptr) continue;
    ++old;
    std::string dashed;
    for (const char* p = c.words[i].ppd; *p != '\0'; ++p) {
      if (std::isupper(static_cast<unsigned char>(*p)) && p != c.words[i].ppd) dashed += '-';
      dashed += static_cast<char>(std::tolower(static_cast<unsigned char>(*p)));
    }
    EXPECT_EQ(dashed, c.words[i].keyword);
    EXPECT_EQ(kelvoHalftoneFromKeyword(c.words[i].keyword), kelvoHalftoneTypeFromStr(c.words[i].ppd));
  }
  EXPECT_EQ(old, 8);
  EXPECT_EQ(kelvoHalftoneFromKeyword("jarvis-judice-ninke-diffusion"), Stucki);
  EXPECT_EQ(kelvoHalftoneFromKeyword("threshold"), None);
  EXPECT_EQ(kelvoHalftoneFromKeyword("no-such-method"), None);
}

}  // namespace
