#include "app/server.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <grp.h>
#include <malloc.h>
#include <mutex>
#include <set>
#include <vector>

#include "app/auth.h"
#include "app/device.h"
#include "app/dnssd.h"
#include "app/drivers.h"
#include "app/job.h"
#include "app/printer_status.h"
#include "app/request_guard.h"
#include "app/restart.h"
#include "app/studio.h"
#include "app/web_labels.h"

namespace {

const char kSystemName[] = "Kelvo Printer App";
const size_t kKeepFreeBytes = 4 << 20;

const char* const kKnownOptions[] = {"listen-hostname", "server-port", "auth-service", "admin-group",
                                     "state-file",      "spool-directory", "tls-directory", "log-file",
                                     "log-level",       "private-server",  "stall-timeout"};

// What the callbacks need for as long as the process runs.
struct Server {
  KelvoServerOptions options;
  KelvoAuthConfig auth;
  std::string commonName;  // the certificate's: PAPPL's host name
  std::mutex lock;
  std::set<int> created, changed;  // printers to look at from the main loop
};
Server* sServer = nullptr;

std::string defaultStateDir() {
  const char* xdg = std::getenv("XDG_STATE_HOME");
  if (xdg != nullptr && *xdg != '\0') return std::string(xdg) + "/kelvo-printer-app";
  const char* home = std::getenv("HOME");
  return std::string(home != nullptr && *home != '\0' ? home : "/tmp") + "/.local/state/kelvo-printer-app";
}

std::string folderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// mkdir -p; new folders get the process's umask.
bool makeFolders(const std::string& path) {
  for (size_t at = path.find('/', 1);; at = path.find('/', at + 1)) {
    const std::string part = path.substr(0, at);
    if (!part.empty() && mkdir(part.c_str(), 0777) != 0 && errno != EEXIST) return false;
    if (at == std::string::npos) break;
  }
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

pappl_loglevel_t logLevel(const char* name) {
  if (std::strcmp(name, "debug") == 0) return PAPPL_LOGLEVEL_DEBUG;
  if (std::strcmp(name, "info") == 0) return PAPPL_LOGLEVEL_INFO;
  if (std::strcmp(name, "error") == 0) return PAPPL_LOGLEVEL_ERROR;
  return PAPPL_LOGLEVEL_WARN;
}

std::vector<std::string> addresses(const std::string& listen) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start <= listen.size()) {
    size_t comma = listen.find(',', start);
    if (comma == std::string::npos) comma = listen.size();
    if (comma > start) out.push_back(listen.substr(start, comma - start));
    start = comma + 1;
  }
  return out;
}

// PAPPL's local socket for this process (papplMainloop's name for it).
std::string localSocket() {
  if (geteuid() == 0) return "/run/kelvo-printer-app.sock";
  return std::string(papplGetTempDir()) + "/kelvo-printer-app" + std::to_string(geteuid()) + ".sock";
}

// PAPPL makes its local socket usable by every user of the machine; here it
// is the server's user's, and the admin group's where the server may give
// it to that group.
void closeLocalSocket() {
  const std::string path = localSocket();
  if (!exists(path)) return;
  mode_t mode = 0700;
  if (struct group* admins = getgrnam(sServer->options.adminGroup.c_str()))
    if (chown(path.c_str(), static_cast<uid_t>(-1), admins->gr_gid) == 0) mode = 0770;
  if (chmod(path.c_str(), mode) != 0)
    papplLog(nullptr, PAPPL_LOGLEVEL_ERROR, "Cannot restrict %s: %s", path.c_str(), std::strerror(errno));
}

// A self-signed certificate for the host name, made at the first start
// (cupsMakeServerCredentials, with the TLS library PAPPL itself uses); an
// admin may put their own <name>.crt and <name>.key there instead.
bool makeCredentials(const std::string& folder, const std::string& name) {
  if (!makeFolders(folder) || chmod(folder.c_str(), 0700) != 0) return false;
  if (exists(folder + "/" + name + ".crt") && exists(folder + "/" + name + ".key")) return true;
  std::string shortName = name.substr(0, name.find('.'));
  const char* altNames[] = {name.c_str(), shortName.c_str(), "localhost"};
  const time_t tenYears = std::time(nullptr) + 10L * 365 * 86400;
  return cupsMakeServerCredentials(folder.c_str(), name.c_str(), 3, altNames, tenYears) != 0;
}

bool saveState(pappl_system_t* system, void* /*data*/) {
  const char* file = sServer->options.stateFile.c_str();
  const bool saved = papplSystemSaveState(system, file);
  chmod(file, 0600);  // a state file from before keeps its mode otherwise
  return saved;
}

