#include "app/drivers.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "app/printer_status.h"
#include "support/kelvo_string.h"

namespace {

// A size as the PPDs give it: their word, their words, points.
struct PpdSize {
  const char* name;
  const char* text;
  float widthPt, heightPt;
};

// The label printers' sizes, as kelvo203.ppd and kelvo300.ppd list them:
// the labels of 0.5 to 4 inches wide that shops use, in inches and in
// millimetres.
constexpr PpdSize kLabelSizes[] = {
    {"1x0.5", "1 x 0.5 in", 72, 36}, {"1x1", "1 x 1 in", 72, 72}, {"1.25x1", "1.25 x 1 in", 90, 72},
    {"1.25x2.25", "1.25 x 2.25 in", 90, 162}, {"1.5x0.5", "1.5 x 0.5 in", 108, 36}, {"1.5x1", "1.5 x 1 in", 108, 72},
    {"1.5x2", "1.5 x 2 in", 108, 144}, {"2x0.5", "2 x 0.5 in", 144, 36}, {"2x0.75", "2 x 0.75 in", 144, 54},
    {"2x1", "2 x 1 in", 144, 72}, {"2x1.25", "2 x 1.25 in", 144, 90}, {"2x2", "2 x 2 in", 144, 144},
    {"2x3", "2 x 3 in", 144, 216}, {"2x4", "2 x 4 in", 144, 288}, {"2x5.5", "2 x 5.5 in", 144, 396},
    {"40x30mm", "40 x 30 mm", 113.39, 85.04}, {"50x25mm", "50 x 25 mm", 141.73, 70.87},
    {"50x30mm", "50 x 30 mm", 141.73, 85.04}, {"50x80mm", "50 x 80 mm", 141.73, 226.77},
    {"2.25x0.5", "2.25 x 0.5 in", 162, 36}, {"2.25x1.25", "2.25 x 1.25 in", 162, 90},
    {"2.25x4", "2.25 x 4 in", 162, 288}, {"2.25x5.5", "2.25 x 5.5 in", 162, 396},
    {"2.375x5.5", "2.375 x 5.5 in", 171, 396}, {"2.5x1", "2.5 x 1 in", 180, 72}, {"2.5x2", "2.5 x 2 in", 180, 144},
    {"2.75x1.25", "2.75 x 1.25 in", 198, 90}, {"3x1", "3 x 1 in", 216, 72}, {"3x1.25", "3 x 1.25 in", 216, 90},
    {"3x2", "3 x 2 in", 216, 144}, {"3x3", "3 x 3 in", 216, 216}, {"3x4", "3 x 4 in", 216, 288},
    {"3x5", "3 x 5 in", 216, 360}, {"3x6", "3 x 6 in", 216, 432}, {"3x8", "3 x 8 in", 216, 576},
    {"3.25x2", "3.25 x 2 in", 234, 144}, {"3.25x5", "3.25 x 5 in", 234, 360}, {"3.25x5.5", "3.25 x 5.5 in", 234, 396},
    {"3.25x5.83", "3.25 x 5.83 in", 234, 419.76}, {"3.25x7.83", "3.25 x 7.83 in", 234, 563.76},
    {"3.5x1", "3.5 x 1 in", 252, 72}, {"4x1", "4 x 1 in", 288, 72}, {"4x2", "4 x 2 in", 288, 144},
    {"4x2.5", "4 x 2.5 in", 288, 180}, {"4x3", "4 x 3 in", 288, 216}, {"4x4", "4 x 4 in", 288, 288},
    {"4x5", "4 x 5 in", 288, 360}, {"4x6", "4 x 6 in", 288, 432}, {"4x6.5", "4 x 6.5 in", 288, 468},
    {"4x8", "4 x 8 in", 288, 576}, {"4x13", "4 x 13 in", 288, 936}, {"57x32mm", "57 x 32 mm", 161.57, 90.71},
    {"100x50mm", "100 x 50 mm", 283.46, 141.73}, {"100x100mm", "100 x 100 mm", 283.46, 283.46},
    {"100x150mm", "100 x 150 mm", 283.46, 425.2},
};
// The stencil printer's sheets (kelvotat.ppd).
constexpr PpdSize kSheetSizes[] = {
    {"A4", "A4", 595.28f, 841.89f},
    {"Letter", "Letter", 612, 792},
    {"Tattoo_A5", "Tattoo A5 (Landscape)", 595.28f, 420},
    {"Tattoo_A6", "Tattoo A6", 297.64f, 420},
};
constexpr int kNumLabelSizes = sizeof kLabelSizes / sizeof kLabelSizes[0];
constexpr int kNumSheetSizes = sizeof kSheetSizes / sizeof kSheetSizes[0];

// A PWG size name, built at compile time.
struct PwgText {
  char text[64] = {};
  int length = 0;
  constexpr void add(char c) {
    if (length < 63) text[length++] = c;
  }
  constexpr void add(const char* s) {
    while (*s != '\0') add(*s++);
  }
  constexpr void addNumber(long value) {
    char digits[20] = {};
    int n = 0;
    do {
      digits[n++] = static_cast<char>('0' + value % 10);
      value /= 10;
    } while (value != 0);
    while (n > 0) add(digits[--n]);
  }
  // "50.55" for 5055 hundredths, "25.4" for 2540.
  constexpr void addMm(long hundredths) {
    addNumber(hundredths / 100);
    const long rest = hundredths % 100;
    if (rest == 0) return;
    add('.');
    addNumber(rest / 10);
    if (rest % 10 != 0) addNumber(rest % 10);
  }
};

constexpr bool same(const char* a, const char* b) {
  while (*a != '\0' && *a == *b) ++a, ++b;
  return *a == *b;
}

// Points at `dpi`, rounded as lround does.
constexpr int dotsOf(float points, int dpi) {
  return static_cast<int>(static_cast<double>(points * static_cast<float>(dpi)) / 72.0 + 0.5);
}
// PAPPL makes a page of size*dpi/2540 dots, rounded down.
constexpr int pageDots(long hundredthsMm, int dpi) { return static_cast<int>(hundredthsMm * dpi / 2540); }

// A PWG name's size, "WxHin" or "WxHmm" after its last '_', in hundredths
// of a millimetre.
struct PwgSize {
  long width = 0, length = 0;
};
constexpr PwgSize sizeOfName(const char* name) {
  const char* at = name;
  for (const char* c = name; *c != '\0'; ++c)
    if (*c == '_') at = c + 1;
  long number[2] = {0, 0}, divisor[2] = {1, 1};
  bool fraction = false;
  int side = 0;
  for (; *at >= '0' && *at <= '9' ? true : *at == '.' || *at == 'x'; ++at) {
    if (*at == 'x') {
      side = 1;
      fraction = false;
    } else if (*at == '.') {
      fraction = true;
    } else {
      number[side] = number[side] * 10 + (*at - '0');
      if (fraction) divisor[side] *= 10;
    }
  }
  const long unit = *at == 'i' ? 2540 : 100;  // "in" or "mm"
  return {number[0] * unit / divisor[0], number[1] * unit / divisor[1]};
}

// A PPD size at the model's resolution and the PWG name clients see for it:
// the standard name when PAPPL makes the PPD's page from it (same width, at
// most a row shorter or longer), otherwise a self-describing name in
// millimetres that does. Label widths are a whole multiple of 4 dots (the
// graphic sender needs that), so most of them are a fraction of a
// millimetre narrower than their name.
constexpr KelvoMedia sized(const PpdSize& size, int dpi, bool stencil) {
  KelvoMedia media{size.name, size.text, 0, 0, 0, 0, {}};
  media.widthDots = dotsOf(size.widthPt, dpi) / 4 * 4;
  media.heightDots = dotsOf(size.heightPt, dpi);
  media.widthPt = media.widthDots * 72.0 / dpi;
  media.heightPt = media.heightDots * 72.0 / dpi;
  PwgText standard;
  if (stencil) {
    standard.add(same(size.name, "A4")          ? "iso_a4_210x297mm"
                 : same(size.name, "Letter")    ? "na_letter_8.5x11in"
                 : same(size.name, "Tattoo_A5") ? "iso_a5_210x148mm"
                                                : "iso_a6_105x148mm");
  } else {
    // A size name has no dots: "2.25x1.25" is named "2-25x1-25", and
    // "40x30mm" "40x30".
    int end = 0;
    while (size.name[end] != '\0') ++end;
    const bool mm = end > 2 && size.name[end - 2] == 'm' && size.name[end - 1] == 'm';
    if (mm) end -= 2;
    standard.add(mm ? "om_" : "oe_");
    for (int i = 0; i < end; ++i) standard.add(size.name[i] == '.' ? '-' : size.name[i]);
    standard.add("-label_");
    for (int i = 0; i < end; ++i) standard.add(size.name[i]);
    standard.add(mm ? "mm" : "in");
  }
  const PwgSize pwg = sizeOfName(standard.text);
  const int longer = pageDots(pwg.length, dpi) - media.heightDots;
  PwgText name;
  if (pageDots(pwg.width, dpi) == media.widthDots && longer >= -1 && longer <= 1) {
    name = standard;
  } else {
    // Sizes in millimetres take the "om" class; the rest of the name stays.
    int first = 0, last = 0;
    while (standard.text[first] != '_') ++first;
    for (int i = 0; i < standard.length; ++i)
      if (standard.text[i] == '_') last = i;
    name.add("om");
    for (int i = first; i < last; ++i) name.add(standard.text[i]);
    name.add('_');
    name.addMm((media.widthDots * 2540L + dpi - 1) / dpi);
    name.add('x');
    name.addMm((media.heightDots * 2540L + dpi - 1) / dpi);
    name.add("mm");
  }
  for (int i = 0; i < 64; ++i) media.pwgName[i] = name.text[i];
  return media;
}

template <size_t N, size_t... I>
constexpr std::array<KelvoMedia, N> sizedAll(const PpdSize (&sizes)[N], int dpi, bool stencil,
                                             std::index_sequence<I...>) {
  return {{sized(sizes[I], dpi, stencil)...}};
}

// Every size of each model, made at compile time.
constexpr std::array<KelvoMedia, kNumLabelSizes> kLabels203 =
    sizedAll(kLabelSizes, 203, false, std::make_index_sequence<kNumLabelSizes>());
constexpr std::array<KelvoMedia, kNumLabelSizes> kLabels300 =
    sizedAll(kLabelSizes, 300, false, std::make_index_sequence<kNumLabelSizes>());
constexpr std::array<KelvoMedia, kNumSheetSizes> kSheets =
    sizedAll(kSheetSizes, 300, true, std::make_index_sequence<kNumSheetSizes>());

const KelvoModel kModels[] = {
    // Speeds as the PPDs offer them.
    {"kelvo_203", "Kelvo ZPL Label Printer 203dpi", 203, ZplDialect::kStandard, false, 1, 12, kLabels203.data(),
     kNumLabelSizes, "4x6"},
    {"kelvo_300", "Kelvo ZPL Label Printer 300dpi", 300, ZplDialect::kStandard, false, 1, 8, kLabels300.data(),
     kNumLabelSizes, "4x6"},
    {"kelvo_tattoo", "Kelvo ZPL Tattoo Stencil 300dpi", 300, ZplDialect::kKelvo, true, 1, 4, kSheets.data(),
     kNumSheetSizes, "A4"},
};

// Custom label sizes: from the PPDs' smallest to the print head's width
// and the PPDs' longest label.
const char kCustomMin[] = "custom_min_0.5x0.5in";
const char kCustomMax[] = "custom_max_4.09x39in";

constexpr int valueOf(KelvoHalftone h) { return static_cast<int>(h); }
constexpr int valueOf(PostAction a) { return static_cast<int>(a); }
constexpr int valueOf(GraphicEncoding e) { return static_cast<int>(e); }
// "auto" of the post actions: the printer's label mode.
constexpr int kByLabelMode = -1;

// The halftone keywords say what each method runs, as the engine names it
// (support/halftone.h). The app's first keywords copied the PPD's older
// words, which are one method off theirs ("floyd-steinberg" runs the
// ordered dither, as the PPD's FloydSteinberg does): those are still taken,
// for saved defaults and scripts, and run what they ran.
const KelvoWord kHalftones[] = {
    {"threshold", "Threshold (text and barcodes)", valueOf(KelvoHalftone::kThreshold)},
    {"ordered-4x4", "Ordered dither 4x4", valueOf(KelvoHalftone::kOrdered4x4)},
    {"burkes-diffusion", "Burkes diffusion", valueOf(KelvoHalftone::kBurkes)},
    {"stucki-diffusion", "Stucki diffusion", valueOf(KelvoHalftone::kStucki)},
    {"jarvis-judice-ninke-diffusion", "Jarvis, Judice and Ninke diffusion",
     valueOf(KelvoHalftone::kJarvisJudiceNinke)},
    {"sierra-diffusion", "Sierra diffusion", valueOf(KelvoHalftone::kSierra)},
    {"stevenson-arce-diffusion", "Stevenson and Arce diffusion", valueOf(KelvoHalftone::kStevensonArce)},
    {"bayer-ordered", "Bayer ordered dither", valueOf(KelvoHalftone::kBayer)},
    {"tattoo", "Tattoo stencil", valueOf(KelvoHalftone::kTattoo)},
    {"tattoo-x8", "Tattoo stencil X8", valueOf(KelvoHalftone::kTattooX8)},
    {"barcode-text", "Barcode and text", valueOf(KelvoHalftone::kBarcodeText)},
    {"none", nullptr, valueOf(KelvoHalftone::kThreshold)},
    {"floyd-steinberg", nullptr, valueOf(KelvoHalftone::kOrdered4x4)},
    {"ordered", nullptr, valueOf(KelvoHalftone::kBurkes)},
    {"burkes", nullptr, valueOf(KelvoHalftone::kStucki)},
    {"stucki", nullptr, valueOf(KelvoHalftone::kJarvisJudiceNinke)},
    {"jarvis-judice-ninke", nullptr, valueOf(KelvoHalftone::kSierra)},
    {"sierra", nullptr, valueOf(KelvoHalftone::kStevensonArce)},
    {"stevenson-arce", nullptr, valueOf(KelvoHalftone::kBayer)},
};
// "After printing" on the label printers; "auto" takes the printer's label
// mode (printer-label-mode-configured). A partial cut is the cutter's cut.
const KelvoWord kPostActions[] = {
    {"auto", "As the label mode says", kByLabelMode},
    {"tear-off", "Tear off", valueOf(PostAction::kTearOff)},
    {"peel-off", "Peel off", valueOf(PostAction::kPeelOff)},
    {"cut", "Cut", valueOf(PostAction::kCut)},
    {"partial-cut", "Partial cut", valueOf(PostAction::kCut)},
    {"none", "Printer setting", valueOf(PostAction::kPrinterSetting)},
};

// The graphic transfer, as the PPDs' GraphicEncoding offers it.
const KelvoWord kEncodings[] = {
    {"hex", "ASCII hex (any printer)", valueOf(GraphicEncoding::kHex)},
    {"z64", "Compressed Z64 (fewest bytes)", valueOf(GraphicEncoding::kZ64)},
    {"inline-z64", "Compressed Z64 in the label format (^GFA)", valueOf(GraphicEncoding::kInlineZ64)},
};

#define KELVO_WORDS(words) words, static_cast<int>(sizeof words / sizeof words[0])
// The Kelvo choices, in the order the web interface shows them. Defaults:
// the PPDs'; the halftone is barcodes and text on labels, the stencil chain
// on the stencil printer.
const KelvoChoice kChoices[] = {
    {"kelvo-halftone", "Halftone", KelvoChoice::kKeyword, KELVO_WORDS(kHalftones), 0, 0, "barcode-text", "tattoo"},
    // The filter adds five times the number to every pixel's ink.
    {"kelvo-brightness", "Lighter (-) or darker (+)", KelvoChoice::kRange, nullptr, 0, -100, 100, "0", "0"},
    {"kelvo-mirror", "Mirror image", KelvoChoice::kBoolean, nullptr, 0, 0, 0, "false", "false"},
    {"kelvo-negative", "Negative image", KelvoChoice::kBoolean, nullptr, 0, 0, 0, "false", "false"},
    // The PPDs' Orientation: the printer turns the label (^POI).
    {"kelvo-rotate-180", "Rotate 180 degrees", KelvoChoice::kBoolean, nullptr, 0, 0, 0, "false", "false"},
    {"kelvo-graphic-encoding", "Graphic transfer", KelvoChoice::kKeyword, KELVO_WORDS(kEncodings), 0, 0, "hex",
     "hex"},
    {"kelvo-gap-height", "Gap between labels (mm)", KelvoChoice::kRange, nullptr, 0, 0, 10, "3", nullptr},
    {"kelvo-post-action", "After printing", KelvoChoice::kKeyword, KELVO_WORDS(kPostActions), 0, 0, "auto",
     nullptr},
    // The PPD's Anti-Wrinkle Frame: solid lines around the sheet that keep
    // thin stencil paper flat, the side ones this many millimetres wide.
    {"kelvo-anti-wrinkle", "Anti-wrinkle frame (mm)", KelvoChoice::kRange, nullptr, 0, 0, 3, nullptr, "0"},
};
#undef KELVO_WORDS
constexpr int kNumChoices = sizeof kChoices / sizeof kChoices[0];

const KelvoChoice& choiceNamed(const char* name) {
  for (const KelvoChoice& choice : kChoices)
    if (std::strcmp(choice.name, name) == 0) return choice;
  std::abort();  // a name of this file's own
}

// The value of a keyword choice's `keyword`; `otherwise` for keywords it
// does not have.
int valueOfKeyword(const KelvoChoice& choice, const char* keyword, int otherwise) {
  for (int i = 0; keyword != nullptr && i < choice.numWords; ++i)
    if (std::strcmp(choice.words[i].keyword, keyword) == 0) return choice.words[i].value;
  return otherwise;
}

// The choice's "-supported" and "-default" attributes.
void addChoice(ipp_t* attrs, const KelvoChoice& choice, const char* value) {
  const std::string supported = std::string(choice.name) + "-supported";
  const std::string fallback = std::string(choice.name) + "-default";
  switch (choice.kind) {
    case KelvoChoice::kKeyword: {
      ipp_attribute_t* attr = ippAddStrings(attrs, IPP_TAG_PRINTER, IPP_CONST_TAG(IPP_TAG_KEYWORD), supported.c_str(),
                                            choice.numWords, nullptr, nullptr);
      for (int i = 0; i < choice.numWords; ++i) ippSetString(attrs, &attr, i, choice.words[i].keyword);
      ippAddString(attrs, IPP_TAG_PRINTER, IPP_CONST_TAG(IPP_TAG_KEYWORD), fallback.c_str(), nullptr, value);
      break;
    }
    case KelvoChoice::kRange:
      ippAddRange(attrs, IPP_TAG_PRINTER, supported.c_str(), choice.min, choice.max);
      ippAddInteger(attrs, IPP_TAG_PRINTER, IPP_TAG_INTEGER, fallback.c_str(), std::atoi(value));
      break;
    case KelvoChoice::kBoolean:
      ippAddBoolean(attrs, IPP_TAG_PRINTER, supported.c_str(), 1);
      ippAddBoolean(attrs, IPP_TAG_PRINTER, fallback.c_str(), std::strcmp(value, "true") == 0);
      break;
  }
}

const KelvoMedia& defaultMedia(const KelvoModel& model) {
  for (int i = 0; i < model.numMedia; ++i)
    if (std::strcmp(model.media[i].ppdName, model.defaultMedia) == 0) return model.media[i];
  return model.media[0];
}

void setMediaCol(pappl_media_col_t& col, const KelvoMedia& media, const char* source, const char* type,
                 pappl_media_tracking_t tracking) {
  const pwg_media_t* pwg = pwgMediaForPWG(media.pwgName);
  kelvoStrCpy(col.size_name, media.pwgName, sizeof col.size_name);
  col.size_width = pwg != nullptr ? pwg->width : 0;
  col.size_length = pwg != nullptr ? pwg->length : 0;
  kelvoStrCpy(col.source, source, sizeof col.source);
  kelvoStrCpy(col.type, type, sizeof col.type);
  col.tracking = tracking;
}

const char* vendorOption(const pappl_pr_options_t& options, const char* name) {
  return cupsGetOption(name, options.num_vendor, options.vendor);
}

}  // namespace

