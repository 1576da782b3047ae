#include "app/printer_status.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "app/drivers.h"
#include "support/kelvo_string.h"

namespace {

// Supplies a row empties or lowers.
enum class ZplSupply { kNone, kLabels, kRibbon };
enum class ZplSupplyLevel { kUnknown, kOk, kLow, kEmpty };

// One condition: where each answer carries it and what IPP calls it.
struct ZplCondition {
  const char* text;        // for people: the log and the job's message
  bool warning;            // on ~HQES's WARNINGS line, not its ERRORS line
  uint32_t hqesBit;        // bit of the line's low group; 0 when ~HQES has none
  int hsString, hsField;   // ~HS flag: string 1-3 and field from 0; 0, 0 when none
  pappl_preason_t reason;  // PAPPL_PREASON_NONE: logged only
  ZplSupply supply;
  ZplSupplyLevel level;
  bool stopsPrinting;  // a job waits until it clears
};

// ZPL II's bit meanings. ~HQES answers "ERRORS:" and "WARNINGS:" lines, each
// a flag and two groups of eight hexadecimal digits; the bits below are of
// the second (low) group. ~HS answers three STX...ETX strings of
// comma-separated fields; a flag field is "1" when set. What was chosen
// where the bits leave room:
//  - 0x1000 is read as a paper jam and 0x10000 as paused; the bits above
//    0x80 mean other things on some kiosk printers, which are not these.
//  - ~HS has no jam, cutter or motor flag; ~HQES no "too cold" bit.
//  - IPP's "paused" reason belongs to a queue an operator paused (PAPPL
//    reports it itself); a printer paused at its own panel is "offline".
//  - PAPPL has no cutter-* reasons, so a cutter fault is "other"; so are
//    the temperatures and the print head faults, each with its words.
//  - The warnings to calibrate, clean or replace the print head are logged
//    only: IPP has no reason a client would show for them, and "other" would
//    put the printer into an error state while it prints well.
const ZplCondition kConditions[] = {
    // text, warning, ~HQES bit, ~HS string and field, reason, supply, level, stops printing
    {"Out of labels", false, 0x1, 1, 1, PAPPL_PREASON_MEDIA_EMPTY, ZplSupply::kLabels, ZplSupplyLevel::kEmpty, true},
    {"Out of ribbon", false, 0x2, 2, 3, PAPPL_PREASON_MARKER_SUPPLY_EMPTY, ZplSupply::kRibbon, ZplSupplyLevel::kEmpty,
     true},
    {"Print head open", false, 0x4, 2, 2, PAPPL_PREASON_COVER_OPEN, ZplSupply::kNone, ZplSupplyLevel::kOk, true},
    {"Cutter fault", false, 0x8, 0, 0, PAPPL_PREASON_OTHER, ZplSupply::kNone, ZplSupplyLevel::kOk, false},
    {"Print head too hot", false, 0x10, 1, 11, PAPPL_PREASON_OTHER, ZplSupply::kNone, ZplSupplyLevel::kOk, false},
    {"Print head too cold", false, 0, 1, 10, PAPPL_PREASON_OTHER, ZplSupply::kNone, ZplSupplyLevel::kOk, false},
    {"Motor too hot", false, 0x20, 0, 0, PAPPL_PREASON_OTHER, ZplSupply::kNone, ZplSupplyLevel::kOk, false},
    {"Bad print head element", false, 0x40, 0, 0, PAPPL_PREASON_OTHER, ZplSupply::kNone, ZplSupplyLevel::kOk, false},
    {"Print head not detected", false, 0x80, 0, 0, PAPPL_PREASON_OTHER, ZplSupply::kNone, ZplSupplyLevel::kOk, false},
    {"Paper jam", false, 0x1000, 0, 0, PAPPL_PREASON_MEDIA_JAM, ZplSupply::kNone, ZplSupplyLevel::kOk, true},
    {"Paused at the printer", false, 0x10000, 1, 2, PAPPL_PREASON_OFFLINE, ZplSupply::kNone, ZplSupplyLevel::kOk,
     false},
    {"Labels nearly out", true, 0x8, 0, 0, PAPPL_PREASON_MEDIA_LOW, ZplSupply::kLabels, ZplSupplyLevel::kLow, false},
    {"Needs calibrating", true, 0x1, 0, 0, PAPPL_PREASON_NONE, ZplSupply::kNone, ZplSupplyLevel::kOk, false},
    {"Print head needs cleaning", true, 0x2, 0, 0, PAPPL_PREASON_NONE, ZplSupply::kNone, ZplSupplyLevel::kOk, false},
    {"Print head needs replacing", true, 0x4, 0, 0, PAPPL_PREASON_NONE, ZplSupply::kNone, ZplSupplyLevel::kOk,
     false},
};
constexpr int kNumConditions = sizeof kConditions / sizeof kConditions[0];
static_assert(kNumConditions <= 32, "one bit per condition");

// ~HS's fields per string.
constexpr size_t kHsFields[3] = {12, 11, 2};

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads "<flag> <8 hex> <8 hex>" after `label` (spaces between): the low
// group into `low`. 1 when whole, 0 when the bytes end before it is, -1 when
// it is malformed or absent.
int readLine(const std::string& bytes, const char* label, uint32_t* low) {
  size_t at = bytes.find(label);
  if (at == std::string::npos) return 0;
  at += std::strlen(label);
  auto spaces = [&] {
    while (at < bytes.size() && bytes[at] == ' ') ++at;
  };
  spaces();
  if (at >= bytes.size()) return 0;
  if (bytes[at] != '0' && bytes[at] != '1') return -1;
  ++at;
  uint32_t groups[2] = {0, 0};
  for (uint32_t& group : groups) {
    if (at < bytes.size() && bytes[at] != ' ') return -1;
    spaces();
    for (int i = 0; i < 8; ++i, ++at) {
      if (at >= bytes.size()) return 0;
      const int digit = hexDigit(bytes[at]);
      if (digit < 0) return -1;
      group = group << 4 | static_cast<uint32_t>(digit);
    }
  }
  // A ninth digit would be no group of ZPL's.
  if (at >= bytes.size()) return 0;
  if (hexDigit(bytes[at]) >= 0) return -1;
  *low = groups[1];
  return 1;
}

ZplStatus parseHqes(const std::string& bytes, bool* partial) {
  ZplStatus status;
  uint32_t errors = 0, warnings = 0;
  const int e = readLine(bytes, "ERRORS:", &errors);
  const int w = readLine(bytes, "WARNINGS:", &warnings);
  // The answer ends with ETX; before that, a line may still come.
  *partial = e >= 0 && w >= 0 && (e == 0 || w == 0) && bytes.find('\x03') == std::string::npos;
  if (e != 1 || w != 1) return status;
  status.answer = ZplAnswer::kHqes;
  for (int i = 0; i < kNumConditions; ++i) {
    const ZplCondition& c = kConditions[i];
    if (c.hqesBit != 0 && ((c.warning ? warnings : errors) & c.hqesBit) != 0) status.conditions |= 1u << i;
  }
  return status;
}

// The three strings of an ~HS answer, each split at its commas. False
// unless all three came whole with ZPL's number of fields.
bool splitHs(const std::string& bytes, std::vector<std::string> fields[3], bool* partial) {
  size_t at = 0;
  *partial = false;
  for (int s = 0; s < 3; ++s) {
    const size_t start = bytes.find('\x02', at);
    if (start == std::string::npos) {
      *partial = true;
      return false;
    }
    const size_t end = bytes.find('\x03', start + 1);
    if (end == std::string::npos) {
      *partial = true;
      return false;
    }
    const std::string body = bytes.substr(start + 1, end - start - 1);
    size_t from = 0;
    for (;;) {
      const size_t comma = body.find(',', from);
      fields[s].push_back(body.substr(from, comma == std::string::npos ? std::string::npos : comma - from));
      if (comma == std::string::npos) break;
      from = comma + 1;
    }
    if (fields[s].size() != kHsFields[s]) return false;
    at = end + 1;
  }
  return true;
}

ZplStatus parseHs(const std::string& bytes, bool* partial) {
  ZplStatus status;
  std::vector<std::string> fields[3];
  if (!splitHs(bytes, fields, partial)) return status;
  auto flag = [&](int string, int field, bool* ok) {
    const std::string& f = fields[string - 1][static_cast<size_t>(field)];
    if (f != "0" && f != "1") *ok = false;
    return f == "1";
  };
  bool ok = true;
  uint32_t conditions = 0;
  for (int i = 0; i < kNumConditions; ++i)
    if (kConditions[i].hsString != 0 && flag(kConditions[i].hsString, kConditions[i].hsField, &ok))
      conditions |= 1u << i;
  const bool transfer = flag(2, 4, &ok);
  if (!ok) return status;
  status.answer = ZplAnswer::kHs;
  status.conditions = conditions;
  status.transfer = transfer ? 1 : 0;
  return status;
}

double nowSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int millisLeft(double deadline) {
  const double left = (deadline - nowSeconds()) * 1000;
  return left <= 0 ? 0 : static_cast<int>(left + 0.999);
}

// A connection of its own to a raw-port printer (socket://host:port), for
// the questions asked while no job is open.
class SocketLink : public StatusLink {
 public:
  SocketLink(const char* host, int port, double deadline) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* list = nullptr;
    const std::string service = std::to_string(port);
    if (getaddrinfo(host, service.c_str(), &hints, &list) != 0) return;
    for (addrinfo* a = list; a != nullptr && fd_ < 0; a = a->ai_next) {
      const int fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, a->ai_protocol);
      if (fd < 0) continue;
      if (connect(fd, a->ai_addr, a->ai_addrlen) == 0 || errno == EINPROGRESS) {
        pollfd p{fd, POLLOUT, 0};
        int error = 0;
        socklen_t len = sizeof error;
        if (poll(&p, 1, millisLeft(deadline)) == 1 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len) == 0 &&
            error == 0) {
          fd_ = fd;
          continue;
        }
      }
      close(fd);
    }
    freeaddrinfo(list);
  }
  ~SocketLink() override {
    if (fd_ >= 0) close(fd_);
  }
  bool connected() const { return fd_ >= 0; }
  bool send(const char* data, size_t size) override {
    while (fd_ >= 0 && size > 0) {
      const ssize_t put = ::send(fd_, data, size, MSG_NOSIGNAL);
      if (put < 0 && errno == EINTR) continue;
      if (put <= 0) return false;  // a query of a few bytes never fills the socket
      data += put;
      size -= static_cast<size_t>(put);
    }
    return fd_ >= 0;
  }
  ssize_t receive(char* buffer, size_t size, int millis) override {
    pollfd p{fd_, POLLIN, 0};
    const int ready = poll(&p, 1, millis);
    if (ready < 0) return errno == EINTR ? 0 : -1;
    if (ready == 0) return 0;
    const ssize_t got = read(fd_, buffer, size);
    return got > 0 ? got : (got < 0 && errno == EAGAIN ? 0 : -1);
  }

 private:
  int fd_ = -1;
};

