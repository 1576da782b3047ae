// The whole filter, in process, as the spooler runs it.
//
// Input: one byte choosing the PPD (the three shipped ones, or none), the
// job's option string up to a zero byte, then the raster stream.
//
// Properties: the filter returns; standard output always decodes as ZPL;
// every page that the raster stream delivers in full (read independently
// with libcups) comes out as one graphic of the page's size.
#include <cups/raster.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "filter/filter_main.h"
#include "filter/ppd_helpers.h"
#include "fuzz_util.h"
#include "printer/page_limits.h"
#include "tools/zpl_decode.h"

namespace {

// Pixels per input, all pages together: keeps every run well inside the
// per-input time limit. Inputs asking for more are skipped.
const unsigned long long kPageBudget = 256 * 1024;
// The decoder's widest row.
const unsigned long long kWidestPage = kZplMaxBytesPerRow * 8;

struct Page {
  unsigned width, height;
};

kfuzz::MemFile* gRaster;
kfuzz::MemFile* gOutput;
kfuzz::MemFile* gPpd[3];
KelvoPrintableArea gArea[4];  // what each PPD's model prints; none without a PPD

// The shipped PPD with its recording folder moved to one that does not
// exist: a job option can switch recording on, and a fuzzer must not leave
// a file per second in the spooler's folder.
std::string shippedPpd(const char* name) {
  std::string ppd = readFile(std::string(KELVO_FUZZ_PPD_DIR) + "/" + name);
  if (ppd.empty()) kfuzz::fail("shipped PPD %s not found in %s", name, KELVO_FUZZ_PPD_DIR);
  const std::string attribute = "*kelvoFilterOutputFile:";
  const size_t at = ppd.find(attribute);
  if (at != std::string::npos)
    ppd.replace(at, ppd.find('\n', at) - at, attribute + " \"/nonexistent/kelvo-fuzz/record\"");
  return ppd;
}

// What the filter should print, read with libcups alone: the pages before
// the first one that ends the job, that arrive in full. False when the
// pages are too large to fuzz quickly.
bool expectedPages(const KelvoPrintableArea& area, std::vector<Page>& pages) {
  const int fd = open(gRaster->path.c_str(), O_RDONLY);
  if (fd < 0) kfuzz::fail("cannot reopen the raster");
  cups_raster_t* raster = cupsRasterOpen(fd, CUPS_RASTER_READ);
  cups_page_header2_t h;
  unsigned long long budget = kPageBudget;
  bool fits = true;
  std::vector<unsigned char> pixels;
  while (raster != nullptr && cupsRasterReadHeader2(raster, &h)) {
    if (h.cupsBitsPerPixel != 8 || h.cupsHeight == 0 || h.cupsBytesPerLine == 0) break;
    const unsigned long long bytes = 1ULL * h.cupsBytesPerLine * h.cupsHeight;
    // Refused by the filter: it stops there.
    if (!kelvoPageRefusal(area, h, static_cast<unsigned>(pages.size()) + 1).empty()) break;
    if (bytes > budget || h.cupsWidth > kWidestPage) {
      fits = false;
      break;
    }
    budget -= bytes;
    pixels.resize(bytes);
    if (cupsRasterReadPixels(raster, pixels.data(), static_cast<unsigned>(bytes)) != 0)
      pages.push_back({h.cupsWidth, h.cupsHeight});
  }
  if (raster != nullptr) cupsRasterClose(raster);
  close(fd);
  return fits;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kfuzz::quietStderr();
  gRaster = new kfuzz::MemFile("raster");
  gOutput = new kfuzz::MemFile("zpl");
  const char* names[3] = {"kelvo203.ppd", "kelvo300.ppd", "kelvotat.ppd"};
  for (int i = 0; i < 3; ++i) {
    gPpd[i] = new kfuzz::MemFile(names[i]);
    gPpd[i]->set(shippedPpd(names[i]));
    ppd_file_t* ppd = kelvoPpdOpenFile(gPpd[i]->path.c_str(), nullptr);
    if (ppd == nullptr) kfuzz::fail("shipped PPD %s does not open", names[i]);
    gArea[i] = kelvoPpdPrintableArea(ppd);
    ppdClose(ppd);
  }
  // The printer's stream is standard output.
  std::fflush(stdout);
  if (dup2(gOutput->fd, STDOUT_FILENO) < 0) kfuzz::fail("cannot redirect standard output");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return -1;
  const int ppdChoice = data[0] % 4;
  const uint8_t* begin = data + 1;
  const uint8_t* end = data + size;
  const uint8_t* zero = static_cast<const uint8_t*>(std::memchr(begin, 0, static_cast<size_t>(end - begin)));
  std::string options(reinterpret_cast<const char*>(begin), static_cast<size_t>((zero ? zero : end) - begin));
  const uint8_t* raster = zero ? zero + 1 : end;
  gRaster->set(std::string(reinterpret_cast<const char*>(raster), static_cast<size_t>(end - raster)));

  std::vector<Page> pages;
  if (!expectedPages(gArea[ppdChoice], pages)) return -1;

  if (ppdChoice == 3)
    unsetenv("PPD");
  else
    setenv("PPD", gPpd[ppdChoice]->path.c_str(), 1);
  gOutput->set("");
  lseek(STDOUT_FILENO, 0, SEEK_SET);
  std::clearerr(stdout);
  // Debug pictures of PPDs that do not switch them off go to a folder that
  // does not exist.
  unsetenv("TMPDIR");

  std::string path = gRaster->path;
  char program[] = "rastertokelvozpl", job[] = "1", user[] = "fuzz", title[] = "fuzz", copies[] = "1";
  char* argv[] = {program, job, user, title, copies, &options[0], &path[0], nullptr};
  const int status = kelvoFilterMain(7, argv);
  std::fflush(stdout);

  if (status != 0 && status != 1) kfuzz::fail("exit status %d", status);
  const std::string out = gOutput->contents();
  std::vector<ZplGraphic> graphics;
  std::string error;
  if (!kelvoZplDecode(reinterpret_cast<const unsigned char*>(out.data()), out.size(), graphics, error))
    kfuzz::fail("the job does not decode: %s", error.c_str());
  // Without a usable page size nothing is printed at all.
  if (out.empty()) return 0;
  if (graphics.size() != pages.size())
    kfuzz::fail("%zu pages delivered, %zu graphics printed", pages.size(), graphics.size());
  for (size_t i = 0; i < pages.size(); ++i) {
    if (graphics[i].height != pages[i].height || graphics[i].bytesPerRow != (pages[i].width + 7) / 8)
      kfuzz::fail("page %zu of %u x %u pixels printed as %zu rows of %zu bytes", i + 1, pages[i].width,
                  pages[i].height, graphics[i].height, graphics[i].bytesPerRow);
  }
  return 0;
}
