// kelvo-printer-app: a driverless (IPP Everywhere) printer application for
// the Kelvo ZPL label and stencil printers. PAPPL's main loop gives the
// subcommands (server, add, delete, modify, submit, drivers, devices, status,
// shutdown, ...); the server keeps its state and spool where it is told.
#include <pappl/pappl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/drivers.h"
#include "app/job.h"
#include "app/restart.h"

namespace {

const char kVersion[] = "3.13.13";

const char* option(int count, cups_option_t* options, const char* name, const char* fallback) {
  const char* value = cupsGetOption(name, count, options);
  return value != nullptr && *value != '\0' ? value : fallback;
}

pappl_loglevel_t logLevel(const char* name) {
  if (std::strcmp(name, "debug") == 0) return PAPPL_LOGLEVEL_DEBUG;
  if (std::strcmp(name, "info") == 0) return PAPPL_LOGLEVEL_INFO;
  if (std::strcmp(name, "error") == 0) return PAPPL_LOGLEVEL_ERROR;
  return PAPPL_LOGLEVEL_WARN;
}

std::string defaultStateDir() {
  const char* home = std::getenv("HOME");
  const char* xdg = std::getenv("XDG_STATE_HOME");
  if (xdg != nullptr && *xdg != '\0') return std::string(xdg) + "/kelvo-printer-app";
  return std::string(home != nullptr ? home : "/tmp") + "/.local/state/kelvo-printer-app";
}

// The server: "-o name=value" options of the server subcommand choose
// where it listens and keeps its files:
//   listen-hostname  address or name to listen on (all addresses when unset)
//   server-port      TCP port (8000 when unset)
//   state-file       printers and their settings across restarts
//   spool-directory  jobs in progress
//   log-file, log-level (debug, info, warn, error)
//   stall-timeout    seconds a printer may take no data (app/restart.h)
pappl_system_t* createSystem(int count, cups_option_t* options, void* /*data*/) {
  const std::string stateDir = defaultStateDir();
  const char* host = option(count, options, "listen-hostname", nullptr);
  const int port = std::atoi(option(count, options, "server-port", "8000"));
  const std::string spool = option(count, options, "spool-directory", (stateDir + "/spool").c_str());
  const std::string state = option(count, options, "state-file", (stateDir + "/state").c_str());
  const char* logFile = option(count, options, "log-file", "-");
  const pappl_loglevel_t level = logLevel(option(count, options, "log-level", "warn"));

  std::string mkdir = "mkdir -p '" + spool + "'";
  if (spool.find('\'') != std::string::npos || std::system(mkdir.c_str()) != 0) {
    std::fprintf(stderr, "kelvo-printer-app: cannot create the spool directory %s\n", spool.c_str());
    return nullptr;
  }

  pappl_system_t* system = papplSystemCreate(
      static_cast<pappl_soptions_t>(PAPPL_SOPTIONS_MULTI_QUEUE | PAPPL_SOPTIONS_WEB_INTERFACE |
                                    PAPPL_SOPTIONS_WEB_LOG | PAPPL_SOPTIONS_NO_TLS),
      "Kelvo Printer App", port, "_print,_universal", spool.c_str(), logFile, level, nullptr, false);
  if (system == nullptr) return nullptr;
  // The listen address goes to the listener only: PAPPL 1.3's
  // papplSystemSetHostName renames the machine (sethostname and /etc/hostname).
  if (!papplSystemAddListeners(system, host)) {
    std::fprintf(stderr, "kelvo-printer-app: cannot listen on %s port %d\n", host != nullptr ? host : "*", port);
    papplSystemDelete(system);
    return nullptr;
  }
  papplSystemSetPrinterDrivers(system, kelvoNumDrivers, kelvoDrivers, nullptr, nullptr, kelvoDriverCallback,
                               nullptr);
  papplSystemSetMIMECallback(system, kelvoDetectFormat, nullptr);
  papplSystemSetFooterHTML(system, "Kelvo ZPL printer application " "3.13.13");
  papplSystemSetSaveCallback(system, reinterpret_cast<pappl_save_cb_t>(papplSystemSaveState),
                             const_cast<char*>(strdup(state.c_str())));
  kelvoSetUpJobs(system, count, options, state.c_str());
  return system;
}

}  // namespace

int main(int argc, char* argv[]) {
  return papplMainloop(argc, argv, kVersion, nullptr, kelvoNumDrivers, kelvoDrivers, nullptr, kelvoDriverCallback,
                       nullptr, nullptr, createSystem, nullptr, nullptr);
}
