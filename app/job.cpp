#include "app/job.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "app/drivers.h"
#include "app/printer_status.h"
#include "printer/label_setup.h"
#include "printer/page_limits.h"
#include "printer/zpl_printer.h"
#include "support/kelvo_string.h"
#include "support/page_buffer.h"

namespace {

// What a model prints, for the page limits the filter applies too: its
// widest size; a label as long as a label printer takes, a stencil as long
// as its longest sheet.
KelvoPrintableArea printableArea(const KelvoModel& model) {
  KelvoPrintableArea area;
  area.dpi = static_cast<unsigned>(model.dpi);
  area.longestPt = model.stencil ? 0 : kKelvoLongestLabelPt;
  for (int i = 0; i < model.numMedia; ++i) {
    area.widestPt = std::max(area.widestPt, static_cast<double>(model.media[i].widthPt));
    if (model.stencil) area.longestPt = std::max(area.longestPt, static_cast<double>(model.media[i].heightPt));
  }
  return area;
}

// One job in progress: its own engine, settings and page buffer.
struct JobState {
  pappl_job_t* job = nullptr;
  pappl_device_t* device = nullptr;
  const KelvoModel* model = nullptr;
  ZplPrinter printer;
  Settings settings{};
  cups_page_header2_t header{};
  std::unique_ptr<unsigned char, decltype(&std::free)> page{nullptr, &std::free};
  bool invert = false;  // the page comes as grey levels (255 = paper)
  unsigned copies = 1;  // the printer's copy count of every page (^PQ)
  unsigned rows = 0;    // rows of the page received so far
  FILE* out = nullptr;
  volatile std::sig_atomic_t cancelled = 0;
  bool deviceFailed = false;
};

// Every byte of the engine goes through the device; a cancelled job stops
// the engine at its next safe point.
ssize_t writeToDevice(void* cookie, const char* data, size_t size) {
  auto* state = static_cast<JobState*>(cookie);
  if (papplJobIsCanceled(state->job)) state->cancelled = 1;
  if (state->deviceFailed) return -1;
  if (papplDeviceWrite(state->device, data, size) < 0) {
    state->deviceFailed = true;
    state->cancelled = 1;
    return -1;
  }
  return static_cast<ssize_t>(size);
}

JobState* stateOf(pappl_job_t* job) { return static_cast<JobState*>(papplJobGetData(job)); }

const char* ppdSizeName(const KelvoModel& model, const char* pwgName) {
  for (int i = 0; i < model.numMedia; ++i)
    if (std::strcmp(model.media[i].pwgName, pwgName) == 0) return model.media[i].ppdName;
  return "Custom";
}

bool fail(pappl_job_t* job, const char* message) {
  papplJobSetMessage(job, "%s", message);
  papplLogJob(job, PAPPL_LOGLEVEL_ERROR, "%s", message);
  return false;
}

// A job carries only the vendor choices sent with it; the printer's own
// defaults (set in the web interface or with Set-Printer-Attributes) fill in
// the others, as they do for the standard choices.
void addVendorDefaults(pappl_printer_t* printer, const pappl_pr_driver_data_t& data, pappl_pr_options_t* options) {
  ipp_t* attrs = papplPrinterGetDriverAttributes(printer);  // a copy
  for (int i = 0; i < data.num_vendor; ++i) {
    if (cupsGetOption(data.vendor[i], options->num_vendor, options->vendor) != nullptr) continue;
    const std::string name = std::string(data.vendor[i]) + "-default";
    ipp_attribute_t* attr = ippFindAttribute(attrs, name.c_str(), IPP_TAG_ZERO);
    char value[256];
    if (attr != nullptr && ippAttributeString(attr, value, sizeof value) > 0)
      options->num_vendor = cupsAddOption(data.vendor[i], value, options->num_vendor, &options->vendor);
  }
  ippDelete(attrs);
}

bool flushPage(JobState& state) {
  if (std::fflush(state.out) != 0 || state.deviceFailed) {
    state.deviceFailed = true;
    return false;
  }
  papplDeviceFlush(state.device);
  return true;
}

}  // namespace