// The device layer's bounded read and the scheme of its devices; set once
// before the server runs.
KelvoDeviceReader gDeviceReader = nullptr;
std::string gReaderScheme;

// A PAPPL device whose layer reads with a timeout: a job's own connection,
// or the printer's device opened for an idle question.
class DeviceLink : public StatusLink {
 public:
  DeviceLink(pappl_device_t* device, KelvoDeviceReader reader) : device_(device), reader_(reader) {}
  bool send(const char* data, size_t size) override {
    if (papplDeviceWrite(device_, data, size) < 0) return false;
    papplDeviceFlush(device_);
    return true;
  }
  ssize_t receive(char* buffer, size_t size, int millis) override { return reader_(device_, buffer, size, millis); }

 private:
  pappl_device_t* device_;
  KelvoDeviceReader reader_;
};

// What the application knows of one printer.
struct Watch {
  std::mutex talk;      // one exchange with the printer at a time
  std::mutex applying;  // answers reach PAPPL in the order they came
  // The rest under gLock.
  StatusPolicy policy;
  ZplStatus last;                // the last answer
  pappl_preason_t reasons = 0;   // the reasons set from the answers
  bool mediaNeeded = false;      // a job waits for labels
  std::string text;              // the conditions of the last answer, in words
  bool textSaid = false;         // and they have been logged
  bool watched = false;          // a client read the printer's state since the last question
  bool supplied = false;         // its supplies have been set once
  pappl_supply_t supplies[2]{};  // as last set
  int numSupplies = 0;
};

