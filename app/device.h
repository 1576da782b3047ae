#pragma once
// The connection to the printer, and what the application knows of a job's
// delivery.
//
// Network printers on "kelvo-socket://host[:port]" (raw port printing,
// port 9100 by default) use the application's own connection: a job is
// called delivered only once every byte has left this machine (the kernel's
// unsent count is zero) and, where the printer answers status queries, once
// it has answered one sent after the job's last byte; a printer that takes
// nothing for the stall time fails the job; a connection the printer closes
// or resets fails it at once. (PAPPL 1.3's own "socket" scheme cannot be
// replaced: a second registration of a name is never looked up.)
// Other devices (PAPPL's socket, usb, file) are checked by the bytes PAPPL
// reports written.
#include <pappl/pappl.h>

#include <cstddef>
#include <string>

constexpr const char* kKelvoSocketScheme = "kelvo-socket";

// Registers kelvo-socket; call once, before the server runs. A printer that
// takes no data for `stallSeconds` fails the job it is printing.
void kelvoDeviceAddScheme(int stallSeconds);

// From now on writes and waits on every device never return: the server is
// stopping and ends the process itself (app/recovery.h), so that no job is
// recorded as finished that the printer did not finish.
void kelvoDeviceStop();

// A job starts on `device`: writes give up when it is cancelled. Returns
// the bytes the device has passed on so far, the job's `before` below.
size_t kelvoDeviceBeginJob(pappl_device_t* device, pappl_job_t* job);

enum class KelvoDelivery {
  kDelivered,
  kStalled,  // the printer took nothing for the stall time
  kLost,     // the connection failed, bytes were not written or the job was cancelled
};

// Sends what is still buffered and waits until the printer has every byte
// of a job that handed `handed` bytes to the device, `before` being
// kelvoDeviceBeginJob's count. `message` says what went wrong.
KelvoDelivery kelvoDeviceFinishJob(pappl_device_t* device, size_t before, size_t handed, std::string& message);

// Whether the device failed a write in the middle of a job that has handed
// it `handed` bytes so far, and why (kDelivered: it did not fail).
KelvoDelivery kelvoDeviceFailure(pappl_device_t* device, size_t before, size_t handed, std::string& message);

// What the printer answered to the status question that confirmed the
// last job's delivery (~HQES); empty when it did not answer or the device
// is not ours.
std::string kelvoDeviceLastAnswer(pappl_device_t* device);

// Reads what the printer sends back, waiting at most `timeoutMs`: the bytes
// read, 0 when nothing came in time, -1 when the connection failed. For
// status queries on the job's own connection: write the query with
// papplDeviceWrite and papplDeviceFlush, then read the answer with this.
// Devices of other schemes read through papplDeviceRead, with PAPPL's own
// wait.
ssize_t kelvoDeviceRead(pappl_device_t* device, void* buffer, size_t size, int timeoutMs);
