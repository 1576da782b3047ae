#include "app/restart.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "app/device.h"
#include "app/job.h"

namespace {

// PAPPL waits for every job thread before it ends; a job waiting on a
// printer would keep it for good. After a stop request the application ends
// the process itself after this long.
constexpr auto kStopGrace = std::chrono::milliseconds(3000);

struct Interrupted {
  int printer;
  int job;
  bool again;  // printed again; aborted when its document is gone
};

// A quoted attribute of a state file line: ` name="value"`.
std::string attribute(const std::string& line, const char* name) {
  const std::string key = std::string(" ") + name + "=\"";
  const size_t at = line.find(key);
  if (at == std::string::npos) return "";
  const size_t start = at + key.size(), end = line.find('"', start);
  return end == std::string::npos ? "" : line.substr(start, end - start);
}

void setAttribute(std::string& line, const char* name, const char* value) {
  const std::string key = std::string(" ") + name + "=\"";
  const size_t start = line.find(key) + key.size();
  line.replace(start, line.find('"', start) - start, value);
}

// Rewrites the state file's interrupted jobs (state 5, processing) as
// pending (3), or as aborted (8) when their document is gone: PAPPL 1.3
// loads a processing job as aborted, or leaves it processing for good.
std::vector<Interrupted> reviveInterrupted(const char* stateFile) {
  std::vector<Interrupted> found;
  std::ifstream in(stateFile);
  if (!in) return found;
  std::string revised;
  int printer = 0;
  for (std::string line; std::getline(in, line); revised += line + '\n') {
    if (line.rfind("<Printer ", 0) == 0) printer = std::atoi(attribute(line, "id").c_str());
    if (line.rfind("Job ", 0) != 0 || attribute(line, "state") != "5") continue;
    struct stat info;
    const std::string document = attribute(line, "filename");
    const bool again = !document.empty() && stat(document.c_str(), &info) == 0;
    setAttribute(line, "state", again ? "3" : "8");
    found.push_back({printer, std::atoi(attribute(line, "id").c_str()), again});
  }
  if (found.empty()) return found;
  const std::string part = std::string(stateFile) + ".part";
  std::ofstream rewritten(part);
  rewritten << revised;
  rewritten.close();
  if (!rewritten || std::rename(part.c_str(), stateFile) != 0) found.clear();
  return found;
}

void tellInterrupted(pappl_system_t* system, const std::vector<Interrupted>& jobs) {
  for (const Interrupted& interrupted : jobs) {
    pappl_printer_t* printer = papplSystemFindPrinter(system, nullptr, interrupted.printer, nullptr);
    pappl_job_t* job = printer != nullptr ? papplPrinterFindJob(printer, interrupted.job) : nullptr;
    if (job == nullptr) continue;
    const char* message = interrupted.again
                              ? "The server stopped while printing this job; it is printed again from its start"
                              : "The server stopped while printing this job, and its document is gone";
    papplJobSetMessage(job, "%s", message);
    papplLogJob(job, PAPPL_LOGLEVEL_WARN, "%s", message);
  }
}

volatile sig_atomic_t gStopRequested = 0;
struct sigaction gPapplAction[2];  // PAPPL's handlers of SIGTERM and SIGINT

void onStop(int signal) {
  gStopRequested = 1;
  const struct sigaction& next = gPapplAction[signal == SIGTERM ? 0 : 1];
  if ((next.sa_flags & SA_SIGINFO) != 0) {
    if (next.sa_sigaction != nullptr) next.sa_sigaction(signal, nullptr, nullptr);
  } else if (next.sa_handler == SIG_DFL) {
    _exit(0);
  } else if (next.sa_handler != SIG_IGN) {
    next.sa_handler(signal);
  }
}

// Our handlers go in front of PAPPL's once PAPPL has set them up (when its
// run loop starts). Then, on a stop request, jobs stop where they are,
// recorded as printing (the next start prints them again), and after a
// grace the process ends.
void watchStops() {
  for (;;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    struct sigaction term {}, interrupt {};
    sigaction(SIGTERM, nullptr, &term);
    sigaction(SIGINT, nullptr, &interrupt);
    if (term.sa_handler != SIG_DFL && interrupt.sa_handler != SIG_DFL) break;
  }
  struct sigaction action {};
  action.sa_handler = onStop;
  sigemptyset(&action.sa_mask);
  sigaction(SIGTERM, &action, &gPapplAction[0]);
  sigaction(SIGINT, &action, &gPapplAction[1]);
  while (gStopRequested == 0) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  kelvoDeviceStop();
  std::this_thread::sleep_for(kStopGrace);
  _exit(0);
}

// PAPPL starts queued jobs only when a job arrives or ends.
void startQueued(pappl_printer_t* printer, void* /*data*/) {
  if (papplPrinterGetState(printer) == IPP_PSTATE_IDLE && papplPrinterGetNumberOfActiveJobs(printer) > 0)
    papplPrinterResume(printer);
}

// Every second: waking PAPPL's run loop also makes it save its state, so a
// job that arrives is recorded within a second rather than ten.
bool tick(pappl_system_t* system, void* /*data*/) {
  static bool first = true;
  if (first) {
    first = false;
    papplSystemIteratePrinters(system, startQueued, nullptr);
  }
  return true;
}

}  // namespace

void kelvoSetUpJobs(pappl_system_t* system, int numOptions, cups_option_t* options, const char* stateFile) {
  kelvoAddPictureFilters(system);
  const char* stall = cupsGetOption("stall-timeout", numOptions, options);
  kelvoDeviceAddScheme(stall != nullptr ? std::atoi(stall) : 30);
  const std::vector<Interrupted> interrupted = reviveInterrupted(stateFile);
  papplSystemLoadState(system, stateFile);
  tellInterrupted(system, interrupted);
  papplSystemAddTimerCallback(system, 0, 1, tick, nullptr);
  std::thread(watchStops).detach();
}