std::mutex gLock;
std::map<pappl_printer_t*, std::shared_ptr<Watch>> gWatches;

std::shared_ptr<Watch> watchOf(pappl_printer_t* printer) {
  std::lock_guard<std::mutex> lock(gLock);
  std::shared_ptr<Watch>& watch = gWatches[printer];
  if (!watch) watch = std::make_shared<Watch>();
  return watch;
}

enum class Route { kNone, kSocket, kDevice };

// How a printer is asked: network and USB printers only, and only where an
// answer can be awaited a bounded time. PAPPL's own devices wait up to 10 s.
Route routeOf(const char* uri, char* host, size_t hostSize, int* port) {
  if (uri == nullptr) return Route::kNone;
  char scheme[32], user[256], resource[256];
  if (httpSeparateURI(HTTP_URI_CODING_ALL, uri, scheme, sizeof scheme, user, sizeof user, host,
                      static_cast<int>(hostSize), port, resource, sizeof resource) < HTTP_URI_STATUS_OK)
    return Route::kNone;
  if (gDeviceReader != nullptr && gReaderScheme == scheme) return Route::kDevice;
  if (std::strcmp(scheme, "socket") == 0) {
    if (*port <= 0) *port = 9100;
    return Route::kSocket;
  }
  return Route::kNone;
}

