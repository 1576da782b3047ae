#include "filter/ppd_helpers.h"

#include <strings.h>

#include <cstdlib>

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

extern "C" double kelvoPpdGetAttrAsFloatDefault(ppd_file_t* ppd, const char* name, const char* spec, double def) {
  const char* value = attrValue(ppd, name, spec);
  return value != nullptr ? std::atof(value) : def;
}
