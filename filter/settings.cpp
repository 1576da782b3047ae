#include "filter/settings.h"

#include <cups/cups.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <strings.h>

#include "filter/ppd_helpers.h"
#include "support/kelvo_log.h"
#include "support/kelvo_string.h"

namespace {

// The PPD's HalftoneType words. They are older than the methods' names and
// sit one method off for most ("FloydSteinberg" runs the ordered dither);
// printers in the field are tuned to what each word runs.
constexpr struct {
  const char* word;
  KelvoHalftone halftone;
} kPpdHalftones[] = {
    {"None", KelvoHalftone::kThreshold},
    {"FloydSteinberg", KelvoHalftone::kOrdered4x4},
    {"Ordered", KelvoHalftone::kBurkes},
    {"Burkes", KelvoHalftone::kStucki},
    {"Stucki", KelvoHalftone::kJarvisJudiceNinke},
    {"JarvisJudiceNinke", KelvoHalftone::kSierra},
    {"Sierra", KelvoHalftone::kStevensonArce},
    {"StevensonArce", KelvoHalftone::kBayer},
    {"Tattoo", KelvoHalftone::kTattoo},
    {"Tattoo_X8", KelvoHalftone::kTattooX8},
    {"BarcodeText", KelvoHalftone::kBarcodeText},
};

// The method of an exact, case-sensitive word; other words give the
// threshold.
KelvoHalftone halftoneOfWord(const char* word) {
  for (const auto& entry : kPpdHalftones)
    if (std::strcmp(word, entry.word) == 0) return entry.halftone;
  return KelvoHalftone::kThreshold;
}

bool contains(const char* text, const char* word) { return std::strstr(text, word) != nullptr; }

// The speed word itself is what "^PR" always carried, so only one or two
// digits are taken: anything else could carry other commands.
bool isSpeedWord(const char* speed) {
  const size_t length = std::strlen(speed);
  if (length == 0 || length > 2) return false;
  for (size_t i = 0; i < length; ++i)
    if (speed[i] < '0' || speed[i] > '9') return false;
  return true;
}

void copyChoice(char* field, ppd_file_t* ppd, const char* keyword) {
  kelvoStrCpy(field, kelvoPpdGetChoiceAsStrDefault(ppd, keyword, ""), kSettingsTextSize);
}

// "<prefix>-YYYYMMDDhhmmss.bin" in local time. The prefix normally carries a
// directory; without one the name is relative and starts with a hyphen.
void makeRecordingName(ppd_file_t* ppd, Settings* settings) {
  const char* prefix = kelvoPpdGetAttrAsStrDefault(ppd, "kelvoFilterOutputFile", nullptr, "");
  const time_t now = std::time(nullptr);
  const struct tm* local = std::localtime(&now);
  if (local == nullptr) {
    kelvoLogCommon(LogError, "Cannot read the local time, printer commands are not recorded");
    return;
  }
  const int length = std::snprintf(settings->outputFile, sizeof settings->outputFile,
                                    "%s-%d%02d%02d%02d%02d%02d.bin", prefix, local->tm_year + 1900,
                                    local->tm_mon + 1, local->tm_mday, local->tm_hour, local->tm_min,
                                    local->tm_sec);
  // A cut name could land anywhere; rather record nothing.
  if (length < 0 || static_cast<size_t>(length) >= sizeof settings->outputFile) {
    kelvoLogCommon(LogError, "Recording file name too long, printer commands are not recorded: %s", prefix);
    settings->outputFile[0] = '\0';
  }
}

// Names CUPS and IPP give every filter; never taken for a misspelt PPD option.
bool isStandardOption(const char* name) {
  static const char* const kNames[] = {"media", "copies", "collate", "sides", "resolution", "landscape",
                                       "orientation", "scaling", "fitplot", "fit", "ppi", "page", "number",
                                       "mirror", "brightness", "gamma", "hue", "saturation", "position", "natural"};
  if (std::strchr(name, '-') != nullptr) return true;
  for (const char* standard : kNames)
    if (strcasecmp(name, standard) == 0) return true;
  return false;
}

std::string choicesOf(const ppd_option_t* option) {
  std::string list;
  for (int i = 0; i < option->num_choices; ++i) {
    if (!list.empty()) list += ", ";
    list += option->choices[i].choice;
  }
  return list;
}

// A PPD option of which `name` is a misspelling in letter case, or the start
// ("Halftone" for "HalftoneType"); null when there is none.
ppd_option_t* likelyOption(ppd_file_t* ppd, const char* name) {
  const size_t length = std::strlen(name);
  if (length < 4 || isStandardOption(name)) return nullptr;
  for (int g = 0; g < ppd->num_groups; ++g) {
    ppd_group_t& group = ppd->groups[g];
    for (int o = 0; o < group.num_options; ++o)
      if (strncasecmp(group.options[o].keyword, name, length) == 0) return &group.options[o];
  }
  return nullptr;
}

// CUPS marks only the choices a PPD has and drops the rest without a word:
// say which job options were not used, so a user sees why the print looks
// like the default.
void warnUnusedOptions(ppd_file_t* ppd, int count, cups_option_t* list) {
  for (int i = 0; i < count; ++i) {
    const char* name = list[i].name;
    const char* value = list[i].value != nullptr ? list[i].value : "";
    ppd_option_t* option = ppdFindOption(ppd, name);
    if (option != nullptr) {
      // PageSize=Custom.4x6in and the like are sizes CUPS resolves itself.
      if (ppdFindChoice(option, value) != nullptr || strncasecmp(value, "Custom.", 7) == 0) continue;
      kelvoLogCommon(LogWarning, "Unknown choice \"%.60s\" for option %s; valid: %s; using the default %s", value,
                     name, choicesOf(option).c_str(), option->defchoice);
    } else if ((option = likelyOption(ppd, name)) != nullptr) {
      kelvoLogCommon(LogWarning, "Unknown option %.60s=%.60s (did you mean %s? valid: %s); using the default %s", name,
                     value, option->keyword, choicesOf(option).c_str(), option->defchoice);
    }
  }
}

// A job may switch recording or debug pictures on only where the PPD allows
// it: both are copies of somebody's print, left in a folder of the spooler,
// and they cost disk. One attribute rules both, so that a queue set up with
// it says no to either. A PPD that does not say keeps the old rule.
void applyDiagnosticsRule(ppd_file_t* ppd, int& count, cups_option_t*& list) {
  const char* allow = kelvoPpdGetAttrAsStrDefault(ppd, "kelvoAllowJobRecording", nullptr, nullptr);
  if (allow == nullptr || strcasecmp(allow, "true") == 0 || strcasecmp(allow, "yes") == 0) return;
  for (const char* name : {"RecordPrinterCommands", "DebugImages"}) {
    if (cupsGetOption(name, count, list) == nullptr) continue;
    kelvoLogCommon(LogWarning, "Option %s is set by the printer's administrator, not by a job; the job option is "
                               "ignored", name);
    count = cupsRemoveOption(name, count, &list);
  }
}

// Page size in millimetres of the marked "PageSize" (custom sizes included);
// 0 by 0 when the PPD has no such size.
void getPageWidthPageHeight(ppd_file_t* ppd, Settings* settings) {
  const char* name = kelvoPpdGetChoiceAsStrDefault(ppd, "PageSize", "");
  settings->pageWidth = 0;
  settings->pageHeight = 0;
  kelvoLogCommon(LogDebug, "PageSizeName: %s", name);
  const ppd_size_t* size = ppd != nullptr ? ppdPageSize(ppd, name) : nullptr;
  if (size == nullptr) return;
  // Says "Custom" for every size; log readers grep for this text.
  kelvoLogCommon(LogDebug, "Custom Size: (%f,%f,%f,%f,%f,%f)", size->width, size->length, size->left,
                 size->bottom, size->right, size->top);
  // 0.3528 rather than 25.4 / 72: label sizes in the field were set up
  // against this rounded factor.
  settings->pageWidth = static_cast<float>(static_cast<double>(size->width) * 0.3528);
  settings->pageHeight = static_cast<float>(static_cast<double>(size->length) * 0.3528);
  kelvoLogCommon(LogDebug, "Set page size: width %f mm, height %f mm", settings->pageWidth, settings->pageHeight);
}

}  // namespace


