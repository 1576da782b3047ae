#include "app/drivers.h"

#include <cstdlib>
#include <cstring>

#include "support/kelvo_string.h"

namespace {

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

// The size in dots of a PPD size in points, rounded as lround does.
constexpr int dotsOf(float points, int dpi) {
  return static_cast<int>(static_cast<double>(points * static_cast<float>(dpi)) / 72.0 + 0.5);
}
// PAPPL makes a page of size*dpi/2540 dots, rounded down.
constexpr int pageDots(long hundredthsMm, int dpi) { return static_cast<int>(hundredthsMm * dpi / 2540); }

// A decimal number of `unit`s ("2.25" inches) in hundredths of a millimetre,
// as a PWG name's size reads; `end` ends it.
constexpr long hundredthsOf(const char* text, char end, long unit) {
  long number = 0, divisor = 1;
  bool fraction = false;
  for (; *text != end && *text != '\0'; ++text) {
    if (*text == '.') {
      fraction = true;
    } else {
      number = number * 10 + (*text - '0');
      if (fraction) divisor *= 10;
    }
  }
  return number * unit / divisor;
}

// A size clients see: the PWG name `standard` (its size in hundredths of a
// millimetre with it) when PAPPL makes the PPD's page from it (same width,
// at most a row shorter or longer); otherwise a self-describing name in
// millimetres of the same class word that does.
constexpr KelvoMedia media(const char* ppdName, float widthPt, float heightPt, int dpi, const char* standard,
                           long standardWidth, long standardLength) {
  KelvoMedia m{ppdName, widthPt, heightPt, {}};
  const int width = dotsOf(widthPt, dpi), height = dotsOf(heightPt, dpi);
  const int lengthDifference = pageDots(standardLength, dpi) - height;
  PwgText name;
  if (pageDots(standardWidth, dpi) == width && lengthDifference >= -1 && lengthDifference <= 1) {
    name.add(standard);
  } else {
    // "om" and the standard name's own word, up to its size.
    name.add("om");
    int last = 0;
    for (int i = 0; standard[i] != '\0'; ++i)
      if (standard[i] == '_') last = i;
    int first = 0;
    while (standard[first] != '_') ++first;
    for (int i = first; i < last; ++i) name.add(standard[i]);
    name.add('_');
    name.addMm((width * 2540L + dpi - 1) / dpi);
    name.add('x');
    name.addMm((height * 2540L + dpi - 1) / dpi);
    name.add("mm");
  }
  for (int i = 0; i < 64; ++i) m.pwgName[i] = name.text[i];
  return m;
}

// A label size of the PPDs ("2.25x1.25", inches): its standard name is
// "oe_2-25x1-25-label_2.25x1.25in".
constexpr KelvoMedia label(const char* ppdName, float widthPt, float heightPt, int dpi) {
  PwgText standard;
  standard.add("oe_");
  for (const char* c = ppdName; *c != '\0'; ++c) standard.add(*c == '.' ? '-' : *c);
  standard.add("-label_");
  standard.add(ppdName);
  standard.add("in");
  const char* x = ppdName;
  while (*x != 'x') ++x;
  return media(ppdName, widthPt, heightPt, dpi, standard.text, hundredthsOf(ppdName, 'x', 2540),
               hundredthsOf(x + 1, '\0', 2540));
}

// The PPDs' sizes. Label widths are a whole multiple of 4 dots at the
// model's resolution (the graphic sender needs that), so most of them are a
// fraction of a millimetre narrower than their name.
constexpr KelvoMedia kLabels203[] = {
    label("2x1", 143.29f, 72, 203), label("2.25x1.25", 161.73f, 90, 203), label("3x2", 215.65f, 144, 203),
    label("4x2", 288, 144, 203),    label("4x3", 288, 216, 203),          label("4x4", 288, 288, 203),
    label("4x6", 288, 432, 203),    label("4x8", 288, 576, 203),
};
constexpr KelvoMedia kLabels300[] = {
    label("2x1", 144, 72, 300), label("2.25x1.25", 161.28f, 90, 300), label("3x2", 216, 144, 300),
    label("4x2", 288, 144, 300), label("4x3", 288, 216, 300),         label("4x4", 288, 288, 300),
    label("4x6", 288, 432, 300), label("4x8", 288, 576, 300),
};
constexpr KelvoMedia kSheets[] = {
    media("A4", 595.28f, 841.89f, 300, "iso_a4_210x297mm", 21000, 29700),
    media("Letter", 611.52f, 792, 300, "na_letter_8.5x11in", 21590, 27940),
    media("Tattoo_A5", 595.28f, 420, 300, "iso_a5_210x148mm", 21000, 14800),
    media("Tattoo_A6", 297.64f, 420, 300, "iso_a6_105x148mm", 10500, 14800),
};

const KelvoModel kModels[] = {
    // Speeds as the PPDs offer them.
    {"kelvo_203", "Kelvo ZPL Label Printer 203dpi", 203, ZplDialect::kStandard, false, 1, 12, kLabels203, 8, 6},
    {"kelvo_300", "Kelvo ZPL Label Printer 300dpi", 300, ZplDialect::kStandard, false, 1, 8, kLabels300, 8, 6},
    {"kelvo_tattoo", "Kelvo ZPL Tattoo Stencil 300dpi", 300, ZplDialect::kKelvo, true, 1, 4, kSheets, 4, 0},
};

// IPP keywords of the halftone methods, in the order of the PPD's words.
// Each stands for the PPD word of the same place, so a job prints what the
// filter prints for that word.
const char* const kHalftones[] = {"none",   "floyd-steinberg", "ordered",        "burkes",    "stucki",
                                  "jarvis-judice-ninke", "sierra", "stevenson-arce", "tattoo", "tattoo-x8",
                                  "barcode-text"};
// The label printers' "after printing" choices; "auto" takes the printer's
// label mode (printer-label-mode-configured).
const struct {
  const char* keyword;
  PostAction action;
} kPostActions[] = {{"auto", PostAction::kTearOff},     {"tear-off", PostAction::kTearOff},
                    {"peel-off", PostAction::kPeelOff}, {"cut", PostAction::kCut},
                    {"partial-cut", PostAction::kCut},  {"none", PostAction::kPrinterSetting}};
const int kNumPostActions = sizeof kPostActions / sizeof kPostActions[0];
// The graphic transfer, as the PPDs' GraphicEncoding offers it: hex (any
// printer), the Z64 download, Z64 inline in the format (^GFA).
const char* const kEncodings[] = {"hex", "z64", "inline-z64"};
const GraphicEncoding kEncodingValues[] = {GraphicEncoding::kHex, GraphicEncoding::kZ64, GraphicEncoding::kInlineZ64};
const int kNumEncodings = sizeof kEncodings / sizeof kEncodings[0];

// What the PPDs default to: barcodes and text on labels, the stencil chain
// on the stencil printer.
const char* defaultHalftone(bool stencil) { return stencil ? "tattoo" : "barcode-text"; }

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

KelvoHalftone kelvoHalftoneFromKeyword(const char* keyword) {
  static_assert(sizeof kHalftones / sizeof kHalftones[0] == kKelvoHalftoneCount, "a keyword for every halftone");
  if (keyword != nullptr)
    for (int i = 0; i < kKelvoHalftoneCount; ++i)
      if (std::strcmp(kHalftones[i], keyword) == 0) return static_cast<KelvoHalftone>(i);
  return KelvoHalftone::kThreshold;
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
  data->vendor[data->num_vendor++] = "kelvo-graphic-encoding";
  if (!model->stencil) {
    data->vendor[data->num_vendor++] = "kelvo-gap-height";
    data->vendor[data->num_vendor++] = "kelvo-post-action";
  } else {
    data->vendor[data->num_vendor++] = "kelvo-anti-wrinkle";
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
  ippAddStrings(vendor, IPP_TAG_PRINTER, IPP_CONST_TAG(IPP_TAG_KEYWORD), "kelvo-graphic-encoding-supported",
                kNumEncodings, nullptr, kEncodings);
  ippAddString(vendor, IPP_TAG_PRINTER, IPP_CONST_TAG(IPP_TAG_KEYWORD), "kelvo-graphic-encoding-default", nullptr,
               kEncodings[0]);
  if (!model->stencil) {
    ippAddRange(vendor, IPP_TAG_PRINTER, "kelvo-gap-height-supported", 0, 10);
    ippAddInteger(vendor, IPP_TAG_PRINTER, IPP_TAG_INTEGER, "kelvo-gap-height-default", 3);
    ipp_attribute_t* post = ippAddString(vendor, IPP_TAG_PRINTER, IPP_CONST_TAG(IPP_TAG_KEYWORD),
                                         "kelvo-post-action-supported", nullptr, kPostActions[0].keyword);
    for (int i = 1; i < kNumPostActions; ++i) ippSetString(vendor, &post, i, kPostActions[i].keyword);
    ippAddString(vendor, IPP_TAG_PRINTER, IPP_CONST_TAG(IPP_TAG_KEYWORD), "kelvo-post-action-default", nullptr,
                 kPostActions[0].keyword);
  } else {
    // The frame around the sheet that keeps thin stencil paper flat, in
    // millimetres; 0: none.
    ippAddRange(vendor, IPP_TAG_PRINTER, "kelvo-anti-wrinkle-supported", 0, 3);
    ippAddInteger(vendor, IPP_TAG_PRINTER, IPP_TAG_INTEGER, "kelvo-anti-wrinkle-default", 0);
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

KelvoJobSettings kelvoSettingsFromOptions(const KelvoModel& model, const pappl_pr_options_t& options,
                                          pappl_label_mode_t mode) {
  KelvoJobSettings settings;
  settings.dialect = model.dialect;
  const char* encoding = vendorOption(options, "kelvo-graphic-encoding");
  for (int i = 0; encoding != nullptr && i < kNumEncodings; ++i)
    if (std::strcmp(encoding, kEncodings[i]) == 0) settings.encoding = kEncodingValues[i];

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
    settings.postAction = mode == PAPPL_LABEL_MODE_PEEL_OFF ? PostAction::kPeelOff
                          : mode == PAPPL_LABEL_MODE_CUTTER ? PostAction::kCut
                                                            : PostAction::kTearOff;
    const char* chosen = vendorOption(options, "kelvo-post-action");
    for (int i = 1; chosen != nullptr && i < kNumPostActions; ++i)
      if (std::strcmp(chosen, kPostActions[i].keyword) == 0) settings.postAction = kPostActions[i].action;
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

  const char* halftone = vendorOption(options, "kelvo-halftone");
  settings.halftone = kelvoHalftoneFromKeyword(halftone != nullptr ? halftone : defaultHalftone(model.stencil));
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
