#include "filter/settings.h"

#include <cups/cups.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "filter/ppd_helpers.h"
#include "support/kelvo_log.h"
#include "support/kelvo_string.h"

namespace {

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

}  // namespace

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

void parseSettings(Settings* settings, const char* options) {
  if (settings == nullptr) return;
  const char* ppdPath = std::getenv("PPD");
  ppd_file_t* ppd = ppdPath != nullptr ? ppdOpenFile(ppdPath) : nullptr;
  if (ppd != nullptr) {
    ppdMarkDefaults(ppd);
    // Job options override the PPD defaults.
    cups_option_t* list = nullptr;
    const int count = cupsParseOptions(options, 0, &list);
    if (count > 0 && list != nullptr) {
      cupsMarkOptions(ppd, count, list);
      cupsFreeOptions(count, list);
    }
  }

  std::memset(settings, 0, sizeof *settings);
  copyChoice(settings->PageSize, ppd, "PageSize");
  copyChoice(settings->Resolution, ppd, "Resolution");
  copyChoice(settings->MediaMethod, ppd, "MediaMethod");
  copyChoice(settings->PaperType, ppd, "PaperType");
  settings->GapsHeight = kelvoPpdGetChoiceAsIntDefault(ppd, "GapsHeight", 0);
  copyChoice(settings->PostAction, ppd, "PostAction");
  copyChoice(settings->Occurrence, ppd, "Occurrence");
  copyChoice(settings->Origin, ppd, "Origin");
  settings->halftoneType = kelvoHalftoneTypeFromStr(kelvoPpdGetChoiceAsStrDefault(ppd, "HalftoneType", ""));
  settings->MirrorImage = kelvoPpdGetChoiceAsBoolDefault(ppd, "MirrorImage", 0);
  settings->NegativeImage = kelvoPpdGetChoiceAsBoolDefault(ppd, "NegativeImage", 0);
  copyChoice(settings->PrintSpeed, ppd, "PrintSpeed");
  settings->Darkness = kelvoPpdGetChoiceAsIntDefault(ppd, "Darkness", 0);
  settings->Brightness = kelvoPpdGetChoiceAsIntDefault(ppd, "Brightness", 0);
  settings->DirectBuffer = 0;
  settings->StoredGraphics = 0;
  settings->OptionDisplayUnit = 0;
  getPageWidthPageHeight(ppd, settings);
  settings->ForceRotation = kelvoPpdGetChoiceAsIntDefault(ppd, "ForceRotation", 0);

  if (kelvoPpdGetChoiceAsIntDefault(ppd, "RecordPrinterCommands", 0) > 0) makeRecordingName(ppd, settings);

  kelvoLogCommon(LogDebug, "settings->Resolution:%s", settings->Resolution);
  kelvoLogCommon(LogDebug, "settings->MediaMethod:%s", settings->MediaMethod);
  kelvoLogCommon(LogDebug, "settings->PaperType:%s", settings->PaperType);
  kelvoLogCommon(LogDebug, "settings->GapsHeight:%d", settings->GapsHeight);
  kelvoLogCommon(LogDebug, "settings->PostAction:%s", settings->PostAction);
  kelvoLogCommon(LogDebug, "settings->Occurrence:%s", settings->Occurrence);
  kelvoLogCommon(LogDebug, "settings->Origin:%s", settings->Origin);
  kelvoLogCommon(LogDebug, "settings->MirrorImage:%d", settings->MirrorImage);
  kelvoLogCommon(LogDebug, "settings->NegativeImage:%d", settings->NegativeImage);
  kelvoLogCommon(LogDebug, "settings->PrintSpeed:%s", settings->PrintSpeed);
  kelvoLogCommon(LogDebug, "settings->Darkness:%d", settings->Darkness);
  kelvoLogCommon(LogDebug, "settings->halftoneType:%d", static_cast<int>(settings->halftoneType));
  kelvoLogCommon(LogDebug, "settings->DirectBuffer:%d", settings->DirectBuffer);
  kelvoLogCommon(LogDebug, "settings->StoredGraphics:%d", settings->StoredGraphics);
  kelvoLogCommon(LogDebug, "settings->OptionDisplayUnit:%d", settings->OptionDisplayUnit);
  kelvoLogCommon(LogDebug, "settings->PageSize:%s", settings->PageSize);
  kelvoLogCommon(LogDebug, "settings->pageWidth:%f", settings->pageWidth);
  kelvoLogCommon(LogDebug, "settings->pageHeight:%f", settings->pageHeight);

  if (ppd != nullptr) ppdClose(ppd);
}