void kelvoParseSettings(Settings* settings, const char* options, KelvoPrintableArea* area) {
  if (settings == nullptr) return;
  const char* ppdPath = std::getenv("PPD");
  ppd_file_t* ppd = ppdPath != nullptr ? kelvoPpdOpenFile(ppdPath, nullptr) : nullptr;
  if (ppd != nullptr) {
    ppdMarkDefaults(ppd);
    // Job options override the PPD defaults.
    cups_option_t* list = nullptr;
    int count = cupsParseOptions(options, 0, &list);
    if (count > 0 && list != nullptr) {
      applyDiagnosticsRule(ppd, count, list);
      warnUnusedOptions(ppd, count, list);
      cupsMarkOptions(ppd, count, list);
    }
    // libcups frees nothing for a count of 0, also when removing the only
    // option left its array behind.
    if (count > 0)
      cupsFreeOptions(count, list);
    else
      std::free(list);
  }

  std::memset(settings, 0, sizeof *settings);
  copyChoice(settings->PageSize, ppd, "PageSize");
  copyChoice(settings->MediaMethod, ppd, "MediaMethod");
  copyChoice(settings->PaperType, ppd, "PaperType");
  settings->GapsHeight = kelvoPpdGetChoiceAsIntDefault(ppd, "GapsHeight", 0);
  copyChoice(settings->PostAction, ppd, "PostAction");
  copyChoice(settings->Origin, ppd, "Origin");
  settings->halftoneType = halftoneOfWord(kelvoPpdGetChoiceAsStrDefault(ppd, "HalftoneType", ""));
  settings->MirrorImage = kelvoPpdGetChoiceAsBoolDefault(ppd, "MirrorImage", 0);
  settings->NegativeImage = kelvoPpdGetChoiceAsBoolDefault(ppd, "NegativeImage", 0);
  copyChoice(settings->PrintSpeed, ppd, "PrintSpeed");
  settings->Darkness = kelvoPpdGetChoiceAsIntDefault(ppd, "Darkness", 0);
  settings->Brightness = kelvoPpdGetChoiceAsIntDefault(ppd, "Brightness", 0);
  getPageWidthPageHeight(ppd, settings);

  if (kelvoPpdGetChoiceAsIntDefault(ppd, "RecordPrinterCommands", 0) > 0) makeRecordingName(ppd, settings);

  // Newer choices. A PPD without them prints as before: the Kelvo dialect,
  // hex graphics, debug pictures on.
  const char* dialect = kelvoPpdGetChoiceAsStrDefault(ppd, "ZplDialect", "");
  settings->dialect = std::strcmp(dialect, "Standard") == 0 ? ZplDialect::kStandard : ZplDialect::kKelvo;
  const char* encoding = kelvoPpdGetChoiceAsStrDefault(ppd, "GraphicEncoding", "");
  settings->encoding = std::strcmp(encoding, "Z64") == 0         ? GraphicEncoding::kZ64
                       : std::strcmp(encoding, "InlineZ64") == 0 ? GraphicEncoding::kInlineZ64
                                                                 : GraphicEncoding::kHex;
  settings->DebugImages = kelvoPpdGetChoiceAsBoolDefault(ppd, "DebugImages", 1) != 0 ? 1 : 0;
  settings->AntiWrinkle = kelvoPpdGetChoiceAsIntDefault(ppd, "AntiWrinkle", 0);

  kelvoLogCommon(LogDebug, "settings->MediaMethod:%s", settings->MediaMethod);
  kelvoLogCommon(LogDebug, "settings->PaperType:%s", settings->PaperType);
  kelvoLogCommon(LogDebug, "settings->GapsHeight:%d", settings->GapsHeight);
  kelvoLogCommon(LogDebug, "settings->PostAction:%s", settings->PostAction);
  kelvoLogCommon(LogDebug, "settings->Origin:%s", settings->Origin);
  kelvoLogCommon(LogDebug, "settings->MirrorImage:%d", settings->MirrorImage);
  kelvoLogCommon(LogDebug, "settings->NegativeImage:%d", settings->NegativeImage);
  kelvoLogCommon(LogDebug, "settings->PrintSpeed:%s", settings->PrintSpeed);
  kelvoLogCommon(LogDebug, "settings->Darkness:%d", settings->Darkness);
  kelvoLogCommon(LogDebug, "settings->halftoneType:%d", static_cast<int>(settings->halftoneType));
  kelvoLogCommon(LogDebug, "settings->PageSize:%s", settings->PageSize);
  kelvoLogCommon(LogDebug, "settings->pageWidth:%f", settings->pageWidth);
  kelvoLogCommon(LogDebug, "settings->pageHeight:%f", settings->pageHeight);

  if (area != nullptr) *area = kelvoPpdPrintableArea(ppd);
  if (ppd != nullptr) ppdClose(ppd);
}