// PAPPL calls this holding its locks: only note what to do.
void onEvent(pappl_system_t* /*system*/, pappl_printer_t* printer, pappl_job_t* /*job*/, pappl_event_t event,
             void* /*data*/) {
  if (printer == nullptr) return;
  const int id = papplPrinterGetID(printer);
  if (event & PAPPL_EVENT_PRINTER_DELETED) {
    kelvoForgetDefaults(id);
    return;
  }
  std::lock_guard<std::mutex> hold(sServer->lock);
  if (event & PAPPL_EVENT_PRINTER_CREATED) sServer->created.insert(id);
  if (event & (PAPPL_EVENT_PRINTER_CREATED | PAPPL_EVENT_PRINTER_CONFIG_CHANGED)) sServer->changed.insert(id);
}

// Once, from the main loop, after papplSystemRun has set PAPPL's own TLS
// credentials (in /etc/cups/ssl or ~/.cups/ssl).
bool atStart(pappl_system_t* /*system*/, void* /*data*/) {
  cupsSetServerCredentials(sServer->options.tlsDir.c_str(), sServer->commonName.c_str(), 1);
  closeLocalSocket();
  return false;
}

// Every second, from the main loop: advertise the printers added since,
// and check the defaults of those changed.
bool everySecond(pappl_system_t* system, void* /*data*/) {
  // A large request, refused or answered, leaves its memory free but kept.
  if (mallinfo2().fordblks > kKeepFreeBytes) malloc_trim(0);
  std::set<int> created, changed;
  {
    std::lock_guard<std::mutex> hold(sServer->lock);
    created.swap(sServer->created);
    changed.swap(sServer->changed);
  }
  for (int id : changed) {
    pappl_printer_t* printer = papplSystemFindPrinter(system, nullptr, id, nullptr);
    if (printer == nullptr) continue;
    if (created.count(id) != 0 && kelvoDnssdUsable()) kelvoDnssdAdvertise(printer);
    kelvoGuardDefaults(printer);
  }
  return true;
}

void rememberPrinter(pappl_printer_t* printer, void* /*data*/) {
  sServer->changed.insert(papplPrinterGetID(printer));
}

}  // namespace

bool kelvoParseServerOptions(int count, cups_option_t* options, KelvoServerOptions* out, std::string* error) {
  auto get = [&](const char* name, const char* fallback) -> std::string {
    const char* value = cupsGetOption(name, count, options);
    return value != nullptr && *value != '\0' ? value : fallback;
  };
  for (int i = 0; i < count; ++i) {
    bool known = false;
    for (const char* name : kKnownOptions) known = known || std::strcmp(options[i].name, name) == 0;
    if (!known) {
      *error = std::string("unknown server option ") + options[i].name;
      return false;
    }
  }
  const std::string stateDir = defaultStateDir();
  out->stateFile = get("state-file", (stateDir + "/state").c_str());
  out->spoolDir = get("spool-directory", (stateDir + "/spool").c_str());
  out->tlsDir = get("tls-directory", (folderOf(out->stateFile) + "/tls").c_str());
  out->logFile = get("log-file", "-");
  out->logLevel = logLevel(get("log-level", "warn").c_str());
  out->authService = get("auth-service", "");
  out->adminGroup = get("admin-group", "lpadmin");
  // Without logins nobody may administer from another machine, and the
  // server listens where only this machine reaches it unless told to.
  out->listen = get("listen-hostname", out->authService.empty() ? "localhost" : "*");
  const std::string port = get("server-port", "8000");
  char* end = nullptr;
  const long number = std::strtol(port.c_str(), &end, 10);
  if (*end != '\0' || number < 1 || number > 65535) {
    *error = "server-port must be a number from 1 to 65535, not " + port;
    return false;
  }
  out->port = static_cast<int>(number);
  if (addresses(out->listen).empty()) {
    *error = "listen-hostname names no address";
    return false;
  }
  return true;
}

bool kelvoListensOnLoopbackOnly(const std::string& listen) {
  for (const std::string& address : addresses(listen))
    if (address != "localhost" && address.rfind("127.", 0) != 0 && address != "::1" && address != "[::1]")
      return false;
  return true;
}

bool kelvoServerDriverCallback(pappl_system_t* system, const char* driverName, const char* deviceUri,
                               const char* deviceId, pappl_pr_driver_data_t* data, ipp_t** attrs, void* cbdata) {
  if (!kelvoDriverCallback(system, driverName, deviceUri, deviceId, data, attrs, cbdata)) return false;
  // What AirPrint asks of a printer is there: ipps with TLS 1.2 (always on),
  // _ipp._tcp with the _universal subtype, image/urf and image/jpeg, URF
  // and UUID in the TXT record, printer-uuid, media-col-database and
  // media-col-ready, and Identify-Printer is answered.
  data->num_features = 0;
  data->features[data->num_features++] = "airprint-2.1";
  return true;
}