pappl_pr_driver_t kelvoDrivers[] = {
    {"kelvo_203", "Kelvo ZPL Label Printer 203dpi", nullptr, nullptr},
    {"kelvo_300", "Kelvo ZPL Label Printer 300dpi", nullptr, nullptr},
    {"kelvo_tattoo", "Kelvo ZPL Tattoo Stencil 300dpi", nullptr, nullptr},
};
const int kelvoNumDrivers = sizeof kelvoDrivers / sizeof kelvoDrivers[0];

const KelvoModel* kelvoFindModel(const char* driverName) {
  if (driverName == nullptr) return nullptr;
  for (const KelvoModel& model : kModels)
    if (std::strcmp(model.driverName, driverName) == 0) return &model;
  return nullptr;
}

const KelvoChoice* kelvoChoices(int* count) {
  *count = kNumChoices;
  return kChoices;
}

const char* kelvoChoiceWords(const char* name, const char* keyword) {
  for (const KelvoChoice& choice : kChoices)
    for (int i = 0; keyword != nullptr && std::strcmp(choice.name, name) == 0 && i < choice.numWords; ++i)
      if (std::strcmp(choice.words[i].keyword, keyword) == 0) return choice.words[i].text;
  return nullptr;
}

const char* kelvoMediaText(const KelvoModel& model, const char* pwgName) {
  for (int i = 0; pwgName != nullptr && i < model.numMedia; ++i)
    if (std::strcmp(model.media[i].pwgName, pwgName) == 0) return model.media[i].text;
  return nullptr;
}

