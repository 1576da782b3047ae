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

#include "app/device.h"
#include "app/drivers.h"
#include "app/picture.h"
#include "app/printer_status.h"
#include "printer/page_engine.h"
#include "support/kelvo_log.h"
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
  bool failureTold = false;  // the job's message says why the device failed
  size_t before = 0;  // the device's count at the start (kelvoDeviceBeginJob)
  size_t handed = 0;  // bytes given to the device
};

// Every byte of the engine goes through the device; a cancelled job stops
// the engine at its next safe point.
ssize_t writeToDevice(void* cookie, const char* data, size_t size) {
  auto* state = static_cast<JobState*>(cookie);
  if (papplJobIsCanceled(state->job)) state->cancelled = 1;
  if (state->deviceFailed) return -1;
  state->handed += size;
  if (papplDeviceWrite(state->device, data, size) < 0) {
    state->deviceFailed = true;
    state->cancelled = 1;
    return -1;
  }
  return static_cast<ssize_t>(size);
}

// The engine's diagnostics go to the job's log, at the server's log level.
void logToJob(void* job, int level, const char* message) {
  const pappl_loglevel_t levels[] = {PAPPL_LOGLEVEL_DEBUG, PAPPL_LOGLEVEL_INFO,  PAPPL_LOGLEVEL_WARN, PAPPL_LOGLEVEL_ERROR,
                                     PAPPL_LOGLEVEL_ERROR, PAPPL_LOGLEVEL_ERROR, PAPPL_LOGLEVEL_WARN};
  papplLogJob(static_cast<pappl_job_t*>(job), level >= 0 && level <= LogWarning ? levels[level] : PAPPL_LOGLEVEL_ERROR,
              "%s", message);
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

// A printer that takes nothing is offline until it takes a job again.
void markOffline(pappl_job_t* job, bool offline) {
  pappl_printer_t* printer = papplJobGetPrinter(job);
  if (((papplPrinterGetReasons(printer) & PAPPL_PREASON_OFFLINE) != 0) != offline)
    papplPrinterSetReasons(printer, offline ? PAPPL_PREASON_OFFLINE : PAPPL_PREASON_NONE,
                           offline ? PAPPL_PREASON_NONE : PAPPL_PREASON_OFFLINE);
}

// A printer that stalls fails the job rather than keeping it for later:
// the printer may already hold and print part of it, and the jobs behind
// it would wait.
bool report(pappl_job_t* job, KelvoDelivery delivery, std::string message) {
  if (delivery == KelvoDelivery::kDelivered) {
    markOffline(job, false);
    return true;
  }
  if (papplJobIsCanceled(job)) return false;
  if (delivery == KelvoDelivery::kStalled) {
    markOffline(job, true);
    message += "; the job is stopped. Check the printer, then print the job again";
  }
  return fail(job, message.c_str());
}

// The device failed midway: why, as far as it knows.
bool deviceFailure(pappl_job_t* job, pappl_device_t* device, size_t before, size_t handed) {
  std::string message;
  KelvoDelivery delivery = kelvoDeviceFailure(device, before, handed, message);
  if (delivery == KelvoDelivery::kDelivered) delivery = KelvoDelivery::kLost, message = "The printer stopped taking data";
  return report(job, delivery, message);
}

// A job ends well only once the printer has all of it.
bool deliver(pappl_job_t* job, pappl_device_t* device, size_t before, size_t handed) {
  std::string message;
  const KelvoDelivery delivery = kelvoDeviceFinishJob(device, before, handed, message);
  return report(job, delivery, message);
}

// The printer's state after a job: the answer to the delivery check's own
// question where there was one, else a question of the status watch's.
bool afterJob(pappl_job_t* job, pappl_device_t* device) {
  const std::string answer = kelvoDeviceLastAnswer(device);
  if (!answer.empty())
    kelvoStatusNoteAnswer(papplJobGetPrinter(job), answer);
  else
    kelvoStatusJobEnds(job, device);
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
  state->before = kelvoDeviceBeginJob(device, job);
  kelvoLogSetSink(logToJob, job);
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
    kelvoLogSetSink(nullptr, nullptr);
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
    state->failureTold = true;
    return deviceFailure(job, state->device, state->before, state->handed);
  }
  return true;
}

