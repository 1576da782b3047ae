// pngtoraster: turns PNG pictures into an 8-bit CUPS raster stream of ink
// amounts (0 = no ink), one page per picture, the way CUPS's own filters
// hand pages to this driver. Used by the sample job and the tests.
#include <cups/raster.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "printer/png_io.h"
#include "tools/raster_header.h"

namespace {

void usage(FILE* out) {
  std::fprintf(out,
               "Usage: pngtoraster [-r dpi] [-s page-size-name] [-c copies] output.ras input.png [input.png ...]\n"
               "Writes an 8-bit CUPS raster stream (ink amounts, 0 = no ink), one page per picture at\n"
               "the picture's own pixel size, for feeding the filter by hand:\n"
               "  PPD=/usr/share/ppd/kelvo/kelvo203.ppd rastertokelvozpl 1 user title 1 \"\" output.ras\n"
               "  -r dpi     resolution written into every page header (default 203)\n"
               "  -s name    page size name of the header, e.g. A4 or 4x6 (default: none)\n"
               "  -c copies  copy count of every page (default 1)\n"
               "  -h, --help this text\n");
}

bool parsePositive(const char* text, unsigned& value) {
  char* end = nullptr;
  const long v = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || v <= 0 || v > 100000) return false;
  value = static_cast<unsigned>(v);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  unsigned dpi = 203;
  unsigned copies = 1;
  std::string sizeName;
  std::vector<const char*> files;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "-h" || arg == "--help") {
      usage(stdout);
      return 0;
    } else if (arg == "-r" && i + 1 < argc && parsePositive(argv[i + 1], dpi)) {
      ++i;
    } else if (arg == "-c" && i + 1 < argc && parsePositive(argv[i + 1], copies)) {
      ++i;
    } else if (arg == "-s" && i + 1 < argc) {
      sizeName = argv[++i];
    } else if (!arg.empty() && arg[0] == '-') {
      usage(stderr);
      return 2;
    } else {
      files.push_back(argv[i]);
    }
  }
  if (files.size() < 2) {
    usage(stderr);
    return 2;
  }

  const int fd = open(files[0], O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) {
    std::fprintf(stderr, "pngtoraster: cannot create %s\n", files[0]);
    return 1;
  }
  cups_raster_t* raster = cupsRasterOpen(fd, CUPS_RASTER_WRITE);
  int status = 0;
  for (size_t f = 1; f < files.size() && status == 0; ++f) {
    GrayPage picture;
    std::string error;
    if (!kelvoPngReadGray(files[f], picture, error)) {
      std::fprintf(stderr, "pngtoraster: %s\n", error.c_str());
      status = 1;
      break;
    }
    cups_page_header2_t header = kelvoRasterHeader(picture.width, picture.height, dpi, 8, sizeName.c_str(), copies);
    // A picture holds light; the raster holds ink.
    std::vector<unsigned char> ink(picture.pixels.size());
    for (size_t i = 0; i < ink.size(); ++i) ink[i] = static_cast<unsigned char>(255 - picture.pixels[i]);
    if (!cupsRasterWriteHeader2(raster, &header) ||
        cupsRasterWritePixels(raster, ink.data(), static_cast<unsigned>(ink.size())) != ink.size()) {
      std::fprintf(stderr, "pngtoraster: cannot write page %zu to %s\n", f, files[0]);
      status = 1;
    }
  }
  cupsRasterClose(raster);
  close(fd);
  return status;
}
