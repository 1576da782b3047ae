// The PPD files the project ships, as CUPS and the filter read them.
#include <cups/raster.h>

#include <cstdlib>
#include <set>

#include "filter/job_setup.h"
#include "filter/ppd_helpers.h"
#include "filter_test_util.h"

namespace {

std::set<std::string> choices(ppd_file_t* ppd, const char* keyword) {
  std::set<std::string> words;
  if (const ppd_option_t* option = ppdFindOption(ppd, keyword))
    for (int i = 0; i < option->num_choices; ++i) words.insert(option->choices[i].choice);
  return words;
}

TEST(ShippedPpd, CupsRendersEightBitBlackPagesAndChoicesFitTheCommands) {
  for (const char* name : {"kelvo203.ppd", "kelvo300.ppd", "kelvotat.ppd"}) {
    ppd_file_t* ppd = ppdOpenFile(ppdPath(name).c_str());
    ASSERT_NE(ppd, nullptr) << name;
    ppdMarkDefaults(ppd);
    cups_page_header2_t h;
    ASSERT_EQ(cupsRasterInterpretPPD(&h, ppd, 0, nullptr, nullptr), 0) << name;
    EXPECT_TRUE(h.cupsBitsPerColor == 8 && h.cupsBitsPerPixel == 8 && h.cupsColorSpace == CUPS_CSPACE_K) << name;
    EXPECT_STREQ(kelvoPpdGetAttrAsStrDefault(ppd, "cupsFilter", nullptr, ""),
                 "application/vnd.cups-raster 0 rastertokelvozpl");
    EXPECT_EQ(kelvoPpdGetAttrAsStrDefault(ppd, "kelvoFilterOutputFile", nullptr, "")[0], '/') << name;
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
      EXPECT_EQ(printed([&] { setGap(3, 0, w.c_str()); }).empty(), w == "Normal") << name << " " << w;
    for (const std::string& w : choices(ppd, "MediaMethod")) EXPECT_NE(printed([&] { setRibbon(w.c_str()); }), "");
    for (const std::string& w : choices(ppd, "PostAction"))
      EXPECT_EQ(printed([&] { setPostAction(w.c_str()); }).empty(), w == "None") << name << " " << w;
    for (std::string w : choices(ppd, "PrintSpeed"))
      EXPECT_EQ(printed([&] { setSpeedAndDensity(&w[0], -1); }),
                w == "Normal" ? "" : "^PR" + std::to_string(std::atoi(w.c_str())) + "\r\n");
    EXPECT_EQ(choices(ppd, "Origin"), (std::set<std::string>{"Normal", "Rotation180"}));
    for (const char* keyword : {"GapsHeight", "Occurrence", "MirrorImage", "NegativeImage", "Darkness", "Brightness",
                                "ForceRotation", "RecordPrinterCommands"})
      EXPECT_FALSE(choices(ppd, keyword).empty()) << name << " " << keyword;
    if (std::string(name) == "kelvotat.ppd") {  // the names the anti-wrinkle frame knows
      EXPECT_EQ(choices(ppd, "PageSize"), (std::set<std::string>{"A4", "Letter", "Tattoo_A5", "Tattoo_A6"}));
    }
    // The graphic is sent in rows of exactly the page width while page rows
    // are padded to 4 bytes: every shipped size must be a whole multiple of 4
    // dots wide, or its rows would shift.
    for (const std::string& size : choices(ppd, "PageSize")) {
      if (size == "Custom") continue;
      ppdMarkOption(ppd, "PageSize", size.c_str());
      ASSERT_EQ(cupsRasterInterpretPPD(&h, ppd, 0, nullptr, nullptr), 0) << name;
      EXPECT_TRUE(h.cupsWidth > 0 && h.cupsWidth % 4 == 0) << name << " " << size << ": " << h.cupsWidth;
    }
    ppdClose(ppd);
  }
}

}  // namespace