// Whether the ribbon is a supply: in thermal-transfer mode, as the printer
// says where its answer tells (~HS), else as its loaded media say.
bool ribbonOf(pappl_printer_t* printer, const KelvoModel& model, const ZplStatus& status) {
  if (model.stencil) return false;
  if (status.transfer >= 0) return status.transfer == 1;
  pappl_pr_driver_data_t data;
  papplPrinterGetDriverData(printer, &data);
  return std::strcmp(data.media_ready[0].type, "thermal-transfer") == 0;
}

// Sets the printer's reasons and supplies from what it answered (or did
// not), logging what changed; `asked` is false for the first report of a
// printer not asked yet. PAPPL's calls take the printer's and the system's
// locks; none is made holding gLock, so the two orders cannot cross.
void apply(pappl_printer_t* printer, Watch& watch, const ZplStatus& status, bool asked = true) {
  const KelvoModel* model = kelvoFindModel(papplPrinterGetDriverName(printer));
  if (model == nullptr) return;
  std::lock_guard<std::mutex> order(watch.applying);
  const bool answered = status.answer == ZplAnswer::kHqes || status.answer == ZplAnswer::kHs;
  const bool ribbonLoaded = ribbonOf(printer, *model, ZplStatus{});
  pappl_supply_t supplies[2];
  int numSupplies;
  pappl_preason_t reasons, before;
  bool suppliesChanged, textChanged;
  std::string text;
  {
    std::lock_guard<std::mutex> lock(gLock);
    const bool hadAnswered = watch.policy.everAnswered();
    if (asked) watch.policy.noteAnswer(nowSeconds(), status.answer);
    // Supplies are known only from an answer.
    ZplStatus shown = answered || !asked ? status : ZplStatus{};
    reasons = watch.reasons;
    text = watch.text;
    if (answered) {
      watch.last = status;
      reasons = kelvoStatusReasons(status);
      text = kelvoStatusText(status);
    } else if (watch.policy.unanswered() >= 2) {
      // One lost answer leaves the reasons; a printer that answered before and
      // now keeps silent is not taking labels (printers that answer ~HS
      // fall silent while their labels or ribbon are out or the head is
      // open), one that never answered is simply not known.
      watch.last = ZplStatus{};
      reasons = hadAnswered ? PAPPL_PREASON_OTHER : PAPPL_PREASON_NONE;
      text = hadAnswered ? "The printer stopped answering; its labels, ribbon or print head may need attention" : "";
    }
    const bool ribbon = shown.transfer >= 0 ? shown.transfer == 1 && !model->stencil : ribbonLoaded;
    numSupplies = kelvoStatusSupplies(shown, model->stencil, ribbon, supplies);
    before = watch.reasons;
    watch.reasons = reasons;
    suppliesChanged = !watch.supplied || numSupplies != watch.numSupplies ||
                      std::memcmp(supplies, watch.supplies, sizeof supplies[0] * static_cast<size_t>(numSupplies)) != 0;
    if (suppliesChanged) {
      std::memcpy(watch.supplies, supplies, sizeof supplies);
      watch.numSupplies = numSupplies;
      watch.supplied = true;
    }
    // Said once the printer has answered, and whenever it changes.
    const bool settled = answered || watch.policy.unanswered() >= 2;
    textChanged = asked && settled && (!watch.textSaid || text != watch.text);
    watch.textSaid = watch.textSaid || textChanged;
    watch.text = text;
  }
  static const char* const kAnswers[] = {"no answer", "part of an answer", "no status answer", "~HQES answer",
                                         "~HS answer"};
  if (asked)
    papplLogPrinter(printer, PAPPL_LOGLEVEL_DEBUG, "Status query: %s", kAnswers[static_cast<int>(status.answer)]);
  // Others set some of these reasons too (PAPPL, the device layer): add
  // what is missing, remove only what these answers set.
  const pappl_preason_t now = papplPrinterGetReasons(printer);
  const pappl_preason_t add = reasons & ~now, remove = before & ~reasons & now;
  if (add != 0 || remove != 0) papplPrinterSetReasons(printer, add, remove);
  if (suppliesChanged) papplPrinterSetSupplies(printer, numSupplies, supplies);
  if (!textChanged) return;
  papplLogPrinter(printer, PAPPL_LOGLEVEL_INFO, "Printer status: %s", text.empty() ? "ready" : text.c_str());
  papplSystemAddEvent(papplPrinterGetSystem(printer), printer, nullptr, PAPPL_EVENT_PRINTER_STATE_CHANGED, "%s",
                      text.empty() ? "Ready" : text.c_str());
}

