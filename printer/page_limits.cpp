#include "printer/page_limits.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>

namespace {

unsigned long long dotsOf(double points, unsigned dpi) {
  const double dots = std::ceil(points * dpi / 72.0) + std::ceil(dpi / 8.0);
  // A PPD may say anything, a negative or not-a-number size too.
  return dots >= 0 && dots < static_cast<double>(kKelvoMaxSideDots) ? static_cast<unsigned long long>(dots)
                                                                     : kKelvoMaxSideDots;
}

std::string format(const char* text, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* text, ...) {
  char line[512];
  va_list args;
  va_start(args, text);
  std::vsnprintf(line, sizeof line, text, args);
  va_end(args);
  return line;
}

struct PageLimits {
  unsigned long long widthDots;
  unsigned long long lengthDots;
};

PageLimits limitsOf(const KelvoPrintableArea& area) {
  const unsigned dpi = area.dpi != 0 ? area.dpi : kKelvoFinestDpi;
  return {dotsOf(area.widestPt, dpi), dotsOf(area.longestPt, dpi)};
}

}  // namespace

std::string kelvoPageRefusal(const KelvoPrintableArea& area, const cups_page_header2_t& header, unsigned page) {
  const unsigned width = header.cupsWidth, height = header.cupsHeight;
  // A page without pixels has nothing to print; the pipeline would fail on
  // it and could send the previous page's picture again.
  if (width == 0)
    return format("Page header is inconsistent: %u bytes per line but no pixels", header.cupsBytesPerLine);
  if (height == 0) return format("Page %u has no rows", page);
  if (width > header.cupsBytesPerLine)
    return format("Page header is inconsistent: %u pixels per line but only %u bytes per line", width,
                  header.cupsBytesPerLine);
  if (header.HWResolution[0] == 0 || header.HWResolution[1] == 0)
    return format("Page header has no resolution (%u x %u dpi)", header.HWResolution[0], header.HWResolution[1]);
  const PageLimits limits = limitsOf(area);
  const unsigned dpi = area.dpi != 0 ? area.dpi : kKelvoFinestDpi;
  if (width > limits.widthDots)
    return format("Page %u is %u x %u dots, wider than the %llu dots this printer prints (%.2f inches at %u dpi)",
                  page, width, height, limits.widthDots, static_cast<double>(limits.widthDots) / dpi, dpi);
  if (height > limits.lengthDots)
    return format("Page %u is %u x %u dots, longer than the %llu dots this printer prints (%.2f inches at %u dpi)",
                  page, width, height, limits.lengthDots, static_cast<double>(limits.lengthDots) / dpi, dpi);
  const unsigned long long bytes = static_cast<unsigned long long>(header.cupsBytesPerLine) * height;
  if (bytes > kKelvoMaxPageBytes)
    return format("Page %u is %u x %u dots in %llu bytes of raster, more than the %llu bytes (%llu MiB) of memory "
                  "a page may take",
                  page, width, height, bytes, kKelvoMaxPageBytes, kKelvoMaxPageBytes >> 20);
  return "";
}
