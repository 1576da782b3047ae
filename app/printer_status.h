#pragma once
// What a ZPL printer says about its labels, ribbon and print head, and when
// the printer application asks it. The question is ~HQES (~HS for printers
// that only answer that); it goes out while the printer is idle and after a
// job, never while a job is sending, and its answer is awaited a bounded
// time, so a printer that never answers delays no label by more than that.
// The answer becomes IPP's printer-state-reasons and the printer-supply
// entries of the label roll and, printing through a ribbon, of the ribbon.
#include <pappl/pappl.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

// How long one question waits for its whole answer, connecting included.
constexpr int kStatusAnswerMillis = 300;

// What came back to one question.
enum class ZplAnswer {
  kNone,     // nothing
  kPartial,  // the start of an answer, not yet all of it
  kGarbage,  // bytes that are no answer
  kHqes,     // a whole ~HQES answer
  kHs,       // a whole ~HS answer
};

// One reading of the printer: the conditions it reports, one bit per row
// of the conditions' table (printer_status.cpp).
struct ZplStatus {
  ZplAnswer answer = ZplAnswer::kNone;
  uint32_t conditions = 0;
  int transfer = -1;  // thermal-transfer mode on (1) or off (0); ~HS only, else -1
};

// Reads the bytes that came back to ~HQES or ~HS.
ZplStatus kelvoParseStatus(const std::string& bytes);

// The IPP reasons of a reading and the texts of its conditions ("Out of
// labels; Print head open"), empty for none.
pappl_preason_t kelvoStatusReasons(const ZplStatus& status);
std::string kelvoStatusText(const ZplStatus& status);

// The printer-supply entries of a reading: the label roll, then the ribbon
// when `ribbon`. Returns their number (at most 2).
int kelvoStatusSupplies(const ZplStatus& status, bool stencil, bool ribbon, pappl_supply_t* supplies);

// When to ask: a printer that answers is asked every kIdleSeconds while idle
// (sooner when a client is watching it), and after each job; one that left
// two questions in a row unanswered only every kQuietSeconds. Until the
// printer answers, ~HQES and ~HS take turns; then the one it answered stays.
class StatusPolicy {
 public:
  static constexpr double kIdleSeconds = 10;
  static constexpr double kWatchedSeconds = 2;
  static constexpr double kQuietSeconds = 180;

  // Whether an idle printer is asked now; `watched` when a client just read
  // its state.
  bool due(double now, bool watched) const;
  // Ask at the next chance (a job has just ended).
  void soon() { soon_ = true; }
  // The question to send.
  const char* command() const { return useHs_ ? "~HS" : "~HQES"; }
  // Notes the outcome of a question sent at `now`.
  void noteAnswer(double now, ZplAnswer answer);
  int unanswered() const { return unanswered_; }
  bool everAnswered() const { return everAnswered_; }

 private:
  double last_ = -1e9;  // when the last question went out
  int unanswered_ = 0;  // questions in a row without an answer
  bool useHs_ = false;
  bool everAnswered_ = false;
  bool soon_ = false;
};

// A connection to the printer for one exchange.
class StatusLink {
 public:
  virtual ~StatusLink() = default;
  virtual bool send(const char* data, size_t size) = 0;
  // Waits at most `millis` for bytes: their number, 0 when none came in time,
  // -1 when the connection failed or closed.
  virtual ssize_t receive(char* buffer, size_t size, int millis) = 0;
};

// Drops what is still waiting on the link (a late answer to an earlier
// question), sends `command` and reads its answer for at most `millis`.
ZplStatus kelvoAskStatus(StatusLink& link, const char* command, int millis);

// A device layer's read with a timeout: bytes read, 0 when none came within
// `millis`, -1 on failure. Devices of URI scheme `scheme` read with it; the
// status query then also runs on their jobs' own connections and, while
// idle, on the device PAPPL opens. Other network printers (socket://) are
// asked on a connection of the application's own while idle.
using KelvoDeviceReader = ssize_t (*)(pappl_device_t* device, void* buffer, size_t size, int millis);
void kelvoStatusSetDeviceReader(const char* scheme, KelvoDeviceReader reader);

// The printer application's side. kelvoStatusStart starts the idle
// questions (a PAPPL timer); the driver sets kelvoStatusCallback as its
// status callback and kelvoStatusForget as its delete callback.
void kelvoStatusStart(pappl_system_t* system);
bool kelvoStatusCallback(pappl_printer_t* printer);
void kelvoStatusForget(pappl_printer_t* printer, pappl_pr_driver_data_t* data);
// Called by a job before its first byte: while the printer says it cannot
// print (out of labels, ribbon out, head open, jammed), the job waits,
// asking again every few seconds, with media-needed while the labels are
// out. False when the job was cancelled meanwhile.
bool kelvoStatusJobStarts(pappl_job_t* job, pappl_device_t* device);
// Called by a job after its last byte: asks on the job's connection where
// the device layer can read with a timeout, else right after the job.
void kelvoStatusJobEnds(pappl_job_t* job, pappl_device_t* device);
// An answer the device layer read itself (its question after a job's last
// byte); empty when none came.
void kelvoStatusNoteAnswer(pappl_printer_t* printer, const std::string& bytes);