bool kelvoEndJob(pappl_job_t* job, pappl_pr_options_t* /*options*/, pappl_device_t* device) {
  JobState* state = stateOf(job);
  if (state == nullptr) return false;
  const bool flushed = flushPage(*state);
  std::fclose(state->out);
  papplJobSetData(job, nullptr);
  kelvoLogSetSink(nullptr, nullptr);
  const size_t before = state->before, handed = state->handed;
  const bool told = state->failureTold;
  delete state;
  if (!flushed) return !told && deviceFailure(job, device, before, handed);
  return deliver(job, device, before, handed) && afterJob(job, device);
}

bool kelvoPrintFile(pappl_job_t* job, pappl_pr_options_t* options, pappl_device_t* device) {
  const int copies = options->copies > 0 ? options->copies : 1;
  if (!kelvoStatusJobStarts(job, device)) return false;
  const size_t before = kelvoDeviceBeginJob(device, job);
  size_t handed = 0;
  for (int copy = 0; copy < copies && !papplJobIsCanceled(job); ++copy) {
    const int fd = open(papplJobGetFilename(job), O_RDONLY);
    if (fd < 0) return fail(job, "Unable to read the job's document");
    unsigned char buffer[65536];
    ssize_t got = 0;
    bool ok = true;
    while (ok && (got = read(fd, buffer, sizeof buffer)) > 0 && !papplJobIsCanceled(job)) {
      handed += static_cast<size_t>(got);
      ok = papplDeviceWrite(device, buffer, static_cast<size_t>(got)) >= 0;
    }
    close(fd);
    if (!ok) return deviceFailure(job, device, before, handed);
    if (got < 0) return fail(job, "Unable to read the job's document");
  }
  return papplJobIsCanceled(job) || (deliver(job, device, before, handed) && afterJob(job, device));
}

namespace {

// A picture may hold four times the pixels of the model's largest page and
// twice its longer side: room to scale down a picture made for a printer of
// twice the resolution, none for one that would take seconds to decode.
void pictureBudget(const KelvoModel& model, size_t& maxPixels, uint32_t& maxSide) {
  double area = 0, side = 0;
  for (int i = 0; i < model.numMedia; ++i) {
    const double width = model.media[i].widthPt * model.dpi / 72, height = model.media[i].heightPt * model.dpi / 72;
    area = std::max(area, width * height);
    side = std::max(side, std::max(width, height));
  }
  maxPixels = static_cast<size_t>(4 * area);
  maxSide = static_cast<uint32_t>(2 * side);
}

const char* typeName(KelvoPictureType type) {
  return type == KelvoPictureType::kPng ? "PNG" : type == KelvoPictureType::kJpeg ? "JPEG" : "neither PNG nor JPEG";
}

// The picture's type by its bytes, which must be the type it was sent as.
bool checkType(pappl_job_t* job, KelvoPictureType& type) {
  const char* format = papplJobGetFormat(job);
  const KelvoPictureType declared = format != nullptr && std::strcmp(format, "image/png") == 0    ? KelvoPictureType::kPng
                                    : format != nullptr && std::strcmp(format, "image/jpeg") == 0 ? KelvoPictureType::kJpeg
                                                                                                 : KelvoPictureType::kUnknown;
  unsigned char head[16];
  ssize_t got = -1;
  const int fd = open(papplJobGetFilename(job), O_RDONLY);
  if (fd >= 0) {
    got = read(fd, head, sizeof head);
    close(fd);
  }
  if (got < 0) return fail(job, "Unable to read the job's document");
  if (got == 0) return fail(job, "The document is empty");
  type = kelvoPictureTypeOf(head, static_cast<size_t>(got));
  if (type == declared) return true;
  const std::string message = std::string("The document was sent as a ") + typeName(declared) + " picture but is " +
                              (type == KelvoPictureType::kUnknown ? "no picture this printer reads" :
                               std::string("a ") + typeName(type) + " picture");
  return fail(job, message.c_str());
}

// The orientation a job asked for; one it did not ask for lets the picture
// turn to suit the page, as CUPS turns pictures.
ipp_orient_t orientationOf(pappl_job_t* job, const pappl_pr_options_t& options) {
  if (papplJobGetAttribute(job, "orientation-requested") == nullptr && options.orientation_requested == IPP_ORIENT_PORTRAIT)
    return IPP_ORIENT_NONE;
  return options.orientation_requested;
}

}  // namespace