bool kelvoStartJob(pappl_job_t* job, pappl_pr_options_t* options, pappl_device_t* device) {
  pappl_printer_t* printer = papplJobGetPrinter(job);
  pappl_pr_driver_data_t data;
  papplPrinterGetDriverData(printer, &data);
  const KelvoModel* model = kelvoFindModel(papplPrinterGetDriverName(printer));
  if (model == nullptr) return fail(job, "The printer's driver is not one of this application's");
  if (!kelvoStatusJobStarts(job, device)) return false;

  auto* state = new JobState;
  state->job = job;
  state->device = device;
  state->model = model;
  addVendorDefaults(printer, data, options);
  kelvoSettingsFromOptions(*model, *options, data.mode_configured, &state->settings);
  cookie_io_functions_t io{nullptr, writeToDevice, nullptr, nullptr};
  state->out = fopencookie(state, "w", io);
  if (state->out == nullptr) {
    delete state;
    return fail(job, "Out of memory");
  }
  setvbuf(state->out, nullptr, _IOFBF, 64 * 1024);
  state->printer.getOutputStreams().clear();
  state->printer.getOutputStreams().push_back(state->out);
  state->printer.setCancelFlag(&state->cancelled);
  state->printer.setDialect(state->settings.dialect);
  state->printer.setGraphicEncoding(state->settings.encoding);
  // PAPPL prints an image document once a copy, but a raster document
  // once: there the printer repeats each page.
  const char* format = papplJobGetFormat(job);
  if (format != nullptr && (std::strcmp(format, "image/pwg-raster") == 0 || std::strcmp(format, "image/urf") == 0))
    state->copies = options->copies > 1 ? static_cast<unsigned>(options->copies) : 1;
  papplJobSetData(job, state);
  papplLogJob(job, PAPPL_LOGLEVEL_DEBUG, "halftone %d, darkness %d, speed %s, copies %d",
              static_cast<int>(state->settings.halftoneType), state->settings.Darkness, state->settings.PrintSpeed,
              options->copies);
  // Line feeds wake the printer and flush anything left in its parser.
  for (int i = 0; i < 64; ++i) state->printer.printByte('\n');
  return true;
}

bool kelvoStartPage(pappl_job_t* job, pappl_pr_options_t* options, pappl_device_t* /*device*/, unsigned page) {
  JobState* state = stateOf(job);
  if (state == nullptr) return false;
  state->header = options->header;
  cups_page_header2_t& header = state->header;
  if (header.cupsBitsPerPixel != 8)
    return fail(job, "The page is not 8-bit grey; the printer application asked for 8-bit pages");
  const std::string refusal = kelvoPageRefusal(printableArea(*state->model), header, page);
  if (!refusal.empty()) return fail(job, refusal.c_str());
  const unsigned long long bytes = static_cast<unsigned long long>(header.cupsBytesPerLine) * header.cupsHeight;
  state->invert = header.cupsColorSpace != CUPS_CSPACE_K;
  header.NumCopies = state->copies;
  kelvoStrCpy(header.cupsPageSizeName, ppdSizeName(*state->model, options->media.size_name),
              sizeof header.cupsPageSizeName);
  // Cleared all the same: a row the document never sends prints as paper.
  state->page.reset(static_cast<unsigned char*>(kelvoPageBuffer(static_cast<size_t>(bytes))));
  if (!state->page) return fail(job, "Out of memory");
  std::memset(state->page.get(), 0, static_cast<size_t>(bytes));
  state->rows = 0;
  return true;
}

bool kelvoWriteLine(pappl_job_t* job, pappl_pr_options_t* /*options*/, pappl_device_t* /*device*/, unsigned y,
                    const unsigned char* line) {
  JobState* state = stateOf(job);
  if (state == nullptr || y >= state->header.cupsHeight) return state != nullptr;
  const size_t stride = state->header.cupsBytesPerLine;
  unsigned char* row = state->page.get() + stride * y;
  if (y + 1 > state->rows) state->rows = y + 1;
  if (state->invert) {
    for (size_t x = 0; x < stride; ++x) row[x] = static_cast<unsigned char>(255 - line[x]);
  } else {
    std::memcpy(row, line, stride);
  }
  return true;
}