KelvoHalftone kelvoHalftoneFromKeyword(const char* keyword) {
  return static_cast<KelvoHalftone>(
      valueOfKeyword(choiceNamed("kelvo-halftone"), keyword, valueOf(KelvoHalftone::kThreshold)));
}

bool kelvoDriverCallback(pappl_system_t* /*system*/, const char* driverName, const char* /*deviceUri*/,
                         const char* /*deviceId*/, pappl_pr_driver_data_t* data, ipp_t** attrs, void* cbdata) {
  const KelvoModel* model = kelvoFindModel(driverName);
  const auto* jobs = static_cast<const KelvoJobCallbacks*>(cbdata);
  if (model == nullptr || jobs == nullptr) return false;

  data->extension = const_cast<KelvoModel*>(model);
  data->printfile_cb = jobs->printFile;
  data->rstartjob_cb = jobs->startJob;
  data->rstartpage_cb = jobs->startPage;
  data->rwriteline_cb = jobs->writeLine;
  data->rendpage_cb = jobs->endPage;
  data->rendjob_cb = jobs->endJob;
  data->status_cb = kelvoStatusCallback;
  data->delete_cb = kelvoStatusForget;
  data->format = kKelvoZplFormat;
  kelvoStrCpy(data->make_and_model, model->description, sizeof data->make_and_model);
  data->ppm = model->stencil ? 2 : 20;
  data->kind = model->stencil ? PAPPL_KIND_DOCUMENT : PAPPL_KIND_LABEL;
  data->orient_default = IPP_ORIENT_PORTRAIT;
  data->color_supported = PAPPL_COLOR_MODE_MONOCHROME;
  data->color_default = PAPPL_COLOR_MODE_MONOCHROME;
  data->content_default = PAPPL_CONTENT_AUTO;
  data->quality_default = IPP_QUALITY_NORMAL;
  data->scaling_default = PAPPL_SCALING_AUTO;
  // The engine takes ink amounts, 0 = paper: device black, 8 bits.
  data->raster_types = PAPPL_PWG_RASTER_TYPE_BLACK_8 | PAPPL_PWG_RASTER_TYPE_SGRAY_8;
  data->force_raster_type = PAPPL_PWG_RASTER_TYPE_BLACK_8;
  data->duplex = PAPPL_DUPLEX_NONE;
  data->sides_supported = PAPPL_SIDES_ONE_SIDED;
  data->sides_default = PAPPL_SIDES_ONE_SIDED;
  data->num_resolution = 1;
  data->x_resolution[0] = data->y_resolution[0] = model->dpi;
  data->x_default = data->y_default = model->dpi;
  // Margins of 0 are borderless already; PAPPL would list 0 twice.
  data->borderless = false;
  data->left_right = 0;
  data->bottom_top = 0;

  data->num_media = 0;
  for (int i = 0; i < model->numMedia; ++i) data->media[data->num_media++] = model->media[i].pwgName;
  if (!model->stencil) {
    data->media[data->num_media++] = kCustomMin;
    data->media[data->num_media++] = kCustomMax;
  }
  data->num_source = 1;
  data->source[0] = model->stencil ? "main" : "main-roll";
  data->num_type = model->stencil ? 1 : 2;
  data->type[0] = "direct-thermal";
  data->type[1] = "thermal-transfer";
  data->tracking_supported = model->stencil ? PAPPL_MEDIA_TRACKING_CONTINUOUS | PAPPL_MEDIA_TRACKING_WEB
                                            : PAPPL_MEDIA_TRACKING_GAP | PAPPL_MEDIA_TRACKING_MARK |
                                                  PAPPL_MEDIA_TRACKING_CONTINUOUS;
  const pappl_media_tracking_t tracking = model->stencil ? PAPPL_MEDIA_TRACKING_WEB : PAPPL_MEDIA_TRACKING_GAP;
  setMediaCol(data->media_default, defaultMedia(*model), data->source[0], "direct-thermal", tracking);
  data->media_ready[0] = data->media_default;

  if (!model->stencil) {
    data->mode_supported = PAPPL_LABEL_MODE_TEAR_OFF | PAPPL_LABEL_MODE_PEEL_OFF | PAPPL_LABEL_MODE_CUTTER;
    data->mode_configured = PAPPL_LABEL_MODE_TEAR_OFF;
  }
  // Hundredths of a millimetre a second; 0 leaves the printer's speed.
  data->speed_supported[0] = model->speedMin * 2540;
  data->speed_supported[1] = model->speedMax * 2540;
  data->speed_default = 0;
  // 31 levels, ZPL's ~SD0 to ~SD30.
  data->darkness_supported = 31;
  data->darkness_configured = 50;
  data->darkness_default = 0;

  data->num_vendor = 0;
  ipp_t* vendor = ippNew();
  for (const KelvoChoice& choice : kChoices) {
    const char* value = model->stencil ? choice.stencilDefault : choice.labelDefault;
    if (value == nullptr) continue;
    data->vendor[data->num_vendor++] = choice.name;
    addChoice(vendor, choice, value);
  }
  // Grey pages have no colour rendering to choose.
  ippAddString(vendor, IPP_TAG_PRINTER, IPP_CONST_TAG(IPP_TAG_KEYWORD), "print-rendering-intent-supported", nullptr,
               "auto");
  ippAddString(vendor, IPP_TAG_PRINTER, IPP_CONST_TAG(IPP_TAG_KEYWORD), "print-rendering-intent-default", nullptr,
               "auto");
  // A host can make a ZPL printer neither show a message nor flash or sound;
  // PAPPL says "none" for the default, and this says it for the choices.
  ippAddString(vendor, IPP_TAG_PRINTER, IPP_CONST_TAG(IPP_TAG_KEYWORD), "identify-actions-supported", nullptr,
               "none");
  // One-sided printers print no back sides; a client that asks gets the
  // orientation that turns nothing.
  ippAddString(vendor, IPP_TAG_PRINTER, IPP_CONST_TAG(IPP_TAG_KEYWORD), "pwg-raster-document-sheet-back", nullptr,
               "normal");
  // Clients may send every attribute with the job; none is preferred.
  ippAddBoolean(vendor, IPP_TAG_PRINTER, "preferred-attributes-supported", 0);
  *attrs = vendor;
  return true;
}

