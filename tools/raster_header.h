#pragma once
// The header of an uncompressed one-channel K raster page (0 = no ink), as
// the project's raster writers (pngtoraster, the benchmark's page maker)
// hand it to libcups.
#include <cups/raster.h>

#include <cstdio>
#include <cstring>

inline cups_page_header2_t kelvoRasterHeader(unsigned width, unsigned height, unsigned dpi, unsigned bitsPerPixel,
                                             const char* sizeName, unsigned copies) {
  cups_page_header2_t header;
  std::memset(&header, 0, sizeof header);
  std::snprintf(header.MediaClass, sizeof header.MediaClass, "PwgRaster");
  std::snprintf(header.cupsPageSizeName, sizeof header.cupsPageSizeName, "%s", sizeName);
  header.HWResolution[0] = header.HWResolution[1] = dpi;
  header.PageSize[0] = static_cast<unsigned>(width * 72.0 / dpi + 0.5);
  header.PageSize[1] = static_cast<unsigned>(height * 72.0 / dpi + 0.5);
  header.cupsPageSize[0] = static_cast<float>(width * 72.0 / dpi);
  header.cupsPageSize[1] = static_cast<float>(height * 72.0 / dpi);
  header.ImagingBoundingBox[2] = header.PageSize[0];
  header.ImagingBoundingBox[3] = header.PageSize[1];
  header.NumCopies = copies;
  header.cupsWidth = width;
  header.cupsHeight = height;
  header.cupsBitsPerColor = bitsPerPixel;
  header.cupsBitsPerPixel = bitsPerPixel;
  header.cupsBytesPerLine = (width * bitsPerPixel + 7) / 8;
  header.cupsColorOrder = CUPS_ORDER_CHUNKED;
  header.cupsColorSpace = CUPS_CSPACE_K;
  header.cupsNumColors = 1;
  return header;
}
