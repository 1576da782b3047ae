// The PPD files the project ships, as CUPS and the filter read them.
#include <cups/raster.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <set>

#include "filter/ppd_helpers.h"
#include "filter_test_util.h"
#include "shipped_ppds.h"

namespace {

std::set<std::string> choices(ppd_file_t* ppd, const char* keyword) {
  std::set<std::string> words;
  if (const ppd_option_t* option = ppdFindOption(ppd, keyword))
    for (int i = 0; i < option->num_choices; ++i) words.insert(option->choices[i].choice);
  return words;
}

std::string defaultOf(ppd_file_t* ppd, const char* keyword) {
  const ppd_option_t* option = ppdFindOption(ppd, keyword);
  return option != nullptr ? option->defchoice : "(missing)";
}

std::set<std::string> numbers(int from, int to) {
  std::set<std::string> words;
  for (int i = from; i <= to; ++i) words.insert(std::to_string(i));
  return words;
}

TEST(ShippedPpd, CupsRendersEightBitBlackPagesAndChoicesFitTheCommands) {
  for (const ShippedModel& model : kShippedModels) {
    const char* name = model.file;
    ppd_file_t* ppd = ppdOpenFile(ppdPath(name).c_str());
    ASSERT_NE(ppd, nullptr) << name;
    ppdMarkDefaults(ppd);
    cups_page_header2_t h;
    ASSERT_EQ(cupsRasterInterpretPPD(&h, ppd, 0, nullptr, nullptr), 0) << name;
    EXPECT_TRUE(h.cupsBitsPerColor == 8 && h.cupsBitsPerPixel == 8 && h.cupsColorSpace == CUPS_CSPACE_K) << name;
    EXPECT_EQ(h.HWResolution[0], model.dpi) << name;
    EXPECT_EQ(h.HWResolution[1], model.dpi) << name;
    EXPECT_STREQ(kelvoPpdGetAttrAsStrDefault(ppd, "cupsFilter", nullptr, ""),
                 "application/vnd.cups-raster 0 rastertokelvozpl");
    EXPECT_EQ(kelvoPpdGetAttrAsStrDefault(ppd, "kelvoFilterOutputFile", nullptr, "")[0], '/') << name;
    EXPECT_STREQ(kelvoPpdGetAttrAsStrDefault(ppd, "kelvoAllowJobRecording", nullptr, ""), "False") << name;
    // The historical words, each for the method of its place.
    const char* const words[] = {"None",   "FloydSteinberg", "Ordered", "Burkes",    "Stucki",     "JarvisJudiceNinke",
                                 "Sierra", "StevensonArce",  "Tattoo",  "Tattoo_X8", "BarcodeText"};
    const ppd_option_t* halftone = ppdFindOption(ppd, "HalftoneType");
    ASSERT_TRUE(halftone != nullptr && halftone->num_choices == kKelvoHalftoneCount) << name;
    setenv("PPD", ppdPath(name).c_str(), 1);
    for (int i = 0; i < kKelvoHalftoneCount; ++i) {
      EXPECT_STREQ(halftone->choices[i].choice, words[i]);
      Settings s;
      testing::internal::CaptureStderr();
      kelvoParseSettings(&s, (std::string("HalftoneType=") + words[i]).c_str());
      testing::internal::GetCapturedStderr();
      EXPECT_EQ(s.halftoneType, static_cast<KelvoHalftone>(i)) << words[i];
    }
    // Labels default to the barcode halftone, and Ghostscript renders their
    // pages by pixel centres (no bar growth); the stencil model is untouched.
    const bool label = std::string(name) != "kelvotat.ppd";
    EXPECT_STREQ(halftone->defchoice, label ? "BarcodeText" : "Tattoo") << name;
    EXPECT_STREQ(kelvoPpdGetAttrAsStrDefault(ppd, "DefaultCenterOfPixel", nullptr, ""), label ? "true" : "") << name;
    // Every choice selects a command, except the words meant to leave the
    // printer's setting alone.
    auto block = [](const char* field, const std::string& word) {
      Settings s{};
      s.GapsHeight = 3;
      std::strcpy(field == std::string("PaperType") ? s.PaperType : field == std::string("MediaMethod") ? s.MediaMethod
                  : field == std::string("PostAction")                                          ? s.PostAction
                                                                                                : s.PrintSpeed,
                  word.c_str());
      return setupBlock(s);
    };
    for (const std::string& w : choices(ppd, "PaperType"))
      EXPECT_EQ(has(block("PaperType", w), "^MN"), w != "Normal") << name << " " << w;
    for (const std::string& w : choices(ppd, "MediaMethod")) EXPECT_TRUE(has(block("MediaMethod", w), "^MT"));
    for (const std::string& w : choices(ppd, "PostAction"))
      EXPECT_EQ(has(block("PostAction", w), "^MM"), w != "None") << name << " " << w;
    std::set<std::string> speeds = numbers(1, model.topSpeed);
    speeds.insert("Normal");
    EXPECT_EQ(choices(ppd, "PrintSpeed"), speeds) << name;
    EXPECT_EQ(defaultOf(ppd, "PrintSpeed"), "Normal") << name;
    for (const std::string& w : choices(ppd, "PrintSpeed"))
      EXPECT_EQ(has(block("PrintSpeed", w), "\r\n^PR" + w + "\r\n"), w != "Normal") << name << " " << w;
    EXPECT_EQ(choices(ppd, "Darkness"), numbers(-1, 30)) << name;
    EXPECT_EQ(defaultOf(ppd, "Darkness"), "-1") << name;
    EXPECT_EQ(choices(ppd, "Origin"), (std::set<std::string>{"Normal", "Rotation180"}));
    EXPECT_EQ(choices(ppd, "ZplDialect"), (std::set<std::string>{"Standard", "Kelvo"})) << name;
    EXPECT_EQ(defaultOf(ppd, "ZplDialect"), model.stencil ? "Kelvo" : "Standard") << name;
    EXPECT_EQ(choices(ppd, "DebugImages"), (std::set<std::string>{"False", "True"})) << name;
    EXPECT_EQ(defaultOf(ppd, "DebugImages"), "False") << name;
    // Installed queues and scripts use the old keywords.
    const std::set<std::string> brightness = choices(ppd, "Brightness");
    for (int b = -100; b <= 100; b += 10) EXPECT_EQ(brightness.count(std::to_string(b)), 1u) << name << " " << b;
    for (const char* keyword : {"GapsHeight", "MirrorImage", "NegativeImage", "RecordPrinterCommands"})
      EXPECT_FALSE(choices(ppd, keyword).empty()) << name << " " << keyword;
    if (model.stencil) {  // the names the anti-wrinkle frame knows, and its widths
      EXPECT_EQ(choices(ppd, "PageSize"), (std::set<std::string>{"A4", "Letter", "Tattoo_A5", "Tattoo_A6"}));
      EXPECT_EQ(choices(ppd, "AntiWrinkle"), numbers(0, 3));
      EXPECT_EQ(defaultOf(ppd, "AntiWrinkle"), "0");
    } else {  // custom sizes up to the print head
      EXPECT_EQ(ppd->variable_sizes, 1) << name;
      EXPECT_NEAR(ppd->custom_max[0], model.maxWidthInches * 72, 0.01) << name;
    }
    // Every size is as large as its name says and a whole number of dots at
    // the printer's resolution; a label printer offers no size wider than
    // its head.
    size_t sizes = 0;
    for (const std::string& size : choices(ppd, "PageSize")) {
      if (size == "Custom") continue;
      ++sizes;
      double width = 0, length = 0;
      ASSERT_TRUE(namedSizePoints(size, width, length)) << name << " " << size;
      const ppd_size_t* dimension = ppdPageSize(ppd, size.c_str());
      ASSERT_NE(dimension, nullptr) << name << " " << size;
      EXPECT_NEAR(dimension->width, width, 0.01) << name << " " << size;
      EXPECT_NEAR(dimension->length, length, 0.01) << name << " " << size;
      if (!model.stencil) {
        EXPECT_LE(width, model.maxWidthInches * 72 + 0.01) << name << " " << size;
      }
      ppdMarkOption(ppd, "PageSize", size.c_str());
      ASSERT_EQ(cupsRasterInterpretPPD(&h, ppd, 0, nullptr, nullptr), 0) << name;
      EXPECT_EQ(h.cupsWidth, static_cast<unsigned>(std::lround(width * model.dpi / 72))) << name << " " << size;
      EXPECT_EQ(h.cupsHeight, static_cast<unsigned>(std::lround(length * model.dpi / 72))) << name << " " << size;
    }
    EXPECT_EQ(sizes, model.sizeCount) << name;
    ppdClose(ppd);
  }
}

// The build makes exactly the files the tests and the install know.
TEST(ShippedPpd, TheBuildMakesEveryModelAndNoOther) {
  std::set<std::string> expected, made;
  for (const ShippedModel& model : kShippedModels) expected.insert(model.file);
  if (DIR* d = opendir(KELVO_PPD_DIR)) {
    while (const dirent* e = readdir(d))
      if (e->d_name[0] != '.') made.insert(e->d_name);
    closedir(d);
  }
  EXPECT_EQ(made, expected);
}

}  // namespace
