#include "app/drivers.h"

#include <cmath>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "app/job.h"
#include "app/printer_status.h"
#include "support/halftone_type.h"
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
const PpdSize kLabelSizes[] = {
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
const PpdSize kSheetSizes[] = {
    {"A4", "A4", 595.28f, 841.89f},
    {"Letter", "Letter", 612, 792},
    {"Tattoo_A5", "Tattoo A5 (Landscape)", 595.28f, 420},
    {"Tattoo_A6", "Tattoo A6", 297.64f, 420},
};
constexpr int kNumLabelSizes = sizeof kLabelSizes / sizeof kLabelSizes[0];
constexpr int kNumSheetSizes = sizeof kSheetSizes / sizeof kSheetSizes[0];

KelvoMedia sLabels203[kNumLabelSizes];
KelvoMedia sLabels300[kNumLabelSizes];
KelvoMedia sSheets[kNumSheetSizes];

const KelvoModel kModels[] = {
    // Speeds as the PPDs offer them.
    {"kelvo_203", "Kelvo ZPL Label Printer 203dpi", 203, kDialectStandard, false, 1, 12, sLabels203, kNumLabelSizes,
     "4x6"},
    {"kelvo_300", "Kelvo ZPL Label Printer 300dpi", 300, kDialectStandard, false, 1, 8, sLabels300, kNumLabelSizes,
     "4x6"},
    {"kelvo_tattoo", "Kelvo ZPL Tattoo Stencil 300dpi", 300, kDialectKelvo, true, 1, 4, sSheets, kNumSheetSizes, "A4"},
};
const PpdSize* const kModelSizes[] = {kLabelSizes, kLabelSizes, kSheetSizes};

// Custom label sizes: from the PPDs' smallest to the print head's width
// and the PPDs' longest label.
const char kCustomMin[] = "custom_min_0.5x0.5in";
const char kCustomMax[] = "custom_max_4.09x39in";

// The halftone keywords say what each method runs; each stands for the PPD
// word that runs it, so a job prints what the filter prints for that word.
// The PPD's words are one method off their methods ("FloydSteinberg" runs
// the ordered dither), and the app's first keywords copied them: those are
// still taken, for saved defaults and scripts, and run what they ran.
const KelvoWord kHalftones[] = {
    {"threshold", "Threshold (text and barcodes)", "None"},
    {"ordered-4x4", "Ordered dither 4x4", "FloydSteinberg"},
    {"burkes-diffusion", "Burkes diffusion", "Ordered"},
    {"stucki-diffusion", "Stucki diffusion", "Burkes"},
    {"jarvis-judice-ninke-diffusion", "Jarvis, Judice and Ninke diffusion", "Stucki"},
    {"sierra-diffusion", "Sierra diffusion", "JarvisJudiceNinke"},
    {"stevenson-arce-diffusion", "Stevenson and Arce diffusion", "Sierra"},
    {"bayer-ordered", "Bayer ordered dither", "StevensonArce"},
    {"tattoo", "Tattoo stencil", "Tattoo"},
    {"tattoo-x8", "Tattoo stencil X8", "Tattoo_X8"},
    {"barcode-text", "Barcode and text", "BarcodeText"},
    {"none", nullptr, "None"},
    {"floyd-steinberg", nullptr, "FloydSteinberg"},
    {"ordered", nullptr, "Ordered"},
    {"burkes", nullptr, "Burkes"},
    {"stucki", nullptr, "Stucki"},
    {"jarvis-judice-ninke", nullptr, "JarvisJudiceNinke"},
    {"sierra", nullptr, "Sierra"},
    {"stevenson-arce", nullptr, "StevensonArce"},
};
// "After printing" on the label printers; "auto" takes the printer's label
// mode (printer-label-mode-configured).
const KelvoWord kPostActions[] = {
    {"auto", "As the label mode says", nullptr}, {"tear-off", "Tear off", "TearOff"},
    {"peel-off", "Peel off", "PeelOff"},         {"cut", "Cut", "Cut"},
    {"partial-cut", "Partial cut", "PartialCut"}, {"none", "Printer setting", "None"},
};

// The graphic transfer, as the PPDs' GraphicEncoding offers it.
const KelvoWord kEncodings[] = {
    {"hex", "ASCII hex (any printer)", "Hex"},
    {"z64", "Compressed Z64 (fewest bytes)", "Z64"},
    {"inline-z64", "Compressed Z64 in the label format (^GFA)", "InlineZ64"},
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
};
#undef KELVO_WORDS
constexpr int kNumChoices = sizeof kChoices / sizeof kChoices[0];

const KelvoChoice& choiceNamed(const char* name) {
  for (const KelvoChoice& choice : kChoices)
    if (std::strcmp(choice.name, name) == 0) return choice;
  std::abort();  // a name of this file's own
}

// The value of a keyword choice's PPD word for `keyword`; null for keywords
// it does not have.
const char* ppdWordOf(const KelvoChoice& choice, const char* keyword) {
  for (int i = 0; keyword != nullptr && i < choice.numWords; ++i)
    if (std::strcmp(choice.words[i].keyword, keyword) == 0) return choice.words[i].ppd;
  return nullptr;
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

int dotsOf(float points, int dpi) { return static_cast<int>(std::lround(points * dpi / 72.0)); }
// PAPPL makes a page of size*dpi/2540 dots, rounded down.
int pageDots(int hundredthsMm, int dpi) { return hundredthsMm * dpi / 2540; }

// "50.55" for 5055 hundredths, "25.4" for 2540.
std::string formatMm(int hundredths) {
  std::string text = std::to_string(hundredths / 100);
  const int rest = hundredths % 100;
  if (rest != 0) text += "." + std::to_string(rest / 10) + (rest % 10 != 0 ? std::to_string(rest % 10) : "");
  return text;
}

// A PPD size at the model's resolution. Label widths are a whole multiple
// of 4 dots (the graphic sender needs that), so most of them are a
// fraction of a millimetre narrower than their name.
void sizeMedia(KelvoMedia& media, const PpdSize& size, int dpi) {
  media.ppdName = size.name;
  media.text = size.text;
  media.widthDots = dotsOf(size.widthPt, dpi) / 4 * 4;
  media.heightDots = dotsOf(size.heightPt, dpi);
  media.widthPt = media.widthDots * 72.0 / dpi;
  media.heightPt = media.heightDots * 72.0 / dpi;
}

// The PWG name clients see for a size. The standard name when PAPPL makes
// the PPD's page from it (same width, at most a row shorter or longer);
// otherwise a self-describing name in millimetres that does.
void nameMedia(KelvoMedia& media, const KelvoModel& model) {
  const int width = media.widthDots;
  const int height = media.heightDots;
  std::string standard;
  if (model.stencil) {
    const std::string word = media.ppdName;
    standard = word == "A4"          ? "iso_a4_210x297mm"
               : word == "Letter"    ? "na_letter_8.5x11in"
               : word == "Tattoo_A5" ? "iso_a5_210x148mm"
                                     : "iso_a6_105x148mm";
  } else {
    // A size name has no dots: "2.25x1.25" is named "2-25x1-25", and
    // "40x30mm" "40x30".
    std::string word = media.ppdName;
    std::string units = "in";
    if (word.size() > 2 && word.compare(word.size() - 2, 2, "mm") == 0) {
      word.resize(word.size() - 2);
      units = "mm";
    }
    std::string name = word;
    for (char& c : name) c = c == '.' ? '-' : c;
    standard = (units == "mm" ? "om_" : "oe_") + name + "-label_" + word + units;
  }
  // Sizes in millimetres take the "om" class; the rest of the name stays.
  std::string prefix = standard.substr(0, standard.rfind('_'));
  prefix = "om" + prefix.substr(prefix.find('_'));
  if (const pwg_media_t* pwg = pwgMediaForPWG(standard.c_str())) {
    if (pageDots(pwg->width, model.dpi) == width && std::abs(pageDots(pwg->length, model.dpi) - height) <= 1) {
      kelvoStrCpy(media.pwgName, standard.c_str(), sizeof media.pwgName);
      return;
    }
  }
  const std::string name = prefix + "_" + formatMm((width * 2540 + model.dpi - 1) / model.dpi) + "x" +
                           formatMm((height * 2540 + model.dpi - 1) / model.dpi) + "mm";
  kelvoStrCpy(media.pwgName, name.c_str(), sizeof media.pwgName);
}

// Once, before any thread reads the tables.
void nameAllMedia() {
  static std::once_flag named;
  std::call_once(named, [] {
    for (size_t m = 0; m < sizeof kModels / sizeof kModels[0]; ++m) {
      const KelvoModel& model = kModels[m];
      for (int i = 0; i < model.numMedia; ++i) {
        sizeMedia(model.media[i], kModelSizes[m][i], model.dpi);
        nameMedia(model.media[i], model);
      }
    }
  });
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
  nameAllMedia();
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

DitherType kelvoHalftoneFromKeyword(const char* keyword) {
  const char* word = ppdWordOf(choiceNamed("kelvo-halftone"), keyword);
  return word != nullptr ? kelvoHalftoneTypeFromStr(word) : None;
}

bool kelvoDriverCallback(pappl_system_t* /*system*/, const char* driverName, const char* /*deviceUri*/,
                         const char* /*deviceId*/, pappl_pr_driver_data_t* data, ipp_t** attrs, void* /*cbdata*/) {
  const KelvoModel* model = kelvoFindModel(driverName);
  if (model == nullptr) return false;

  data->extension = const_cast<KelvoModel*>(model);
  data->printfile_cb = kelvoPrintFile;
  data->rstartjob_cb = kelvoStartJob;
  data->rstartpage_cb = kelvoStartPage;
  data->rwriteline_cb = kelvoWriteLine;
  data->rendpage_cb = kelvoEndPage;
  data->rendjob_cb = kelvoEndJob;
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
  data->borderless = true;
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

void kelvoSettingsFromOptions(const KelvoModel& model, const pappl_pr_options_t& options, pappl_label_mode_t mode,
                              Settings* settings) {
  std::memset(settings, 0, sizeof *settings);
  std::snprintf(settings->Resolution, sizeof settings->Resolution, "%ddpi", model.dpi);
  kelvoStrCpy(settings->Occurrence, "EveryLabel", sizeof settings->Occurrence);
  settings->dialect = model.dialect;
  settings->encoding = kEncodingHex;
  // As the filter reads the PPD's word.
  if (const char* word = ppdWordOf(choiceNamed("kelvo-graphic-encoding"),
                                   vendorOption(options, "kelvo-graphic-encoding")))
    settings->encoding = std::strcmp(word, "Z64") == 0         ? kEncodingZ64
                         : std::strcmp(word, "InlineZ64") == 0 ? kEncodingInlineZ64
                                                               : kEncodingHex;

  kelvoStrCpy(settings->MediaMethod, !model.stencil && std::strcmp(options.media.type, "thermal-transfer") == 0
                                         ? "Transfer"
                                         : "Direct",
              sizeof settings->MediaMethod);
  const char* paper = "LabelGaps";
  if (model.stencil)
    paper = options.media.tracking == PAPPL_MEDIA_TRACKING_CONTINUOUS ? "Continue" : "Normal";
  else if (options.media.tracking == PAPPL_MEDIA_TRACKING_MARK)
    paper = "LabelMark";
  else if (options.media.tracking == PAPPL_MEDIA_TRACKING_CONTINUOUS)
    paper = "Continue";
  kelvoStrCpy(settings->PaperType, paper, sizeof settings->PaperType);

  const char* gap = vendorOption(options, "kelvo-gap-height");
  settings->GapsHeight = model.stencil ? 0 : gap != nullptr ? std::atoi(gap) : 3;

  const char* post = "None";
  if (!model.stencil) {
    post = mode == PAPPL_LABEL_MODE_PEEL_OFF ? "PeelOff" : mode == PAPPL_LABEL_MODE_CUTTER ? "Cut" : "TearOff";
    if (const char* chosen = ppdWordOf(choiceNamed("kelvo-post-action"), vendorOption(options, "kelvo-post-action")))
      post = chosen;
  }
  kelvoStrCpy(settings->PostAction, post, sizeof settings->PostAction);

  if (options.print_speed <= 0) {
    kelvoStrCpy(settings->PrintSpeed, "Normal", sizeof settings->PrintSpeed);
  } else {
    int inches = (options.print_speed + 1270) / 2540;
    inches = inches < model.speedMin ? model.speedMin : inches > model.speedMax ? model.speedMax : inches;
    std::snprintf(settings->PrintSpeed, sizeof settings->PrintSpeed, "%d", inches);
  }
  // printer-darkness-configured (0-100) moved by the job's print-darkness
  // (-100-100), in ZPL's 31 steps.
  int darkness = options.darkness_configured + options.print_darkness;
  darkness = darkness < 0 ? 0 : darkness > 100 ? 100 : darkness;
  settings->Darkness = (darkness * 30 + 50) / 100;

  const KelvoChoice& halftone = choiceNamed("kelvo-halftone");
  const char* chosen = vendorOption(options, "kelvo-halftone");
  settings->halftoneType = kelvoHalftoneFromKeyword(chosen != nullptr ? chosen
                                                    : model.stencil ? halftone.stencilDefault
                                                                    : halftone.labelDefault);
  const char* brightness = vendorOption(options, "kelvo-brightness");
  settings->Brightness = brightness != nullptr ? std::atoi(brightness) : 0;
  const char* mirror = vendorOption(options, "kelvo-mirror");
  settings->MirrorImage = mirror != nullptr && std::strcmp(mirror, "true") == 0 ? 1 : 0;
  const char* negative = vendorOption(options, "kelvo-negative");
  settings->NegativeImage = negative != nullptr && std::strcmp(negative, "true") == 0 ? 1 : 0;
  const char* rotate = vendorOption(options, "kelvo-rotate-180");
  kelvoStrCpy(settings->Origin, rotate != nullptr && std::strcmp(rotate, "true") == 0 ? "Rotation180" : "Normal",
              sizeof settings->Origin);
  settings->DebugImages = 0;
}