const char* kelvoDetectFormat(const unsigned char* header, size_t size, void* /*data*/) {
  // Line feeds and spaces may come first (the filter sends 64 line feeds).
  size_t i = 0;
  while (i < size && (header[i] == '\n' || header[i] == '\r' || header[i] == ' ' || header[i] == '\t')) ++i;
  if (i + 3 <= size && (header[i] == '^' || header[i] == '~') &&
      (std::memcmp(header + i + 1, "XA", 2) == 0 || std::memcmp(header + i + 1, "XX", 2) == 0 ||
       std::memcmp(header + i + 1, "DG", 2) == 0))
    return kKelvoZplFormat;
  return nullptr;
}

KelvoJobSettings kelvoSettingsFromOptions(const KelvoModel& model, const pappl_pr_options_t& options,
                                          pappl_label_mode_t mode) {
  KelvoJobSettings settings;
  settings.dialect = model.dialect;
  settings.encoding = static_cast<GraphicEncoding>(valueOfKeyword(
      choiceNamed("kelvo-graphic-encoding"), vendorOption(options, "kelvo-graphic-encoding"), valueOf(GraphicEncoding::kHex)));

  settings.printMethod = !model.stencil && std::strcmp(options.media.type, "thermal-transfer") == 0
                             ? PrintMethod::kThermalTransfer
                             : PrintMethod::kDirectThermal;
  const pappl_media_tracking_t tracking = options.media.tracking;
  if (tracking == PAPPL_MEDIA_TRACKING_CONTINUOUS)
    settings.tracking = MediaTracking::kContinuous;
  else if (model.stencil)
    settings.tracking = MediaTracking::kPrinterSetting;
  else
    settings.tracking = tracking == PAPPL_MEDIA_TRACKING_MARK ? MediaTracking::kMarks : MediaTracking::kGaps;

  const char* gap = vendorOption(options, "kelvo-gap-height");
  settings.gapMm = model.stencil ? 0 : gap != nullptr ? std::atoi(gap) : 3;

  settings.postAction = PostAction::kPrinterSetting;
  if (!model.stencil) {
    const int chosen =
        valueOfKeyword(choiceNamed("kelvo-post-action"), vendorOption(options, "kelvo-post-action"), kByLabelMode);
    settings.postAction = chosen != kByLabelMode             ? static_cast<PostAction>(chosen)
                          : mode == PAPPL_LABEL_MODE_PEEL_OFF ? PostAction::kPeelOff
                          : mode == PAPPL_LABEL_MODE_CUTTER   ? PostAction::kCut
                                                              : PostAction::kTearOff;
  }

  if (options.print_speed > 0) {
    const int inches = (options.print_speed + 1270) / 2540;
    settings.speed = inches < model.speedMin ? model.speedMin : inches > model.speedMax ? model.speedMax : inches;
  }
  // printer-darkness-configured (0-100) moved by the job's print-darkness
  // (-100-100), in ZPL's 31 steps.
  int darkness = options.darkness_configured + options.print_darkness;
  darkness = darkness < 0 ? 0 : darkness > 100 ? 100 : darkness;
  settings.darkness = (darkness * 30 + 50) / 100;

  const KelvoChoice& halftone = choiceNamed("kelvo-halftone");
  const char* chosen = vendorOption(options, "kelvo-halftone");
  settings.halftone = kelvoHalftoneFromKeyword(chosen != nullptr ? chosen
                                               : model.stencil    ? halftone.stencilDefault
                                                                  : halftone.labelDefault);
  const char* brightness = vendorOption(options, "kelvo-brightness");
  settings.brightness = brightness != nullptr ? std::atoi(brightness) : 0;
  const char* mirror = vendorOption(options, "kelvo-mirror");
  settings.mirror = mirror != nullptr && std::strcmp(mirror, "true") == 0;
  const char* negative = vendorOption(options, "kelvo-negative");
  settings.negative = negative != nullptr && std::strcmp(negative, "true") == 0;
  const char* rotate = vendorOption(options, "kelvo-rotate-180");
  settings.turnLabel = rotate != nullptr && std::strcmp(rotate, "true") == 0;
  const char* frame = vendorOption(options, "kelvo-anti-wrinkle");
  const int frameMm = model.stencil && frame != nullptr ? std::atoi(frame) : 0;
  settings.antiWrinkleMm = frameMm < 0 ? 0 : frameMm > 3 ? 3 : frameMm;
  return settings;
}
