// Writes the seed corpora of the fuzz targets: fuzz_make_seeds <folder>
// creates <folder>/<target>/<seed> for every target. The seeds are small
// ordinary jobs; the fuzzer finds the hostile ones from there.
#include <cups/raster.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::string gRoot;

void save(const std::string& target, const std::string& name, const std::string& bytes) {
  const std::string dir = gRoot + "/" + target;
  mkdir(dir.c_str(), 0755);
  FILE* f = std::fopen((dir + "/" + name).c_str(), "wb");
  if (f == nullptr) {
    std::perror(name.c_str());
    return;
  }
  std::fwrite(bytes.data(), 1, bytes.size(), f);
  std::fclose(f);
}

struct Page {
  unsigned width, height, dpi, bits;
  const char* sizeName;
  unsigned seed;  // 0: gradient, otherwise noise
};

std::string raster(cups_mode_t mode, const std::vector<Page>& pages, size_t keep = std::string::npos) {
  char path[] = "/tmp/kelvo-seed-XXXXXX";
  const int fd = mkstemp(path);
  cups_raster_t* r = cupsRasterOpen(fd, mode);
  for (const Page& p : pages) {
    cups_page_header2_t h;
    std::memset(&h, 0, sizeof h);
    std::snprintf(h.cupsPageSizeName, sizeof h.cupsPageSizeName, "%s", p.sizeName);
    h.HWResolution[0] = h.HWResolution[1] = p.dpi;
    h.PageSize[0] = p.width * 72 / p.dpi;
    h.PageSize[1] = p.height * 72 / p.dpi;
    h.NumCopies = 1;
    h.cupsWidth = p.width;
    h.cupsHeight = p.height;
    h.cupsBitsPerColor = p.bits;
    h.cupsBitsPerPixel = p.bits;
    h.cupsBytesPerLine = (p.width * p.bits + 7) / 8;
    h.cupsColorOrder = CUPS_ORDER_CHUNKED;
    h.cupsColorSpace = CUPS_CSPACE_K;
    h.cupsNumColors = 1;
    cupsRasterWriteHeader2(r, &h);
    std::vector<unsigned char> pixels(static_cast<size_t>(h.cupsBytesPerLine) * p.height);
    uint32_t state = p.seed;
    for (size_t i = 0; i < pixels.size(); ++i) {
      state = state * 1103515245u + 12345u;
      pixels[i] = p.seed == 0 ? static_cast<unsigned char>(i % h.cupsBytesPerLine * 255 / h.cupsBytesPerLine)
                              : static_cast<unsigned char>(state >> 24);
    }
    if (!pixels.empty()) cupsRasterWritePixels(r, pixels.data(), static_cast<unsigned>(pixels.size()));
  }
  cupsRasterClose(r);
  std::string bytes;
  lseek(fd, 0, SEEK_SET);
  char chunk[4096];
  ssize_t n;
  while ((n = read(fd, chunk, sizeof chunk)) > 0) bytes.append(chunk, static_cast<size_t>(n));
  close(fd);
  unlink(path);
  return bytes.substr(0, keep);
}

// Filter input: PPD choice, options, a zero byte, the raster.
std::string job(char ppd, const std::string& options, const std::string& stream) {
  return std::string(1, ppd) + options + std::string(1, '\0') + stream;
}

void filterSeeds() {
  const std::string t = "fuzz_filter";
  save(t, "label-compressed", job(0, "", raster(CUPS_RASTER_WRITE_COMPRESSED, {{64, 16, 203, 8, "w288h432", 0}})));
  save(t, "tattoo-negative",
       job(2, "HalftoneType=Tattoo NegativeImage=True", raster(CUPS_RASTER_WRITE, {{48, 32, 300, 8, "Tattoo_A6", 7}})));
  save(t, "x8-two-pages",
       job(2, "HalftoneType=Tattoo_X8 MirrorImage=True Brightness=20",
           raster(CUPS_RASTER_WRITE, {{24, 24, 300, 8, "Tattoo_A5", 0}, {40, 8, 300, 8, "Tattoo_A5", 3}})));
  save(t, "pwg-bayer",
       job(1, "HalftoneType=StevensonArce PrintSpeed=4 Darkness=15",
           raster(CUPS_RASTER_WRITE_PWG, {{32, 12, 300, 8, "w288h432", 5}})));
  save(t, "one-bit-page", job(0, "", raster(CUPS_RASTER_WRITE, {{64, 4, 203, 1, "", 2}, {8, 8, 203, 8, "", 2}})));
  save(t, "zero-height-ends", job(0, "", raster(CUPS_RASTER_WRITE, {{8, 0, 203, 8, "", 0}, {8, 8, 203, 8, "", 0}})));
  save(t, "truncated", job(1, "HalftoneType=Burkes", raster(CUPS_RASTER_WRITE, {{32, 32, 300, 8, "", 9}}, 1900)));
  save(t, "no-ppd", job(3, "", raster(CUPS_RASTER_WRITE_COMPRESSED, {{16, 4, 203, 8, "", 1}})));
}

