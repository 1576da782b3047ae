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
#include "printer/page_engine.h"
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

// One job in progress: its own engine and page buffer.
struct JobState {
  pappl_job_t* job = nullptr;
  pappl_device_t* device = nullptr;
  const KelvoModel* model = nullptr;
  KelvoSink sink;
  std::unique_ptr<KelvoEngine> engine;
  cups_page_header2_t header{};
  std::unique_ptr<unsigned char, decltype(&std::free)> page{nullptr, &std::free};
  bool invert = false;  // the page comes as grey levels (255 = paper)
  unsigned rows = 0;    // rows of the page received so far, in order
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
  KelvoJobSettings settings = kelvoSettingsFromOptions(*model, *options, data.mode_configured);
  // PAPPL prints an image document once a copy, but a raster document
  // once: there the printer repeats each page.
  const char* format = papplJobGetFormat(job);
  if (format != nullptr && (std::strcmp(format, "image/pwg-raster") == 0 || std::strcmp(format, "image/urf") == 0))
    settings.copies = options->copies > 1 ? static_cast<unsigned>(options->copies) : 1;
  cookie_io_functions_t io{nullptr, writeToDevice, nullptr, nullptr};
  state->out = fopencookie(state, "w", io);
  if (state->out == nullptr) {
    delete state;
    return fail(job, "Out of memory");
  }
  setvbuf(state->out, nullptr, _IOFBF, 64 * 1024);
  state->sink.addStream(state->out);
  state->sink.setCancelFlag(&state->cancelled);
  state->engine = std::make_unique<KelvoEngine>(settings, printableArea(*model), state->sink);
  papplJobSetData(job, state);
  papplLogJob(job, PAPPL_LOGLEVEL_DEBUG, "halftone %s, darkness %d, speed %d, copies %d",
              kelvoHalftoneName(settings.halftone), settings.darkness, settings.speed, options->copies);
  state->engine->wakePrinter();
  return true;
}

bool kelvoStartPage(pappl_job_t* job, pappl_pr_options_t* options, pappl_device_t* /*device*/, unsigned page) {
  JobState* state = stateOf(job);
  if (state == nullptr) return false;
  state->header = options->header;
  const cups_page_header2_t& header = state->header;
  const std::string refusal = state->engine->checkPage(header, page);
  if (!refusal.empty()) return fail(job, refusal.c_str());
  state->invert = header.cupsColorSpace != CUPS_CSPACE_K;
  const unsigned long long bytes = static_cast<unsigned long long>(header.cupsBytesPerLine) * header.cupsHeight;
  state->page.reset(static_cast<unsigned char*>(kelvoPageBuffer(static_cast<size_t>(bytes))));
  if (!state->page) return fail(job, "Out of memory");
  state->rows = 0;
  state->engine->settings().sheet = ppdSizeName(*state->model, options->media.size_name);
  state->engine->startPage(header);
  return true;
}

bool kelvoWriteLine(pappl_job_t* job, pappl_pr_options_t* /*options*/, pappl_device_t* /*device*/, unsigned y,
                    const unsigned char* line) {
  JobState* state = stateOf(job);
  // Rows come in order; one that does not is never printed (the page then
  // ends short of its rows).
  if (state == nullptr || y != state->rows || y >= state->header.cupsHeight) return state != nullptr;
  const size_t stride = state->header.cupsBytesPerLine;
  unsigned char* row = state->page.get() + stride * y;
  ++state->rows;
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
  const cups_page_header2_t& header = state->header;
  // A document cut short would print a page of blank paper at its end.
  if (state->rows < header.cupsHeight) {
    papplJobSetMessage(job, "Page %u ends after %u of its %u rows; the document is cut short", page, state->rows,
                       header.cupsHeight);
    papplLogJob(job, PAPPL_LOGLEVEL_ERROR, "Page %u ends after %u of its %u rows", page, state->rows,
                header.cupsHeight);
    return false;
  }
  if (!state->engine->finishPage(state->page.get())) return fail(job, "Out of memory");
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

const KelvoJobCallbacks kelvoJobCallbacks = {kelvoPrintFile, kelvoStartJob, kelvoStartPage,
                                              kelvoWriteLine, kelvoEndPage,  kelvoEndJob};

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