// One question to an idle printer, if it is due and the printer can be asked.
void askIdle(pappl_printer_t* printer, Watch& watch) {
  char host[256];
  int port = 0;
  const Route route = routeOf(papplPrinterGetDeviceURI(printer), host, sizeof host, &port);
  const char* command;
  {
    std::lock_guard<std::mutex> lock(gLock);
    if (route == Route::kNone || !watch.policy.due(nowSeconds(), watch.watched)) return;
    watch.watched = false;
    command = watch.policy.command();
  }
  std::unique_lock<std::mutex> talk(watch.talk, std::try_to_lock);
  // A job is starting or a question is out already.
  if (!talk.owns_lock() || papplPrinterGetState(printer) == IPP_PSTATE_PROCESSING) return;
  const double deadline = nowSeconds() + kStatusAnswerMillis / 1000.0;
  ZplStatus status;
  if (route == Route::kSocket) {
    SocketLink link(host, port, deadline);
    if (link.connected()) status = kelvoAskStatus(link, command, millisLeft(deadline));
  } else {
    // PAPPL gives no device while a job has it.
    pappl_device_t* device = papplPrinterOpenDevice(printer);
    if (device == nullptr) return;
    DeviceLink link(device, gDeviceReader);
    status = kelvoAskStatus(link, command, kStatusAnswerMillis);
    papplPrinterCloseDevice(printer);
  }
  apply(printer, watch, status);
}

bool isOurs(pappl_printer_t* printer) { return kelvoFindModel(papplPrinterGetDriverName(printer)) != nullptr; }

