#pragma once
// The models the project ships and what a size name promises, written out by
// hand for the tests of the shipped PPD files.
#include <dirent.h>

#include <cstdio>
#include <ostream>
#include <string>

struct ShippedModel {
  const char* file;
  unsigned dpi;
  double maxWidthInches;  // custom sizes up to the print head; 0 for the stencil printer
  int topSpeed;           // PrintSpeed 1 to this many inches per second
  bool stencil;
  size_t sizeCount;  // page sizes offered (19 up to 2 inches wide, 36 more to 4, 9 to 6, 12 to 8)
};

inline const ShippedModel kShippedModels[] = {
    {"kelvo203.ppd", 203, 4.0972, 12, false, 55}, {"kelvo300.ppd", 300, 4.0972, 8, false, 55},
    {"kelvotat.ppd", 300, 0, 4, true, 4},         {"k203w2.ppd", 203, 2.2, 12, false, 19},
    {"k300w2.ppd", 300, 2.2, 8, false, 19},       {"k600w2.ppd", 600, 2.2, 6, false, 19},
    {"k600w4.ppd", 600, 4.0972, 6, false, 55},    {"k203w6.ppd", 203, 6.6, 12, false, 64},
    {"k300w6.ppd", 300, 6.6, 8, false, 64},       {"k203w8.ppd", 203, 8.5, 10, false, 76},
    {"k300w8.ppd", 300, 8.5, 6, false, 76},
};

inline void PrintTo(const ShippedModel& model, std::ostream* out) { *out << model.file; }

// Width and length in points of a size name: "4x6" in inches, "100x150mm" in
// millimetres, or one of the named sheets.
inline bool namedSizePoints(const std::string& name, double& width, double& length) {
  const struct { const char* name; double width, length; } sheets[] = {
      {"A4", 595.28, 841.89},        {"A5", 419.53, 595.28},       {"Letter", 612, 792},
      {"Tattoo_A5", 595.28, 420},    {"Tattoo_A6", 297.64, 420},
  };
  for (const auto& sheet : sheets)
    if (name == sheet.name) {
      width = sheet.width, length = sheet.length;
      return true;
    }
  char unit[4] = "";
  int used = 0;
  if (std::sscanf(name.c_str(), "%lfx%lf%n%3s", &width, &length, &used, unit) < 2) return false;
  const std::string rest = name.substr(static_cast<size_t>(used));
  const double scale = rest.empty() ? 72 : rest == "mm" ? 72 / 25.4 : 0;
  width *= scale, length *= scale;
  return scale > 0;
}
