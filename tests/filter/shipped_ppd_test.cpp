// The PPD files the project ships, as CUPS and the filter read them.
#include <cups/raster.h>

#include <cmath>
#include <cstdlib>
#include <set>

#include "printer/label_setup.h"
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
    const ppd_option_t* halftone = ppdFindOption(ppd, "HalftoneType");
    ASSERT_TRUE(halftone != nullptr && halftone->num_choices == 11) << name;
    for (int i = 0; i < 11; ++i)  // the exact names, in method order
      EXPECT_STREQ(halftone->choices[i].choice, kelvoHalftoneTypeToStr(static_cast<DitherType>(i)));
    // Labels default to the barcode halftone, and Ghostscript renders their
    // pages by pixel centres (no bar growth); the stencil model is untouched.
    const bool label = std::string(name) != "kelvotat.ppd";
    EXPECT_STREQ(halftone->defchoice, label ? "BarcodeText" : "Tattoo") << name;
    EXPECT_STREQ(kelvoPpdGetAttrAsStrDefault(ppd, "DefaultCenterOfPixel", nullptr, ""), label ? "true" : "") << name;
    // Every choice selects a command, except the words meant to leave the
    // printer's setting alone.
    for (const std::string& w : choices(ppd, "PaperType"))
      EXPECT_EQ(printed([&](KelvoPrinter& p) { setGap(p, 3, 0, w.c_str()); }).empty(), w == "Normal") << name << " " << w;
    for (const std::string& w : choices(ppd, "MediaMethod")) EXPECT_NE(printed([&](KelvoPrinter& p) { setRibbon(p, w.c_str()); }), "");
    for (const std::string& w : choices(ppd, "PostAction"))
      EXPECT_EQ(printed([&](KelvoPrinter& p) { setPostAction(p, w.c_str()); }).empty(), w == "None") << name << " " << w;
    std::set<std::string> speeds = numbers(1, model.topSpeed);
    speeds.insert("Normal");
    EXPECT_EQ(choices(ppd, "PrintSpeed"), speeds) << name;
    EXPECT_EQ(defaultOf(ppd, "PrintSpeed"), "Normal") << name;
    for (std::string w : choices(ppd, "PrintSpeed"))
      EXPECT_EQ(printed([&](KelvoPrinter& p) { setSpeedAndDensity(p, w.c_str(), -1); }),
                w == "Normal" ? "" : "^PR" + w + "\r\n");
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
    for (const char* keyword : {"GapsHeight", "Occurrence", "MirrorImage", "NegativeImage", "ForceRotation",
                                "RecordPrinterCommands"})
      EXPECT_FALSE(choices(ppd, keyword).empty()) << name << " " << keyword;
    if (model.stencil) {  // the names the anti-wrinkle frame knows
      EXPECT_EQ(choices(ppd, "PageSize"), (std::set<std::string>{"A4", "Letter", "Tattoo_A5", "Tattoo_A6"}));
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