KelvoJobSettings kelvoEngineSettings(const Settings& settings) {
  KelvoJobSettings job;
  job.dialect = settings.dialect;
  job.encoding = settings.encoding;

  // First match wins.
  const char* paper = settings.PaperType;
  if (contains(paper, "Normal")) {
    job.tracking = MediaTracking::kPrinterSetting;
  } else if (contains(paper, "Continue")) {
    job.tracking = MediaTracking::kContinuous;
  } else if (contains(paper, "LabelGaps")) {
    job.tracking = MediaTracking::kGaps;
  } else if (contains(paper, "LabelMark")) {
    job.tracking = MediaTracking::kMarks;
  } else {
    job.tracking = MediaTracking::kUnnamed;
    if (*paper != '\0') kelvoLogCommon(LogDebug, "Unknown paper type: %s!", paper);
  }
  job.gapMm = settings.GapsHeight;

  if (contains(settings.MediaMethod, "Direct"))
    job.printMethod = PrintMethod::kDirectThermal;
  else if (contains(settings.MediaMethod, "Transfer"))
    job.printMethod = PrintMethod::kThermalTransfer;

  // "PartialCut" contains "Cut": both cut.
  const char* post = settings.PostAction;
  if (contains(post, "Normal") || contains(post, "None"))
    job.postAction = PostAction::kPrinterSetting;
  else if (contains(post, "TearOff"))
    job.postAction = PostAction::kTearOff;
  else if (contains(post, "PeelOff"))
    job.postAction = PostAction::kPeelOff;
  else if (contains(post, "Cut"))
    job.postAction = PostAction::kCut;

  job.turnLabel = contains(settings.Origin, "Rotation180");
  const char* speed = settings.PrintSpeed;
  if (!contains(speed, "Normal") && std::atof(speed) > 0.000000000000001) {
    if (isSpeedWord(speed)) {
      job.speed = std::atoi(speed);
      job.speedDigits = static_cast<int>(std::strlen(speed));
    } else {
      kelvoLogCommon(LogWarning, "Print speed \"%.40s\" is not a speed the printer accepts (1 or 2 digits); none is sent",
                     speed);
    }
  }
  job.darkness = settings.Darkness;

  job.halftone = settings.halftoneType;
  job.brightness = settings.Brightness;
  job.mirror = settings.MirrorImage != 0;
  job.negative = settings.NegativeImage != 0;
  job.antiWrinkleMm = settings.AntiWrinkle < 0 ? 0 : settings.AntiWrinkle > 3 ? 3 : settings.AntiWrinkle;
  return job;
}