void visitPrinter(pappl_printer_t* printer, void* /*data*/) {
  if (!isOurs(printer)) return;
  std::shared_ptr<Watch> watch = watchOf(printer);
  bool supplied;
  {
    std::lock_guard<std::mutex> lock(gLock);
    supplied = watch->supplied;
  }
  // Every printer reports its supplies, unknown until the printer answers.
  if (!supplied) apply(printer, *watch, ZplStatus{}, false);
  askIdle(printer, *watch);
}

// PAPPL's timer runs in its main loop: each idle question waits at most
// kStatusAnswerMillis, and a printer that does not answer is left alone
// for minutes after two questions.
bool onTimer(pappl_system_t* system, void* /*data*/) {
  papplSystemIteratePrinters(system, visitPrinter, nullptr);
  return true;
}

// Sleeps `seconds`, waking early when the job is cancelled.
bool waitUnlessCancelled(pappl_job_t* job, double seconds) {
  const double until = nowSeconds() + seconds;
  while (nowSeconds() < until) {
    if (papplJobIsCanceled(job)) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return !papplJobIsCanceled(job);
}

bool stopsPrinting(const ZplStatus& status, bool ribbon) {
  for (int i = 0; i < kNumConditions; ++i)
    if ((status.conditions & (1u << i)) != 0 && kConditions[i].stopsPrinting &&
        (ribbon || kConditions[i].supply != ZplSupply::kRibbon))
      return true;
  return false;
}

// PAPPL's own read, for want of a device layer that reads with a timeout:
// it waits up to PAPPL's own limit (10 s on network printers). Only a job
// that waits for a printer which has just answered uses it, and it never
// waits for leftovers.
ssize_t papplRead(pappl_device_t* device, void* buffer, size_t size, int millis) {
  if (millis <= 0) return 0;
  const ssize_t got = papplDeviceRead(device, buffer, size);
  return got > 0 ? got : -1;
}

// A question on the job's connection.
ZplStatus askDuringJob(pappl_printer_t* printer, pappl_device_t* device, const char* command) {
  char host[256];
  int port = 0;
  const bool bounded = routeOf(papplPrinterGetDeviceURI(printer), host, sizeof host, &port) == Route::kDevice;
  DeviceLink link(device, bounded ? gDeviceReader : papplRead);
  return kelvoAskStatus(link, command, kStatusAnswerMillis);
}

void setMediaNeeded(pappl_printer_t* printer, Watch& watch, bool needed) {
  std::lock_guard<std::mutex> order(watch.applying);
  {
    std::lock_guard<std::mutex> lock(gLock);
    if (watch.mediaNeeded == needed) return;
    watch.mediaNeeded = needed;
  }
  papplPrinterSetReasons(printer, needed ? PAPPL_PREASON_MEDIA_NEEDED : PAPPL_PREASON_NONE,
                         needed ? PAPPL_PREASON_NONE : PAPPL_PREASON_MEDIA_NEEDED);
}

}  // namespace

ZplStatus kelvoParseStatus(const std::string& bytes) {
  ZplStatus status;
  if (bytes.empty()) return status;
  bool hqesPartial = false, hsPartial = false;
  status = parseHqes(bytes, &hqesPartial);
  if (status.answer == ZplAnswer::kHqes) return status;
  status = parseHs(bytes, &hsPartial);
  if (status.answer == ZplAnswer::kHs) return status;
  // The start of either answer, in a few hundred bytes of text.
  bool text = bytes.size() < 512;
  for (char c : bytes) text = text && (c == '\x02' || c == '\x03' || c == '\r' || c == '\n' || (c >= ' ' && c < 127));
  const bool started = bytes.find('\x02') != std::string::npos;
  status.answer = text && started && (hqesPartial || hsPartial) ? ZplAnswer::kPartial : ZplAnswer::kGarbage;
  return status;
}

pappl_preason_t kelvoStatusReasons(const ZplStatus& status) {
  pappl_preason_t reasons = PAPPL_PREASON_NONE;
  for (int i = 0; i < kNumConditions; ++i)
    if ((status.conditions & (1u << i)) != 0) reasons |= kConditions[i].reason;
  return reasons;
}