bool kelvoPrintPicture(pappl_job_t* job, pappl_device_t* device, void* /*data*/) {
  KelvoPictureType type = KelvoPictureType::kUnknown;
  if (!checkType(job, type)) return false;
  const KelvoModel* model = kelvoFindModel(papplPrinterGetDriverName(papplJobGetPrinter(job)));
  if (model == nullptr) return fail(job, "The printer's driver is not one of this application's");
  size_t maxPixels = 0;
  uint32_t maxSide = 0;
  pictureBudget(*model, maxPixels, maxSide);
  KelvoPicture picture;
  std::string error;
  if (!kelvoDecodePicture(papplJobGetFilename(job), type, maxPixels, maxSide, picture, error))
    return fail(job, error.c_str());

  pappl_pr_options_t* options = papplJobCreatePrintOptions(job, 1, false);
  if (options == nullptr) return fail(job, "Out of memory");
  const unsigned copies = options->copies > 1 ? static_cast<unsigned>(options->copies) : 1;
  papplJobSetImpressions(job, static_cast<int>(copies));
  bool ok = kelvoStartJob(job, options, device) && kelvoStartPage(job, options, device, 1);
  if (ok) {
    // The page as the engine takes it, filled once; each copy prints it.
    JobState* state = stateOf(job);
    const cups_page_header2_t& header = state->header;
    kelvoPlacePicture(picture, options->print_scaling, orientationOf(job, *options), header.cupsWidth,
                      header.cupsHeight, header.HWResolution[0], header.HWResolution[1], state->page.get(),
                      header.cupsBytesPerLine);
    state->rows = header.cupsHeight;
    picture = KelvoPicture();
    // The printer repeats the label (^PQ), as for raster documents: the
    // engine halftones the page in place, so it renders it once.
    state->engine->settings().copies = copies;
    ok = kelvoEndPage(job, options, device, 1);
    if (ok) papplJobSetImpressionsCompleted(job, static_cast<int>(copies));
  }
  if (stateOf(job) != nullptr) ok = kelvoEndJob(job, options, device) && ok;
  papplJobDeletePrintOptions(options);
  return ok;
}

void kelvoAddPictureFilters(pappl_system_t* system) {
  papplSystemAddMIMEFilter(system, "image/png", kKelvoZplFormat, kelvoPrintPicture, nullptr);
  papplSystemAddMIMEFilter(system, "image/jpeg", kKelvoZplFormat, kelvoPrintPicture, nullptr);
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
  // PAPPL starts the newest of several queued jobs: the thread prints the
  // oldest instead, so that labels come out in the order they were sent.
  // The job it was started for stays queued for a thread of its own.
  std::pair<pappl_job_t*, int> oldest{job, id};
  papplPrinterIterateActiveJobs(
      printer,
      [](pappl_job_t* active, void* data) {
        auto* found = static_cast<std::pair<pappl_job_t*, int>*>(data);
        if (papplJobGetState(active) == IPP_JSTATE_PENDING && papplJobGetID(active) < found->second)
          *found = {active, papplJobGetID(active)};
      },
      &oldest, 1, 0);
  void* result = pappl(oldest.first);
  kelvoLogSetSink(nullptr, nullptr);  // a job that failed midway may not have ended it
  return result;
}
#endif
