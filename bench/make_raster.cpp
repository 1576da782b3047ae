// kelvo-bench-raster: writes the benchmark pages as a CUPS raster stream,
// either 8-bit ink amounts (what our filter reads) or the same content
// halftoned to 1 bit (what CUPS's own label filter reads), or as a gray PNG
// (what the printer applications read). The page may also be the dots a
// ZPL job prints, so that every driver can be handed the very same dots.
#include <cups/raster.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/pages.h"
#include "printer/png_io.h"
#include "tools/raster_header.h"
#include "tools/zpl_decode.h"

namespace {

void usage() {
  std::fprintf(stderr,
               "Usage: kelvo-bench-raster [-1] [-p] [-k label|photo] [-z job.zpl] [-w dots] [-r dpi] [-n pages] out\n"
               "  -1        1-bit halftoned pages instead of 8-bit ink amounts\n"
               "  -p        a gray PNG of the page (one page, 0 black) instead of raster\n"
               "  -k kind   label: 4x6 inch shipping label (default); photo: A4 photo\n"
               "  -z job    the page is the dots of the job's first graphic (dots are full ink)\n"
               "  -w dots   keep only the leftmost dots of each row (the label's width)\n"
               "  -r dpi    resolution (default 203)\n"
               "  -n pages  number of copies of the page in the stream (default 1)\n");
}

// The dots of the first graphic of a ZPL job as a page of full ink on paper.
bool pageFromJob(const char* path, kelvobench::InkPage& page) {
  FILE* in = std::fopen(path, "rb");
  if (in == nullptr) return false;
  std::vector<unsigned char> job;
  unsigned char buffer[65536];
  size_t got;
  while ((got = std::fread(buffer, 1, sizeof buffer, in)) > 0) job.insert(job.end(), buffer, buffer + got);
  std::fclose(in);
  std::vector<ZplGraphic> graphics;
  std::string error;
  if (!kelvoZplDecode(job.data(), job.size(), graphics, error) || graphics.empty()) {
    std::fprintf(stderr, "kelvo-bench-raster: %s: %s\n", path, graphics.empty() ? "no graphic" : error.c_str());
    return false;
  }
  const ZplGraphic& g = graphics[0];
  page.width = static_cast<int>(g.bytesPerRow * 8);
  page.height = static_cast<int>(g.height);
  page.ink.assign(static_cast<size_t>(page.width) * page.height, 0);
  for (size_t i = 0; i < page.ink.size(); ++i)
    if (g.rows[i / 8] & (0x80u >> (i % 8))) page.ink[i] = 255;
  return true;
}

// Keeps the leftmost `width` pixels of each row.
void crop(kelvobench::InkPage& page, int width) {
  if (width <= 0 || width >= page.width) return;
  for (int y = 0; y < page.height; ++y)
    std::memmove(&page.ink[static_cast<size_t>(y) * width], &page.ink[static_cast<size_t>(y) * page.width],
                 static_cast<size_t>(width));
  page.width = width;
  page.ink.resize(static_cast<size_t>(width) * page.height);
}

// 4 x 4 ordered dither, so the 1-bit page carries the gray areas as dots the
// way a halftoning raster filter would hand them on.
const int kBayer[4][4] = {{0, 8, 2, 10}, {12, 4, 14, 6}, {3, 11, 1, 9}, {15, 7, 13, 5}};

std::vector<unsigned char> toOneBit(const kelvobench::InkPage& page, unsigned bytesPerLine) {
  std::vector<unsigned char> bits(static_cast<size_t>(bytesPerLine) * page.height, 0);
  for (int y = 0; y < page.height; ++y) {
    const unsigned char* src = &page.ink[static_cast<size_t>(y) * page.width];
    unsigned char* dst = &bits[static_cast<size_t>(y) * bytesPerLine];
    for (int x = 0; x < page.width; ++x)
      if (src[x] * 16 > kBayer[y & 3][x & 3] * 255 + 127) dst[x / 8] |= static_cast<unsigned char>(0x80 >> (x % 8));
  }
  return bits;
}

}  // namespace

int main(int argc, char** argv) {
  bool oneBit = false, png = false;
  std::string kind = "label";
  const char* job = nullptr;
  int width = 0;
  int dpi = 203;
  int pages = 1;
  const char* out = nullptr;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "-1") {
      oneBit = true;
    } else if (arg == "-p") {
      png = true;
    } else if (arg == "-z" && i + 1 < argc) {
      job = argv[++i];
    } else if (arg == "-w" && i + 1 < argc) {
      width = std::atoi(argv[++i]);
    } else if (arg == "-k" && i + 1 < argc) {
      kind = argv[++i];
    } else if (arg == "-r" && i + 1 < argc) {
      dpi = std::atoi(argv[++i]);
    } else if (arg == "-n" && i + 1 < argc) {
      pages = std::atoi(argv[++i]);
    } else if (arg[0] != '-' && out == nullptr) {
      out = argv[i];
    } else {
      usage();
      return 2;
    }
  }
  if (out == nullptr || dpi < 50 || dpi > 1200 || pages < 1 || (kind != "label" && kind != "photo")) {
    usage();
    return 2;
  }

  kelvobench::InkPage page;
  if (job != nullptr) {
    if (!pageFromJob(job, page)) return 1;
  } else {
    page = kind == "label" ? kelvobench::makeLabelPage(dpi) : kelvobench::makePhotoPage(dpi);
  }
  crop(page, width);
  if (png) {
    std::vector<unsigned char> gray(page.ink.size());
    for (size_t i = 0; i < gray.size(); ++i) gray[i] = static_cast<unsigned char>(255 - page.ink[i]);
    std::string error;
    if (kelvoPngWriteGray(out, gray.data(), static_cast<uint32_t>(page.width), static_cast<uint32_t>(page.height),
                          static_cast<size_t>(page.width), error))
      return 0;
    std::fprintf(stderr, "kelvo-bench-raster: %s\n", error.c_str());
    return 1;
  }
  cups_page_header2_t header =
      kelvoRasterHeader(static_cast<unsigned>(page.width), static_cast<unsigned>(page.height),
                        static_cast<unsigned>(dpi), oneBit ? 1 : 8, kind == "label" ? "4x6" : "A4", 1);
  const std::vector<unsigned char> pixels = oneBit ? toOneBit(page, header.cupsBytesPerLine) : page.ink;

  const int fd = open(out, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) {
    std::fprintf(stderr, "kelvo-bench-raster: cannot create %s\n", out);
    return 1;
  }
  cups_raster_t* raster = cupsRasterOpen(fd, CUPS_RASTER_WRITE);
  int status = 0;
  for (int n = 0; n < pages && status == 0; ++n) {
    if (!cupsRasterWriteHeader2(raster, &header) ||
        cupsRasterWritePixels(raster, const_cast<unsigned char*>(pixels.data()), static_cast<unsigned>(pixels.size())) !=
            pixels.size()) {
      std::fprintf(stderr, "kelvo-bench-raster: cannot write page %d to %s\n", n + 1, out);
      status = 1;
    }
  }
  cupsRasterClose(raster);
  close(fd);
  return status;
}
