#include "filter/ppd_helpers.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/safe_files.h"

extern "C" ppd_choice_t* kelvoPpdGetChoice(ppd_file_t* ppd, const char* keyword) {
  if (ppd == nullptr || keyword == nullptr) return nullptr;
  if (ppd_choice_t* marked = ppdFindMarkedChoice(ppd, keyword)) return marked;
  ppd_option_t* option = ppdFindOption(ppd, keyword);
  if (option == nullptr) return nullptr;
  // May still be null when the PPD's default names no existing choice.
  return ppdFindChoice(option, option->defchoice);
}

extern "C" const char* kelvoPpdGetChoiceAsStrDefault(ppd_file_t* ppd, const char* keyword, const char* def) {
  const ppd_choice_t* choice = kelvoPpdGetChoice(ppd, keyword);
  return choice != nullptr ? choice->choice : def;
}

extern "C" int kelvoPpdGetChoiceAsIntDefault(ppd_file_t* ppd, const char* keyword, int def) {
  const ppd_choice_t* choice = kelvoPpdGetChoice(ppd, keyword);
  return choice != nullptr ? std::atoi(choice->choice) : def;
}

extern "C" signed char kelvoPpdGetChoiceAsBoolDefault(ppd_file_t* ppd, const char* keyword, char def) {
  const ppd_choice_t* choice = kelvoPpdGetChoice(ppd, keyword);
  if (choice == nullptr) return static_cast<signed char>(def);
  const char* word = choice->choice;
  if (strcasecmp(word, "true") == 0 || strcasecmp(word, "yes") == 0) return 1;
  if (strcasecmp(word, "false") == 0 || strcasecmp(word, "no") == 0) return 0;
  // Numbers keep only their low byte ("256" is false): installed PPDs and
  // their callers have always seen this value, so it stays.
  const unsigned int low = static_cast<unsigned int>(std::atoi(word)) & 0xFFu;
  return static_cast<signed char>(low < 0x80u ? static_cast<int>(low) : static_cast<int>(low) - 0x100);
}

namespace {
const char* attrValue(ppd_file_t* ppd, const char* name, const char* spec) {
  if (ppd == nullptr || name == nullptr) return nullptr;
  const ppd_attr_t* attr = ppdFindAttr(ppd, name, spec);
  return attr != nullptr ? attr->value : nullptr;
}
}  // namespace

extern "C" const char* kelvoPpdGetAttrAsStrDefault(ppd_file_t* ppd, const char* name, const char* spec,
                                                   const char* def) {
  const char* value = attrValue(ppd, name, spec);
  return value != nullptr ? value : def;
}


ppd_file_t* kelvoPpdOpenFile(const char* path, std::string* why) {
  std::string reason;
  const int fd = kelvoOpenRegularFile(path, &reason);
  if (fd < 0) {
    if (why != nullptr) *why = std::string("Unable to read the PPD file ") + path + ": " + reason;
    return nullptr;
  }
  cups_file_t* file = cupsFileOpenFd(fd, "r");
  if (file == nullptr) {
    close(fd);
    if (why != nullptr) *why = std::string("Unable to read the PPD file ") + path + ": " + std::strerror(errno);
    return nullptr;
  }
  errno = 0;
  ppd_file_t* ppd = ppdOpen2(file);
  const int savedErrno = errno;
  cupsFileClose(file);  // closes fd
  if (ppd == nullptr && why != nullptr) {
    int line = 0;
    const ppd_status_t status = ppdLastError(&line);
    char text[256];
    if (status == PPD_FILE_OPEN_ERROR)
      std::snprintf(text, sizeof text, "Unable to read the PPD file %s: %s", path,
                    savedErrno != 0 ? std::strerror(savedErrno) : ppdErrorString(status));
    else
      std::snprintf(text, sizeof text, "The PPD file %s is not valid: %s on line %d", path, ppdErrorString(status),
                    line);
    *why = text;
  }
  return ppd;
}

KelvoPrintableArea kelvoPpdPrintableArea(ppd_file_t* ppd) {
  KelvoPrintableArea area;
  if (ppd == nullptr) return area;
  for (int i = 0; i < ppd->num_sizes; ++i) {
    // The custom size holds whatever size the job asked for.
    if (strcasecmp(ppd->sizes[i].name, "Custom") == 0) continue;
    area.widestPt = std::max(area.widestPt, static_cast<double>(ppd->sizes[i].width));
    area.longestPt = std::max(area.longestPt, static_cast<double>(ppd->sizes[i].length));
  }
  if (ppd->variable_sizes) {
    area.widestPt = std::max(area.widestPt, static_cast<double>(ppd->custom_max[0]));
    area.longestPt = std::max(area.longestPt, static_cast<double>(ppd->custom_max[1]));
  }
  // "203dpi", "300x600dpi": the finer of the two counts.
  auto consider = [&area](const char* word) {
    if (word[0] < '0' || word[0] > '9') return;
    unsigned x = 0, y = 0;
    const int n = std::sscanf(word, "%ux%u", &x, &y);
    if (n >= 1) area.dpi = std::max({area.dpi, x, n == 2 ? y : 0u});
  };
  if (const ppd_option_t* option = ppdFindOption(ppd, "Resolution"))
    for (int i = 0; i < option->num_choices; ++i) consider(option->choices[i].choice);
  if (area.dpi == 0)
    if (const ppd_attr_t* attr = ppdFindAttr(ppd, "DefaultResolution", nullptr))
      if (attr->value != nullptr) consider(attr->value);
  return area;
}