pappl_system_t* kelvoCreateSystem(int count, cups_option_t* options, void* /*data*/) {
  static Server server;
  sServer = &server;
  std::string error;
  if (!kelvoParseServerOptions(count, options, &server.options, &error)) {
    std::fprintf(stderr, "kelvo-printer-app: %s\n", error.c_str());
    return nullptr;
  }
  const KelvoServerOptions& o = server.options;
  // Jobs, the state file, the log and the keys are the server user's alone.
  umask(077);
  // One heap for all threads, so that memory a request leaves free can be
  // given back (malloc_trim does not reach into the threads' own heaps).
  mallopt(M_ARENA_MAX, 1);
  for (const std::string& folder : {o.spoolDir, folderOf(o.stateFile)}) {
    if (!makeFolders(folder)) {
      std::fprintf(stderr, "kelvo-printer-app: cannot create the folder %s\n", folder.c_str());
      return nullptr;
    }
  }

  // No PAM service for PAPPL: its own check fails on Linux, and with one
  // PAPPL tells clients (printer-xri-supported) that printing over ipps
  // takes a login, which it does not; the callback below does the logins.
  pappl_system_t* system = papplSystemCreate(
      PAPPL_SOPTIONS_MULTI_QUEUE | PAPPL_SOPTIONS_WEB_INTERFACE | PAPPL_SOPTIONS_WEB_LOG, kSystemName, o.port,
      "_print,_universal", o.spoolDir.c_str(), o.logFile.c_str(), o.logLevel, nullptr, false);
  if (system == nullptr) return nullptr;

  // The listen addresses go to the listeners only: PAPPL 1.3's
  // papplSystemSetHostName renames the machine (sethostname and
  // /etc/hostname), and the DNS-SD host name stays the machine's.
  for (const std::string& address : addresses(o.listen)) {
    if (!papplSystemAddListeners(system, address == "*" ? nullptr : address.c_str())) {
      std::fprintf(stderr, "kelvo-printer-app: cannot listen on %s port %d\n", address.c_str(), o.port);
      papplSystemDelete(system);
      return nullptr;
    }
  }
  if (o.authService.empty() && !kelvoListensOnLoopbackOnly(o.listen))
    papplLog(system, PAPPL_LOGLEVEL_WARN,
             "No auth-service: other machines may print and read status, but nobody may administer the server "
             "from them.");

  char host[256];
  server.commonName = papplSystemGetHostName(system, host, sizeof host);
  if (!makeCredentials(o.tlsDir, server.commonName)) {
    std::fprintf(stderr, "kelvo-printer-app: cannot create a TLS certificate in %s\n", o.tlsDir.c_str());
    papplSystemDelete(system);
    return nullptr;
  }
  server.auth.service = o.authService;
  server.auth.adminGroup = o.adminGroup;
  papplSystemSetAuthCallback(system, "Basic", kelvoAuthCallback, &server.auth);
  papplSystemSetAdminGroup(system, o.adminGroup.c_str());

  papplSystemSetPrinterDrivers(system, kelvoNumDrivers, kelvoDrivers, nullptr, nullptr, kelvoServerDriverCallback,
                               const_cast<KelvoJobCallbacks*>(&kelvoJobCallbacks));
  papplSystemSetMIMECallback(system, kelvoDetectFormat, nullptr);
  kelvoStatusStart(system);
  // Status questions on the application's own network devices wait a
  // bounded time, on the job's connection too.
  kelvoStatusSetDeviceReader(kKelvoSocketScheme, kelvoDeviceRead);
  papplSystemSetFooterHTML(system, "Kelvo ZPL printer application 3.13.13");
  kelvoWebLabelsStart(system);
  papplSystemSetEventCallback(system, onEvent, nullptr);
  papplSystemAddTimerCallback(system, 0, 0, atStart, nullptr);
  papplSystemAddTimerCallback(system, 0, 1, everySecond, nullptr);

  papplSystemSetSaveCallback(system, saveState, nullptr);
  kelvoSetUpJobs(system, count, options, o.stateFile.c_str());
  if (exists(o.stateFile)) chmod(o.stateFile.c_str(), 0600);
  papplSystemIteratePrinters(system, rememberPrinter, nullptr);
  kelvoStudioRegister(system, o.spoolDir.c_str());

  kelvoDnssdWatch(system);
  return system;
}
