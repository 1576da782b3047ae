// kelvoapppage: one 8-bit test page of a PWG media size, written twice with
// the same pixels: as PWG raster (black_8, what the printer application is
// sent) and as a CUPS raster K page (what the filter reads).
//   kelvoapppage <pwg-media-name> <dpi> <copies> <out.pwg> <out.ras>
#include <cups/raster.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "tools/raster_header.h"

namespace {

bool writePage(const char* path, cups_mode_t mode, cups_page_header2_t& header, const std::vector<unsigned char>& pixels) {
  FILE* file = std::fopen(path, "wb");
  if (file == nullptr) return false;
  cups_raster_t* raster = cupsRasterOpen(fileno(file), mode);
  bool ok = raster != nullptr && cupsRasterWriteHeader2(raster, &header) &&
            cupsRasterWritePixels(raster, const_cast<unsigned char*>(pixels.data()),
                                  static_cast<unsigned>(pixels.size())) == pixels.size();
  if (raster != nullptr) cupsRasterClose(raster);
  return std::fclose(file) == 0 && ok;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    std::fprintf(stderr, "usage: %s pwg-media-name dpi copies out.pwg out.ras\n", argv[0]);
    return 2;
  }
  const pwg_media_t* media = pwgMediaForPWG(argv[1]);
  const int dpi = std::atoi(argv[2]);
  if (media == nullptr || dpi <= 0) return 2;
  cups_page_header2_t pwg;
  if (!cupsRasterInitPWGHeader(&pwg, const_cast<pwg_media_t*>(media), "black_8", dpi, dpi, "one-sided", nullptr))
    return 1;
  pwg.NumCopies = static_cast<unsigned>(std::atoi(argv[3]));
  // Gradients, a frame and a disc: every halftone makes its own dots of it.
  const unsigned width = pwg.cupsWidth;
  const unsigned height = pwg.cupsHeight;
  std::vector<unsigned char> pixels(static_cast<size_t>(pwg.cupsBytesPerLine) * height);
  for (unsigned y = 0; y < height; ++y)
    for (unsigned x = 0; x < width; ++x) {
      const long dx = static_cast<long>(x) - width / 2;
      const long dy = static_cast<long>(y) - height / 2;
      unsigned value = (x * 255 / width + y * 128 / height) & 255;
      if (dx * dx + dy * dy < static_cast<long>(width * width / 16)) value = 255 - value;
      if (x < 8 || y < 8 || x + 8 >= width || y + 8 >= height) value = 255;
      pixels[static_cast<size_t>(y) * pwg.cupsBytesPerLine + x] = static_cast<unsigned char>(value);
    }
  // The page size's PPD name, as CUPS names it after the PPD's PageSize.
  cups_page_header2_t cups = kelvoRasterHeader(width, height, static_cast<unsigned>(dpi), 8,
                                               media->ppd != nullptr ? media->ppd : "", pwg.NumCopies);
  return writePage(argv[4], CUPS_RASTER_WRITE_PWG, pwg, pixels) && writePage(argv[5], CUPS_RASTER_WRITE, cups, pixels)
             ? 0
             : 1;
}
