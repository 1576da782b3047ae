#include "filter/filter_main.h"

#include <cups/raster.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "filter/job_setup.h"
#include "filter/settings.h"
#include "printer/zpl_printer.h"
#include "support/kelvo_log.h"
#include "support/kelvo_string.h"

namespace {

const char sVersion[] = "3.13.13";

struct CFileCloser {
  void operator()(FILE* file) const { std::fclose(file); }
};

// Refuses pages the pipeline cannot hold safely; valid jobs never hit this.
bool pageFits(const cups_page_header2_t& header) {
  const unsigned long long bytes =
      static_cast<unsigned long long>(header.cupsBytesPerLine) * static_cast<unsigned long long>(header.cupsHeight);
  if (bytes > 0xFFFFFFFFULL || bytes > kKelvoMaxPageBytes) {
    kelvoLogCommon(LogError, "Page of %u x %u pixels (%llu bytes) is larger than the %llu bytes this filter accepts",
                   header.cupsWidth, header.cupsHeight, bytes, kKelvoMaxPageBytes);
    return false;
  }
  // A page without pixels has nothing to print; the pipeline would fail on
  // it and could send the previous page's picture again.
  if (header.cupsWidth == 0) {
    kelvoLogCommon(LogError, "Page header is inconsistent: %u bytes per line but no pixels", header.cupsBytesPerLine);
    return false;
  }
  if (header.cupsWidth > header.cupsBytesPerLine) {
    kelvoLogCommon(LogError, "Page header is inconsistent: %u pixels per line but only %u bytes per line",
                   header.cupsWidth, header.cupsBytesPerLine);
    return false;
  }
  if (header.HWResolution[0] == 0 || header.HWResolution[1] == 0) {
    kelvoLogCommon(LogError, "Page header has no resolution (%u x %u dpi)", header.HWResolution[0],
                   header.HWResolution[1]);
    return false;
  }
  return true;
}

// Only sets the flag; the page loop and the graphic emitter act on it.
extern "C" void onCancel(int) { sJobCancelled = 1; }

// For the length of a job: SIGTERM (the spooler cancelling the job) sets the
// cancel flag, and SIGPIPE is ignored so that a printer connection that went
// away shows up as a write error. The previous handlers come back at the
// end, since the entry is also called in process.
class JobSignals {
 public:
  JobSignals() {
    struct sigaction cancel {};
    cancel.sa_handler = onCancel;
    sigemptyset(&cancel.sa_mask);
    // Interrupted reads and writes resume: a write cut short by the signal
    // would drop bytes from the middle of a graphic.
    cancel.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &cancel, &oldTerm_);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGPIPE, &ignore, &oldPipe_);
  }
  ~JobSignals() {
    sigaction(SIGPIPE, &oldPipe_, nullptr);
    sigaction(SIGTERM, &oldTerm_, nullptr);
  }
  JobSignals(const JobSignals&) = delete;
  JobSignals& operator=(const JobSignals&) = delete;

 private:
  struct sigaction oldTerm_ {};
  struct sigaction oldPipe_ {};
};

// True when the printer's stream (standard output) can no longer be written:
// a full disk, a closed descriptor, a connection that went away. Flushing
// first makes the failure show now and leaves its reason in errno.
bool outputFailed(FILE* out) {
  errno = 0;
  const bool failed = std::fflush(out) != 0 || std::ferror(out) != 0;
  if (failed)
    kelvoLogCommon(LogError, "Unable to send the job to the printer: writing standard output failed (%s)",
                   errno != 0 ? std::strerror(errno) : "write error");
  return failed;
}

// The value of an enumerated header field as the stream delivered it. The
// header is read from the stream byte for byte, so a hostile job can put any
// 32-bit value there; reading that through the enumeration is undefined.
template <typename Field>
int rawField(const Field& field) {
  static_assert(sizeof(Field) == sizeof(int), "raster header fields are 32 bits");
  int value;
  std::memcpy(&value, &field, sizeof value);
  return value;
}