void settingsSeeds() {
  const std::string t = "fuzz_settings";
  const std::string nul(1, '\0');
  save(t, "label",
       "PrintSpeed=4 HalftoneType=Ordered" + nul +
           "w288h432\n203dpi\nTransfer\nLabelGaps\n3\nTearOff\nNone\nRotation180\nTattoo\nTrue\nFalse\n2\n15\n10\n0\n0\n"
           "288 432\n/nonexistent/rec\n");
  save(t, "recording-long-prefix",
       "RecordPrinterCommands=1" + nul + "w288h432\n\n\n\n\n\n\n\n\n\n\n\n\n\n\n1\n288 432\n" +
           std::string(300, 'p') + "\n");
  save(t, "custom-size-quoting",
       "PageSize=Custom.100x200mm Origin='Rotation180' PrintSpeed=\"2\" MirrorImage=yes" + nul +
           "Custom\n300dpi\nDirect\nLabelMark\n0\nPartialCut\n\nNormal\nTattoo_X8\nno\n256\nNormal\n31\n-100\n7\n");
  save(t, "options-only", "HalftoneType=Tattoo PrintSpeed=Normal");
  save(t, "raw-ppd-lines",
       "Darkness=55" + nul +
           "w100h100\n\n\nContinue\n\n\n\n\n\n\n\n\n-1\n\n\n\n1e39 nan\n\n*Darkness 55: \"\"\n*kelvoFilterOutputFile: \n");
}

void zplSeeds() {
  const std::string t = "fuzz_zpl_decode";
  save(t, "one-page",
       "SIZE 8.0 mm, 2.0 mm\r\n^XX\r\n^PW64\r\n^LL16\r\n^XZ\r\n\r\n^XX\r\n^PQ1\n~DGR:CUPS.GRF,16,8,\nJF,:0F,80,"
       "^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n");
  save(t, "repeat-letters", "~DGR:X.GRF,104,104,\npNF\n~DGR:Y.GRF,120,60,\nkF,\nzgWA" + std::string(23, '0') + "\n");
  save(t, "bang-and-lower-case", "~dgR:A.GRF,6,3,\r\n!\r\n1f2e3d\n:\n^XZ");
  save(t, "two-graphics", "~DGR:A.GRF,2,1,\n80\nFF\n~DGE:B.GRF,4,2,\nH0,\n:\n");
  save(t, "truncated", "~DGR:CUPS.GRF,100,10,\nJF,");
}

void imageSeeds() {
  const std::string t = "fuzz_image";
  auto noise = [](size_t n, uint32_t state) {
    std::string s(n, '\0');
    for (char& c : s) {
      state = state * 1103515245u + 12345u;
      c = static_cast<char>(state >> 24);
    }
    return s;
  };
  auto be32 = [](uint32_t v) {
    return std::string{static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
                       static_cast<char>(v)};
  };
  // Stencil chain: mode, width, height, flags (layout, X8), threshold.
  save(t, "stencil-gray", std::string{0, 24, 16, 0} + be32(128) + noise(24 * 16, 1));
  save(t, "stencil-x8-two-levels", std::string{0, 16, 16, 8} + be32(255) + std::string(128, '\0') + std::string(128, '\xff'));
  save(t, "stencil-bgr", std::string{0, 10, 10, 1} + be32(0xFFFFFFFF) + noise(300, 2));
  // Palette operations: mode, depth, width, height, stride padding, flip,
  // count, nine bytes per operation.
  std::string ops;
  for (int op = 0; op < 10; ++op) ops += std::string{static_cast<char>(op), 0, 0, 0, 20, 0, 0, 0, 10};
  save(t, "palette-8bit-all", std::string{1, 2, 20, 10, 1, 0, 10} + ops + noise(220, 3));
  save(t, "palette-1bit", std::string{1, 0, 33, 5, 0, 1, 3} + ops.substr(18, 27) + noise(40, 4));
  // Pipeline: mode, width, height, padding, halftone, brightness, contrast,
  // flags, frame, frame resolution, blank edges, skip, copies, size name.
  for (int type : {0, 1, 5, 7, 8, 9}) {
    save(t, "pipeline-type" + std::to_string(type),
         std::string{2, 40, 24, 3, static_cast<char>(type)} + be32(10) + be32(static_cast<uint32_t>(-20)) +
             std::string{static_cast<char>(type % 8), static_cast<char>(type == 8), 20, 10, 0} + be32(2) +
             std::string{3} + noise(43 * 24, static_cast<uint32_t>(type)));
  }
  // Emitter: mode, width, height, skip, copies, cancel after this many bytes.
  save(t, "emitter-cancel", std::string{3, 100, 12, 0} + be32(1) + be32(300) + noise(1200, 5));
  save(t, "emitter-all-dots", std::string{3, 64, 8, 4} + be32(3) + be32(19999) + std::string(1, '\xff'));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <corpus folder>\n", argv[0]);
    return 2;
  }
  gRoot = argv[1];
  mkdir(gRoot.c_str(), 0755);
  filterSeeds();
  settingsSeeds();
  zplSeeds();
  imageSeeds();
  return 0;
}