bool kelvoEndPage(pappl_job_t* job, pappl_pr_options_t* /*options*/, pappl_device_t* /*device*/, unsigned page) {
  JobState* state = stateOf(job);
  if (state == nullptr) return false;
  if (papplJobIsCanceled(job)) return true;
  cups_page_header2_t& header = state->header;
  // A document cut short would print a page of blank paper at its end.
  if (state->rows < header.cupsHeight) {
    papplJobSetMessage(job, "Page %u ends after %u of its %u rows; the document is cut short", page, state->rows,
                       header.cupsHeight);
    papplLogJob(job, PAPPL_LOGLEVEL_ERROR, "Page %u ends after %u of its %u rows", page, state->rows,
                header.cupsHeight);
    return false;
  }
  Settings& settings = state->settings;
  KelvoPrinter& printer = state->printer;
  // The same steps, in the same order, as the filter's page loop.
  settings.pageWidth = static_cast<float>(header.cupsWidth * 25.4 / header.HWResolution[0]);
  settings.pageHeight = static_cast<float>(header.cupsHeight * 25.4 / header.HWResolution[1]);
  settings.pageWidthDots = header.cupsWidth;
  settings.pageHeightDots = header.cupsHeight;
  kelvoStrCpy(settings.PageSize, header.cupsPageSizeName, sizeof settings.PageSize);
  jobSetup(printer, &settings);
  printer.setPageHeader(&header);
  printer.setBrightness(settings.Brightness);
  printer.setHalftoneType(settings.halftoneType);
  printer.setMirrorPrint(settings.MirrorImage != 0);
  printer.setNegativePrint(settings.NegativeImage != 0);
  setCls(printer);
  printer.startPage();
  printer.printImage(state->page.get(), header.cupsBytesPerLine, header.cupsHeight, header.cupsWidth);
  if (!flushPage(*state)) {
    papplJobSetMessage(job, "The printer stopped taking data during page %u", page);
    return false;
  }
  return true;
}

bool kelvoEndJob(pappl_job_t* job, pappl_pr_options_t* /*options*/, pappl_device_t* /*device*/) {
  JobState* state = stateOf(job);
  if (state == nullptr) return false;
  const bool ok = flushPage(*state);
  if (ok) kelvoStatusJobEnds(job, state->device);
  std::fclose(state->out);
  papplJobSetData(job, nullptr);
  delete state;
  if (!ok) papplJobSetMessage(job, "The printer stopped taking data");
  return ok;
}

bool kelvoPrintFile(pappl_job_t* job, pappl_pr_options_t* options, pappl_device_t* device) {
  const int copies = options->copies > 0 ? options->copies : 1;
  if (!kelvoStatusJobStarts(job, device)) return false;
  for (int copy = 0; copy < copies; ++copy) {
    const int fd = open(papplJobGetFilename(job), O_RDONLY);
    if (fd < 0) return fail(job, "Unable to read the job's document");
    unsigned char buffer[65536];
    ssize_t got = 0;
    bool ok = true;
    while (ok && (got = read(fd, buffer, sizeof buffer)) > 0) {
      if (papplJobIsCanceled(job)) break;
      ok = papplDeviceWrite(device, buffer, static_cast<size_t>(got)) >= 0;
    }
    close(fd);
    if (!ok || got < 0) return fail(job, ok ? "Unable to read the job's document" : "The printer stopped taking data");
    papplDeviceFlush(device);
    if (papplJobIsCanceled(job)) break;
  }
  kelvoStatusJobEnds(job, device);
  return true;
}

#ifdef KELVO_PAPPL_JOB_GUARD
// PAPPL 1.3.1 starts a job on a thread of its own and only marks the job
// and its printer busy once that thread runs. A job arriving, or another
// ending, in between starts a second thread: for the same job, or for the
// next one on the same printer. Both then print through the printer's one
// device, and the first to end closes it under the other, which crashes
// the server. This function of ours takes the place of PAPPL's job thread
// (PAPPL looks it up by name, so ours is found first) and lets one job of a
// printer through at a time; a thread whose job has meanwhile been printed
// by another ends there.
extern "C" void* _papplJobProcess(pappl_job_t* job) {
  using JobThread = void* (*)(pappl_job_t*);
  static const auto pappl = reinterpret_cast<JobThread>(dlsym(RTLD_NEXT, "_papplJobProcess"));
  static std::mutex turnsLock;
  static std::map<pappl_printer_t*, std::unique_ptr<std::mutex>> turns;  // kept for the server's life
  if (pappl == nullptr) std::abort();

  pappl_printer_t* printer = papplJobGetPrinter(job);
  const int id = papplJobGetID(job);
  std::mutex* turn;
  {
    std::lock_guard<std::mutex> lock(turnsLock);
    std::unique_ptr<std::mutex>& slot = turns[printer];
    if (!slot) slot = std::make_unique<std::mutex>();
    turn = slot.get();
  }
  std::lock_guard<std::mutex> printing(*turn);
  // The job may have been printed and dropped from the history meanwhile:
  // find it by its number before touching it.
  if (papplPrinterFindJob(printer, id) != job || papplJobGetState(job) != IPP_JSTATE_PENDING) {
    papplLogPrinter(printer, PAPPL_LOGLEVEL_DEBUG, "Job %d was started twice; the second start ends here", id);
    return nullptr;
  }
  return pappl(job);
}
#endif