void logHeader(int pageCount, const cups_page_header2_t& header) {
  // The first two lines end in a newline of their own, so each is followed by
  // an empty line in the log; people reading the logs are used to that.
  kelvoLogCommon(LogDebug, "PAGE: %d %d\n", pageCount, header.NumCopies);
  kelvoLogCommon(LogDebug, "header.HWResolution[0]:%d\n", header.HWResolution[0]);
  kelvoLogCommon(LogDebug, "header.HWResolution[1]:%d", header.HWResolution[1]);
  kelvoLogCommon(LogDebug, "header.cupsWidth:%d", header.cupsWidth);
  kelvoLogCommon(LogDebug, "header.cupsHeight:%d", header.cupsHeight);
  kelvoLogCommon(LogDebug, "header.cupsMediaType:%d", header.cupsMediaType);
  kelvoLogCommon(LogDebug, "header.cupsBitsPerColor:%d", header.cupsBitsPerColor);
  kelvoLogCommon(LogDebug, "header.cupsBitsPerPixel:%d", header.cupsBitsPerPixel);
  kelvoLogCommon(LogDebug, "header.cupsBytesPerLine:%d", header.cupsBytesPerLine);
  kelvoLogCommon(LogDebug, "header.cupsColorOrder:%d", rawField(header.cupsColorOrder));
  kelvoLogCommon(LogDebug, "header.cupsColorSpace:%d", rawField(header.cupsColorSpace));
  kelvoLogCommon(LogDebug, "header.cupsCompression:%d", header.cupsCompression);
  kelvoLogCommon(LogDebug, "header.cupsRowCount:%d", header.cupsRowCount);
  kelvoLogCommon(LogDebug, "header.cupsRowFeed:%d", header.cupsRowFeed);
  kelvoLogCommon(LogDebug, "header.cupsRowStep:%d", header.cupsRowStep);
}

// Reads and prints pages until the stream ends; returns the exit status.
int pageLoop(cups_raster_t* raster, Settings& settings, KelvoPrinter& printer, unsigned char*& buffer) {
  cups_page_header2_t header;
  int pageCount = 0;
  FILE* out = printer.getOutputStreams().front();
  while (!sJobCancelled && cupsRasterReadHeader2(raster, &header)) {
    if (header.cupsBitsPerPixel != 8) {
      kelvoLogCommon(LogError, "Unsupported bits per pixel : %d ! Requires 8 bits per pixel!",
                     header.cupsBitsPerPixel);
      return 1;
    }
    // An empty page ends the whole job successfully: the spooler sends one
    // after the last real page on some printers.
    if (header.cupsHeight == 0 || header.cupsBytesPerLine == 0) return 0;
    if (!pageFits(header)) return 1;
    const unsigned int pageBytes = header.cupsBytesPerLine * header.cupsHeight;

    unsigned char* grown = static_cast<unsigned char*>(std::realloc(buffer, pageBytes));
    if (grown == nullptr) return 1;
    buffer = grown;

    // From here on the raster's own size is the page size of the job.
    settings.pageWidth = static_cast<float>(header.cupsWidth * 25.4 / header.HWResolution[0]);
    settings.pageHeight = static_cast<float>(header.cupsHeight * 25.4 / header.HWResolution[1]);
    kelvoLogCommon(LogDebug, "pageWidth: %f,pageHeight: %f", settings.pageWidth, settings.pageHeight);

    jobSetup(&settings);
    printer.setPageHeader(&header);
    printer.setBrightness(settings.Brightness);
    printer.setHalftoneType(static_cast<DitherType>(settings.halftoneType));
    printer.setMirrorPrint(settings.MirrorImage != 0);
    printer.setNegativePrint(settings.NegativeImage != 0);
    setCls();

    ++pageCount;
    logHeader(pageCount, header);

    if (cupsRasterReadPixels(raster, buffer, pageBytes) != 0 && !sJobCancelled) {
      // The line-repeat compression must never refer to a row of an earlier page.
      LastSet = 0;
      printer.printImage(buffer, header.cupsBytesPerLine, header.cupsHeight, header.cupsWidth);
    }
    // Stop at the first page the printer could not receive; the rest would
    // be rendered for nobody.
    if (outputFailed(out)) return 1;
  }
  // Cancelling is the spooler's decision, not a failure of the job.
  if (sJobCancelled) kelvoLogCommon(LogDebug, "Job cancelled after %d pages", pageCount);
  return 0;
}

}  // namespace