std::string kelvoStatusText(const ZplStatus& status) {
  std::string text;
  for (int i = 0; i < kNumConditions; ++i)
    if ((status.conditions & (1u << i)) != 0) text += (text.empty() ? "" : "; ") + std::string(kConditions[i].text);
  return text;
}

int kelvoStatusSupplies(const ZplStatus& status, bool stencil, bool ribbon, pappl_supply_t* supplies) {
  const bool answered = status.answer == ZplAnswer::kHqes || status.answer == ZplAnswer::kHs;
  auto levelOf = [&](ZplSupply supply) {
    ZplSupplyLevel level = answered ? ZplSupplyLevel::kOk : ZplSupplyLevel::kUnknown;
    for (int i = 0; i < kNumConditions; ++i)
      if ((status.conditions & (1u << i)) != 0 && kConditions[i].supply == supply && kConditions[i].level > level)
        level = kConditions[i].level;
    // Percent as PAPPL reports it; the printer tells no amounts, so "ok"
    // is the printer MIB's "some remains" (-3) and "unknown" its -2.
    switch (level) {
      case ZplSupplyLevel::kEmpty: return 0;
      case ZplSupplyLevel::kLow: return 10;
      case ZplSupplyLevel::kOk: return -3;
      default: return -2;
    }
  };
  std::memset(supplies, 0, sizeof supplies[0] * 2);
  supplies[0].color = PAPPL_SUPPLY_COLOR_NO_COLOR;
  kelvoStrCpy(supplies[0].description, stencil ? "Stencil paper" : "Labels", sizeof supplies[0].description);
  supplies[0].is_consumed = true;
  supplies[0].level = levelOf(ZplSupply::kLabels);
  supplies[0].type = PAPPL_SUPPLY_TYPE_OTHER;
  if (!ribbon) return 1;
  supplies[1].color = PAPPL_SUPPLY_COLOR_BLACK;
  kelvoStrCpy(supplies[1].description, "Ribbon", sizeof supplies[1].description);
  supplies[1].is_consumed = true;
  supplies[1].level = levelOf(ZplSupply::kRibbon);
  supplies[1].type = PAPPL_SUPPLY_TYPE_RIBBON_WAX;
  return 2;
}

bool StatusPolicy::due(double now, bool watched) const {
  if (unanswered_ >= 2) return now - last_ >= kQuietSeconds;
  if (soon_) return true;
  return now - last_ >= (watched ? kWatchedSeconds : kIdleSeconds);
}

void StatusPolicy::noteAnswer(double now, ZplAnswer answer) {
  last_ = now;
  soon_ = false;
  if (answer == ZplAnswer::kHqes || answer == ZplAnswer::kHs) {
    unanswered_ = 0;
    everAnswered_ = true;
    useHs_ = answer == ZplAnswer::kHs;
    return;
  }
  ++unanswered_;
  // Until the printer has answered once, ask ~HS in turn: older printers
  // know only that. Then keep to the question it answered.
  if (!everAnswered_) useHs_ = !useHs_;
}

ZplStatus kelvoAskStatus(StatusLink& link, const char* command, int millis) {
  const double deadline = nowSeconds() + millis / 1000.0;
  char buffer[1024];
  // A late answer to an earlier question would be read as this one's.
  for (int i = 0; i < 16 && link.receive(buffer, sizeof buffer, 0) > 0; ++i) {
  }
  if (!link.send(command, std::strlen(command))) return {};
  std::string got;
  for (int left = millisLeft(deadline); left > 0 && got.size() < 4096; left = millisLeft(deadline)) {
    const ssize_t n = link.receive(buffer, sizeof buffer, left);
    if (n < 0) break;
    got.append(buffer, static_cast<size_t>(n));
    const ZplStatus status = kelvoParseStatus(got);
    if (status.answer == ZplAnswer::kHqes || status.answer == ZplAnswer::kHs) return status;
  }
  return kelvoParseStatus(got);
}

void kelvoStatusSetDeviceReader(const char* scheme, KelvoDeviceReader reader) {
  gReaderScheme = scheme != nullptr ? scheme : "";
  gDeviceReader = reader;
}

