#include "app/drivers.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include "app/job.h"
#include "support/kelvo_string.h"

namespace {

// The PPDs' sizes. Label widths are a whole multiple of 4 dots at the
// model's resolution (the graphic sender needs that), so most of them are a
// fraction of a millimetre narrower than their name.
KelvoMedia sLabels203[] = {
    {"2x1", 143.29f, 72, {}},  {"2.25x1.25", 161.73f, 90, {}}, {"3x2", 215.65f, 144, {}},
    {"4x2", 288, 144, {}},     {"4x3", 288, 216, {}},          {"4x4", 288, 288, {}},
    {"4x6", 288, 432, {}},     {"4x8", 288, 576, {}},
};
KelvoMedia sLabels300[] = {
    {"2x1", 144, 72, {}},  {"2.25x1.25", 161.28f, 90, {}}, {"3x2", 216, 144, {}}, {"4x2", 288, 144, {}},
    {"4x3", 288, 216, {}}, {"4x4", 288, 288, {}},          {"4x6", 288, 432, {}}, {"4x8", 288, 576, {}},
};
KelvoMedia sSheets[] = {
    {"A4", 595.28f, 841.89f, {}},
    {"Letter", 611.52f, 792, {}},
    {"Tattoo_A5", 595.28f, 420, {}},
    {"Tattoo_A6", 297.64f, 420, {}},
};

const KelvoModel kModels[] = {
    // Speeds as the PPDs offer them.
    {"kelvo_203", "Kelvo ZPL Label Printer 203dpi", 203, kDialectStandard, false, 1, 12, sLabels203, 8, 6},
    {"kelvo_300", "Kelvo ZPL Label Printer 300dpi", 300, kDialectStandard, false, 1, 8, sLabels300, 8, 6},
    {"kelvo_tattoo", "Kelvo ZPL Tattoo Stencil 300dpi", 300, kDialectKelvo, true, 1, 4, sSheets, 4, 0},
};

// IPP keywords of the halftone methods, in DitherType order. Each stands for
// the PPD word of the same value, so a job prints what the filter prints
// for that word.
const char* const kHalftones[] = {"none",   "floyd-steinberg", "ordered",        "burkes",    "stucki",
                                  "jarvis-judice-ninke", "sierra", "stevenson-arce", "tattoo", "tattoo-x8",
                                  "barcode-text"};
// The label printers' "after printing" choices and the PPD word of each;
// "auto" takes the printer's label mode (printer-label-mode-configured).
const char* const kPostActions[][2] = {{"auto", nullptr},           {"tear-off", "TearOff"}, {"peel-off", "PeelOff"},
                                       {"cut", "Cut"},              {"partial-cut", "PartialCut"},
                                       {"none", "None"}};
const int kNumPostActions = sizeof kPostActions / sizeof kPostActions[0];

// What the PPDs default to: barcodes and text on labels, the stencil chain
// on the stencil printer.
const char* defaultHalftone(bool stencil) { return stencil ? "tattoo" : "barcode-text"; }

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

// The PWG name clients see for a size. The standard name when PAPPL makes
// the PPD's page from it (same width, at most a row shorter or longer);
// otherwise a self-describing name in millimetres that does.
void nameMedia(KelvoMedia& media, const KelvoModel& model) {
  const int width = dotsOf(media.widthPt, model.dpi);
  const int height = dotsOf(media.heightPt, model.dpi);
  std::string standard;
  if (model.stencil) {
    const std::string word = media.ppdName;
    standard = word == "A4"          ? "iso_a4_210x297mm"
               : word == "Letter"    ? "na_letter_8.5x11in"
               : word == "Tattoo_A5" ? "iso_a5_210x148mm"
                                     : "iso_a6_105x148mm";
  } else {
    // A size name has no dots: "2.25x1.25" is named "2-25x1-25".
    std::string word = media.ppdName;
    for (char& c : word) c = c == '.' ? '-' : c;
    standard = "oe_" + word + "-label_" + media.ppdName + "in";
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

void nameAllMedia() {
  static bool named = false;
  if (named) return;
  for (const KelvoModel& model : kModels)
    for (int i = 0; i < model.numMedia; ++i) nameMedia(model.media[i], model);
  named = true;
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

DitherType kelvoHalftoneFromKeyword(const char* keyword) {
  if (keyword != nullptr)
    for (int i = 0; i < static_cast<int>(sizeof kHalftones / sizeof kHalftones[0]); ++i)
      if (std::strcmp(kHalftones[i], keyword) == 0) return static_cast<DitherType>(i);
  return None;
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

  data->num_media = model->numMedia;
  for (int i = 0; i < model->numMedia; ++i) data->media[i] = model->media[i].pwgName;
  data->num_source = 1;
  data->source[0] = model->stencil ? "main" : "main-roll";
  data->num_type = model->stencil ? 1 : 2;
  data->type[0] = "direct-thermal";
  data->type[1] = "thermal-transfer";
  data->tracking_supported = model->stencil ? PAPPL_MEDIA_TRACKING_CONTINUOUS | PAPPL_MEDIA_TRACKING_WEB
                                            : PAPPL_MEDIA_TRACKING_GAP | PAPPL_MEDIA_TRACKING_MARK |
                                                  PAPPL_MEDIA_TRACKING_CONTINUOUS;
  const pappl_media_tracking_t tracking = model->stencil ? PAPPL_MEDIA_TRACKING_WEB : PAPPL_MEDIA_TRACKING_GAP;
  setMediaCol(data->media_default, model->media[model->defaultMedia], data->source[0], "direct-thermal", tracking);
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
  data->vendor[data->num_vendor++] = "kelvo-halftone";
  data->vendor[data->num_vendor++] = "kelvo-brightness";
  data->vendor[data->num_vendor++] = "kelvo-mirror";
  data->vendor[data->num_vendor++] = "kelvo-negative";
  data->vendor[data->num_vendor++] = "kelvo-rotate-180";
  if (!model->stencil) {
    data->vendor[data->num_vendor++] = "kelvo-gap-height";
    data->vendor[data->num_vendor++] = "kelvo-post-action";
  }

  ipp_t* vendor = ippNew();
  ippAddStrings(vendor, IPP_TAG_PRINTER, IPP_CONST_TAG(IPP_TAG_KEYWORD), "kelvo-halftone-supported",
                static_cast<int>(sizeof kHalftones / sizeof kHalftones[0]), nullptr, kHalftones);
  ippAddString(vendor, IPP_TAG_PRINTER, IPP_CONST_TAG(IPP_TAG_KEYWORD), "kelvo-halftone-default", nullptr,
               defaultHalftone(model->stencil));
  ippAddRange(vendor, IPP_TAG_PRINTER, "kelvo-brightness-supported", -100, 100);
  ippAddInteger(vendor, IPP_TAG_PRINTER, IPP_TAG_INTEGER, "kelvo-brightness-default", 0);
  ippAddBoolean(vendor, IPP_TAG_PRINTER, "kelvo-mirror-supported", 1);
  ippAddBoolean(vendor, IPP_TAG_PRINTER, "kelvo-mirror-default", 0);
  ippAddBoolean(vendor, IPP_TAG_PRINTER, "kelvo-negative-supported", 1);
  ippAddBoolean(vendor, IPP_TAG_PRINTER, "kelvo-negative-default", 0);
  // The PPDs' Orientation: the printer turns the label (^POI).
  ippAddBoolean(vendor, IPP_TAG_PRINTER, "kelvo-rotate-180-supported", 1);
  ippAddBoolean(vendor, IPP_TAG_PRINTER, "kelvo-rotate-180-default", 0);
  if (!model->stencil) {
    ippAddRange(vendor, IPP_TAG_PRINTER, "kelvo-gap-height-supported", 0, 10);
    ippAddInteger(vendor, IPP_TAG_PRINTER, IPP_TAG_INTEGER, "kelvo-gap-height-default", 3);
    ipp_attribute_t* post = ippAddString(vendor, IPP_TAG_PRINTER, IPP_CONST_TAG(IPP_TAG_KEYWORD),
                                         "kelvo-post-action-supported", nullptr, kPostActions[0][0]);
    for (int i = 1; i < kNumPostActions; ++i) ippSetString(vendor, &post, i, kPostActions[i][0]);
    ippAddString(vendor, IPP_TAG_PRINTER, IPP_CONST_TAG(IPP_TAG_KEYWORD), "kelvo-post-action-default", nullptr,
                 kPostActions[0][0]);
  }
  // Grey pages have no colour rendering to choose.
  ippAddString(vendor, IPP_TAG_PRINTER, IPP_CONST_TAG(IPP_TAG_KEYWORD), "print-rendering-intent-supported", nullptr,
               "auto");
  ippAddString(vendor, IPP_TAG_PRINTER, IPP_CONST_TAG(IPP_TAG_KEYWORD), "print-rendering-intent-default", nullptr,
               "auto");
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
    const char* chosen = vendorOption(options, "kelvo-post-action");
    for (int i = 1; chosen != nullptr && i < kNumPostActions; ++i)
      if (std::strcmp(chosen, kPostActions[i][0]) == 0) post = kPostActions[i][1];
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

  settings->halftoneType =
      kelvoHalftoneFromKeyword(vendorOption(options, "kelvo-halftone") != nullptr
                                   ? vendorOption(options, "kelvo-halftone")
                                   : defaultHalftone(model.stencil));
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