int kelvoFilterMain(int argc, char** argv) {
  const char* program = argc > 0 && argv[0] != nullptr ? argv[0] : "rastertokelvozpl";
  const char* options = argc > 5 ? argv[5] : nullptr;
  const char* rasterPath = argc > 6 ? argv[6] : nullptr;

  if (argc < 6) {
    // "copyies" is how the usage line has always been spelt.
    std::fprintf(stderr, "%s v%s\n\nUsage:\n\n    %s job_id user title copyies options [file]\n\n",
                 kelvoPathGetBasename(program), sVersion, kelvoPathGetBasename(program));
    return 1;
  }

  // Without it every byte would be lost, and a file opened next could take
  // its descriptor.
  if (fcntl(STDOUT_FILENO, F_GETFD) == -1) {
    kelvoLogCommon(LogError, "Standard output is closed, there is nowhere to send the job");
    return 1;
  }

  int fd = 0;
  if (rasterPath != nullptr) {
    fd = open(rasterPath, O_RDONLY);
    if (fd == -1) {
      std::fprintf(stderr, "ERROR: Unable to open raster file - ");
      return 1;
    }
  }

  sJobCancelled = 0;
  JobSignals signals;
  int status = 1;
  std::unique_ptr<ZplPrinter> printer(new ZplPrinter());
  std::unique_ptr<FILE, CFileCloser> recording;
  sPrinter = printer.get();
  Settings settings{};
  unsigned char* buffer = nullptr;
  cups_raster_t* raster = nullptr;

  parseSettings(&settings, options);

  if (settings.outputFile[0] != '\0') {
    recording.reset(std::fopen(settings.outputFile, "w"));
    if (recording) {
      kelvoLogCommon(LogDebug, "Filter data output to: %s", settings.outputFile);
      printer->getOutputStreams().push_back(recording.get());
    } else {
      kelvoLogCommon(LogError, "Unable to open the recording file %s: %s", settings.outputFile,
                     std::strerror(errno));
    }
  }

  // Only a missing or vanishing size is refused, whatever the message says;
  // the text is what support staff search the logs for.
  if (settings.pageWidth <= 0.000001 || settings.pageHeight <= 0.000001) {
    std::fprintf(stderr, "ERROR: Paper size must not less than 1.0 : (%f, %f)\n", settings.pageWidth,
                 settings.pageHeight);
  } else {
    // Line feeds wake the printer and flush anything left in its parser.
    for (int i = 0; i < 64; ++i) printer->printByte('\n');
    raster = cupsRasterOpen(fd, CUPS_RASTER_READ);
    status = pageLoop(raster, settings, *printer, buffer);
  }

  std::free(buffer);
  if (raster != nullptr) cupsRasterClose(raster);
  // The last bytes may still sit in a buffer; a job whose end never reached
  // the printer has failed.
  if (status == 0 && outputFailed(stdout)) status = 1;
  if (recording && (std::fflush(recording.get()) != 0 || std::ferror(recording.get()) != 0))
    kelvoLogCommon(LogError, "Recording file %s is incomplete: %s", settings.outputFile, std::strerror(errno));
  if (fd != 0) close(fd);
  sPrinter = nullptr;
  return status;
}