void kelvoStatusStart(pappl_system_t* system) { papplSystemAddTimerCallback(system, 0, 1, onTimer, nullptr); }

bool kelvoStatusCallback(pappl_printer_t* printer) {
  std::shared_ptr<Watch> watch = watchOf(printer);
  bool supplied;
  {
    std::lock_guard<std::mutex> lock(gLock);
    watch->watched = true;
    supplied = watch->supplied;
  }
  // A printer just added reports its supplies from the first request on.
  if (!supplied) apply(printer, *watch, ZplStatus{}, false);
  return true;
}

void kelvoStatusForget(pappl_printer_t* printer, pappl_pr_driver_data_t* /*data*/) {
  std::shared_ptr<Watch> watch;
  {
    std::lock_guard<std::mutex> lock(gLock);
    auto it = gWatches.find(printer);
    if (it == gWatches.end()) return;
    watch = it->second;
    gWatches.erase(it);
  }
  // An exchange in flight ends within its bound.
  std::lock_guard<std::mutex> talk(watch->talk);
}

bool kelvoStatusJobStarts(pappl_job_t* job, pappl_device_t* device) {
  pappl_printer_t* printer = papplJobGetPrinter(job);
  const KelvoModel* model = kelvoFindModel(papplPrinterGetDriverName(printer));
  if (model == nullptr) return true;
  std::shared_ptr<Watch> watch = watchOf(printer);
  std::lock_guard<std::mutex> talk(watch->talk);  // waits for an idle question to end
  bool waited = false;
  for (;;) {
    ZplStatus last;
    const char* command;
    {
      std::lock_guard<std::mutex> lock(gLock);
      last = watch->last;
      command = watch->policy.command();
    }
    const bool ribbon = ribbonOf(printer, *model, last);
    if (!stopsPrinting(last, ribbon)) break;
    const bool noLabels = (kelvoStatusReasons(last) & PAPPL_PREASON_MEDIA_EMPTY) != 0;
    setMediaNeeded(printer, *watch, noLabels);
    papplJobSetMessage(job, "Waiting for the printer: %s", kelvoStatusText(last).c_str());
    waited = true;
    if (!waitUnlessCancelled(job, 2)) break;
    const ZplStatus status = askDuringJob(printer, device, command);
    apply(printer, *watch, status);
    // A printer that stops answering gets the job all the same: it keeps
    // what it receives until it can print.
    if (status.answer != ZplAnswer::kHqes && status.answer != ZplAnswer::kHs) break;
  }
  setMediaNeeded(printer, *watch, false);
  if (papplJobIsCanceled(job)) return false;
  // The waiting message goes; any other (a job printed again) stays.
  if (waited) papplJobSetMessage(job, "Printing");
  return true;
}

void kelvoStatusJobEnds(pappl_job_t* job, pappl_device_t* device) {
  pappl_printer_t* printer = papplJobGetPrinter(job);
  if (!isOurs(printer)) return;
  std::shared_ptr<Watch> watch = watchOf(printer);
  char host[256];
  int port = 0;
  const bool bounded = routeOf(papplPrinterGetDeviceURI(printer), host, sizeof host, &port) == Route::kDevice;
  const char* command;
  {
    std::lock_guard<std::mutex> lock(gLock);
    watch->policy.soon();
    // Without a read that waits a bounded time on this connection, the
    // idle question right after the job takes its place.
    if (!bounded || !watch->policy.due(nowSeconds(), true)) return;
    command = watch->policy.command();
  }
  std::lock_guard<std::mutex> talk(watch->talk);
  DeviceLink link(device, gDeviceReader);
  apply(printer, *watch, kelvoAskStatus(link, command, kStatusAnswerMillis));
}

void kelvoStatusNoteAnswer(pappl_printer_t* printer, const std::string& bytes) {
  if (!isOurs(printer)) return;
  std::shared_ptr<Watch> watch = watchOf(printer);
  apply(printer, *watch, kelvoParseStatus(bytes));
}
