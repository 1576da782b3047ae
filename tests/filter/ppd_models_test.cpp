// Every shipped model and page size through the real filter, and the
// brightness choices against the dots they print.
#include <cups/ppd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <set>

#include "job_runner.h"
#include "shipped_ppds.h"

namespace {

struct PpdCloser {
  void operator()(ppd_file_t* ppd) const { ppdClose(ppd); }
};
using Ppd = std::unique_ptr<ppd_file_t, PpdCloser>;

std::vector<std::string> choiceWords(ppd_file_t* ppd, const char* keyword) {
  std::vector<std::string> words;
  if (const ppd_option_t* option = ppdFindOption(ppd, keyword))
    for (int i = 0; i < option->num_choices; ++i)
      if (std::string(option->choices[i].choice) != "Custom") words.push_back(option->choices[i].choice);
  return words;
}

// The setup block the filter writes ahead of the page, line by line.
std::vector<std::string> setupLines(const std::string& job) {
  std::vector<std::string> lines;
  size_t at = kLineFeeds.size();
  for (size_t end; (end = job.find("\r\n", at)) != std::string::npos && job.compare(at, 3, "^XZ") != 0; at = end + 2)
    lines.push_back(job.substr(at, end - at));
  return lines;
}

// Sizes of each model print one page at the size CUPS makes for it: an
// 8 by 8 dot square on blank paper. The setup block names the label's size
// (in millimetres and in dots at 203 dpi, the block's fixed unit) and one of
// the model's speeds and darknesses, taken in turn, so that every choice
// reaches the printer at least once. The stencil language keeps the block in its
// long-standing form whatever the model's default.
class ShippedModelJobs : public testing::TestWithParam<ShippedModel> {};

#ifdef KELVO_SANITIZED
constexpr size_t kJobStep = 7;
#else
constexpr size_t kJobStep = 1;
#endif

TEST_P(ShippedModelJobs, SizesPrintTheirSetupBlocks) {
  const ShippedModel& model = GetParam();
  const Ppd ppd(ppdOpenFile(ppdPath(model.file).c_str()));
  ASSERT_NE(ppd, nullptr) << model.file;
  const std::vector<std::string> speeds = choiceWords(ppd.get(), "PrintSpeed"),
                                 darknesses = choiceWords(ppd.get(), "Darkness");
  std::set<std::string> speedsSent, darknessesSent;
  const std::vector<std::string> sizes = choiceWords(ppd.get(), "PageSize");
  ASSERT_FALSE(sizes.empty() || speeds.empty() || darknesses.empty()) << model.file;
  // One job for each speed and darkness; the sizes are taken seven apart,
  // so that a model with more sizes than that sends a spread of them (every
  // size's dimensions are checked without a job in the shipped PPD test).
  // The sanitizer build checks these jobs for memory errors, not their
  // bytes (the release build does): every seventh job is enough there.
  for (size_t i = 0; i < std::max(speeds.size(), darknesses.size()); i += kJobStep) {
    const std::string& size = sizes[i * 7 % sizes.size()];
    const std::string what = std::string(model.file) + " " + size;
    ppdMarkDefaults(ppd.get());
    ppdMarkOption(ppd.get(), "PageSize", size.c_str());
    cups_page_header2_t h;
    ASSERT_EQ(cupsRasterInterpretPPD(&h, ppd.get(), 0, nullptr, nullptr), 0) << what;
    RawPage label = page(h.cupsWidth, h.cupsHeight, model.dpi);
    // As CUPS names it (the stencil's sheet frame goes by that name).
    std::memcpy(label.h.cupsPageSizeName, h.cupsPageSizeName, sizeof h.cupsPageSizeName);
    for (unsigned y = 0; y < 8; ++y) label.pixels.replace(y * h.cupsWidth, 8, 8, '\xff');
    const std::string& speed = speeds[i % speeds.size()];
    const std::string& darkness = darknesses[i % darknesses.size()];
    const JobResult job = runJob(rasterStream({label}),
                                 "ZplDialect=Kelvo HalftoneType=None PageSize=" + size + " PrintSpeed=" + speed +
                                     " Darkness=" + darkness,
                                 ppdPath(model.file));
    ASSERT_EQ(job.status, 0) << what << "\n" << job.err;

    double width = 0, length = 0;
    ASSERT_TRUE(namedSizePoints(size, width, length)) << what;
    const std::vector<std::string> lines = setupLines(job.out);
    ASSERT_GE(lines.size(), 4u) << what;
    float mmWidth = 0, mmLength = 0;
    ASSERT_EQ(std::sscanf(lines[0].c_str(), "SIZE %f mm, %f mm", &mmWidth, &mmLength), 2) << what << lines[0];
    // Half a dot at the model's resolution and the rounding to 0.1 mm.
    const double mmSlack = 12.7 / model.dpi + 0.051;
    EXPECT_NEAR(mmWidth, width / 72 * 25.4, mmSlack) << what;
    EXPECT_NEAR(mmLength, length / 72 * 25.4, mmSlack) << what;
    EXPECT_EQ(lines[1], "^XX") << what;
    int dotsWidth = 0, dotsLength = 0;
    ASSERT_EQ(std::sscanf(lines[2].c_str(), "^PW%d", &dotsWidth), 1) << what;
    ASSERT_EQ(std::sscanf(lines[3].c_str(), "^LL%d", &dotsLength), 1) << what;
    // 203 dots an inch, less at most one for the block's truncation.
    EXPECT_NEAR(dotsWidth, width / 72 * 203, 1.5) << what;
    EXPECT_NEAR(dotsLength, length / 72 * 203, 1.5) << what;

    std::vector<std::string> rest(lines.begin() + 4, lines.end()), expected;
    if (!model.stencil) expected.push_back("^MNY");  // gaps of 3 mm
    expected.push_back("^PON");
    if (speed != "Normal") expected.push_back("^PR" + speed);
    if (darkness != "-1") expected.push_back("~SD" + darkness);
    expected.push_back("^MTD");
    if (!model.stencil) expected.push_back("^MMT,N");
    EXPECT_EQ(rest, expected) << what;
    speedsSent.insert(speed), darknessesSent.insert(darkness);

    const std::vector<ZplGraphic> graphics = graphicsOf(job.out);
    ASSERT_EQ(graphics.size(), 1u) << what;
    EXPECT_EQ(graphics[0].bytesPerRow, (h.cupsWidth + 7) / 8) << what;
    EXPECT_EQ(graphics[0].height, h.cupsHeight) << what;
    EXPECT_EQ(kelvoZplCountDots(graphics[0]), 64u) << what;
  }
  if (kJobStep == 1) {
    EXPECT_EQ(speedsSent.size(), speeds.size()) << model.file;
    EXPECT_EQ(darknessesSent.size(), darknesses.size()) << model.file;
  }
}

INSTANTIATE_TEST_SUITE_P(Shipped, ShippedModelJobs, testing::ValuesIn(kShippedModels),
                         [](const testing::TestParamInfo<ShippedModel>& info) {
                           std::string name = info.param.file;
                           return name.substr(0, name.find('.'));
                         });

// The brightness texts say "Lighter N", "Normal" or "Darker N", N being the
// keyword the filter reads. On a page that runs from bare paper to full ink,
// the dots must grow from each text to the next darker one, under the
// threshold and a dithering halftone alike. The extremes say what they
// print: a blank label or solid black.
TEST(ShippedModels, BrightnessChoicesPrintLighterOrDarkerAsTheirTextsSay) {
  const Ppd ppd(ppdOpenFile(ppdPath("kelvo203.ppd").c_str()));
  ASSERT_NE(ppd, nullptr);
  const ppd_option_t* option = ppdFindOption(ppd.get(), "Brightness");
  ASSERT_NE(option, nullptr);
  std::map<int, std::pair<std::string, std::string>> byText;  // signed amount -> keyword, text
  for (int i = 0; i < option->num_choices; ++i) {
    const std::string keyword = option->choices[i].choice, text = option->choices[i].text;
    int amount = 0;
    if (std::sscanf(text.c_str(), "Lighter %d", &amount) == 1) {
      amount = -amount;
    } else if (std::sscanf(text.c_str(), "Darker %d", &amount) != 1) {
      ASSERT_EQ(text, "Normal");
    }
    EXPECT_EQ(keyword, std::to_string(amount)) << text;
    byText[amount] = {keyword, text};
  }
  ASSERT_GE(byText.size(), 21u);

  const unsigned width = 256, height = 8;
  RawPage ramp = page(width, height);
  for (size_t i = 0; i < ramp.pixels.size(); ++i) ramp.pixels[i] = static_cast<char>(i % width);
  const std::string raster = rasterStream({ramp});
  for (const char* halftone : {"None", "Ordered"}) {
    size_t previous = 0;
    std::string previousText = "(none)";
    for (const auto& entry : byText) {
      const std::string& text = entry.second.second;
      const JobResult job =
          runJob(raster, "HalftoneType=" + std::string(halftone) + " Brightness=" + entry.second.first,
                 ppdPath("kelvo203.ppd"));
      ASSERT_EQ(job.status, 0) << job.err;
      const std::vector<ZplGraphic> graphics = graphicsOf(job.out);
      ASSERT_EQ(graphics.size(), 1u) << text;
      const size_t dots = kelvoZplCountDots(graphics[0]);
      if (has(text, "(Blank Label)")) {
        EXPECT_EQ(dots, 0u) << halftone << " " << text;
      }
      if (has(text, "(Solid Black)")) {
        EXPECT_EQ(dots, width * height) << halftone << " " << text;
      }
      // Steps inside the working range must show; past it the page is one
      // tone and the count stays.
      if (std::abs(entry.first) <= 25 && previous > 0) {
        EXPECT_GT(dots, previous) << halftone << ": " << text << " after " << previousText;
      } else {
        EXPECT_GE(dots, previous) << halftone << ": " << text << " after " << previousText;
      }
      previous = dots, previousText = text;
    }
  }
}

}  // namespace
