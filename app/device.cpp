#include "app/device.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_set>

namespace {

std::atomic<int> gStallMillis{30000};
std::atomic<bool> gStopping{false};
int gCancelConnect = 0;  // read by CUPS while it connects

// A printer that answers status queries answers within this time of having
// taken the job's last byte; one that has never answered is then taken at
// its network's word, and later jobs do not wait for it. One that has
// answered before must answer again.
constexpr int kAnswerMillis = 1000;
// Asked after a job's last byte: a printer reads its input in order, so
// the answer says it has read the whole job. ETX ends the answer.
constexpr char kQuery[] = "~HQES";
constexpr char kEndOfAnswer = '\x03';

enum class Failure { kNone, kStalled, kClosed, kCancelled };

struct Link {
  int fd = -1;
  std::string uri;
  Failure failure = Failure::kNone;
  int error = 0;     // errno of a failed connection
  size_t sent = 0;   // bytes the kernel took from us
  pappl_job_t* job = nullptr;  // the job printing, while it prints
  std::string answer;          // to the question after the last job's bytes
};

enum class Answers { kUnknown, kYes, kNo };

std::mutex gLock;
std::unordered_set<const void*> gLinks;     // the data of our open devices
std::map<std::string, Answers> gAnswering;  // by device URI

long long nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// The server is stopping: the process ends before this returns.
[[noreturn]] void park() {
  for (;;) std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

Link* linkOf(pappl_device_t* device) {
  void* data = papplDeviceGetData(device);
  std::lock_guard<std::mutex> lock(gLock);
  return gLinks.count(data) != 0 ? static_cast<Link*>(data) : nullptr;
}

Answers answering(const std::string& uri) {
  std::lock_guard<std::mutex> lock(gLock);
  const auto found = gAnswering.find(uri);
  return found != gAnswering.end() ? found->second : Answers::kUnknown;
}

void setAnswering(const std::string& uri, Answers answers) {
  std::lock_guard<std::mutex> lock(gLock);
  gAnswering[uri] = answers;
}

// Bytes taken by the kernel that the printer has not acknowledged.
size_t unsent(const Link& link) {
  int queued = 0;
  return ioctl(link.fd, SIOCOUTQ, &queued) == 0 && queued > 0 ? static_cast<size_t>(queued) : 0;
}

bool failed(Link& link, Failure failure, int error) {
  link.failure = failure;
  link.error = error;
  return false;
}

// A cancelled job stops writing and waiting; its connection is then reset.
bool cancelled(Link& link) {
  if (link.job == nullptr || !papplJobIsCanceled(link.job)) return false;
  failed(link, Failure::kCancelled, 0);
  return true;
}

// Sends all of `data`, waiting while the printer takes it. The printer makes
// progress as long as it acknowledges bytes; false when it stalls or the
// connection fails.
bool sendAll(Link& link, const char* data, size_t size) {
  if (link.failure != Failure::kNone) return false;
  long long progress = nowMs();
  size_t queued = unsent(link);
  while (size > 0) {
    if (gStopping) park();
    if (cancelled(link)) return false;
    const ssize_t n = send(link.fd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      data += n;
      size -= static_cast<size_t>(n);
      link.sent += static_cast<size_t>(n);
      progress = nowMs();
      continue;
    }
    if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
      return failed(link, Failure::kClosed, errno);
    pollfd p{link.fd, POLLOUT, 0};
    poll(&p, 1, 100);
    const size_t left = unsent(link);
    if (left < queued) progress = nowMs();
    queued = left;
    if (nowMs() - progress >= gStallMillis) return failed(link, Failure::kStalled, 0);
  }
  return true;
}

ssize_t readLink(Link& link, void* buffer, size_t size, int timeoutMs) {
  pollfd p{link.fd, POLLIN, 0};
  const int ready = poll(&p, 1, timeoutMs);
  if (ready == 0) return 0;
  const ssize_t n = ready > 0 ? recv(link.fd, buffer, size, MSG_DONTWAIT) : -1;
  if (n > 0) return n;
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return 0;
  failed(link, Failure::kClosed, n == 0 ? 0 : errno);
  return -1;
}

bool openLink(pappl_device_t* device, const char* uri, const char* /*name*/) {
  char scheme[32], user[256], host[256], resource[1024];
  int port = 0;
  if (httpSeparateURI(HTTP_URI_CODING_ALL, uri, scheme, sizeof scheme, user, sizeof user, host, sizeof host, &port,
                      resource, sizeof resource) < HTTP_URI_STATUS_OK ||
      host[0] == '\0') {
    papplDeviceError(device, "Bad printer address '%s'", uri);
    return false;
  }
  if (port <= 0) port = 9100;
  http_addrlist_t* addresses = httpAddrGetList(host, AF_UNSPEC, std::to_string(port).c_str());
  if (addresses == nullptr) {
    papplDeviceError(device, "Unable to find the printer '%s'", host);
    return false;
  }
  int fd = -1;
  const bool connected = httpAddrConnect2(addresses, &fd, gStallMillis, &gCancelConnect) != nullptr;
  httpAddrFreeList(addresses);
  if (!connected) {
    papplDeviceError(device, "Unable to connect to %s:%d", host, port);
    return false;
  }
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  fcntl(fd, F_SETFD, FD_CLOEXEC);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  auto* link = new Link;
  link->fd = fd;
  link->uri = uri;
  {
    std::lock_guard<std::mutex> lock(gLock);
    gLinks.insert(link);
  }
  papplDeviceSetData(device, link);
  return true;
}

void closeLink(pappl_device_t* device) {
  Link* link = linkOf(device);
  if (link == nullptr) return;
  {
    std::lock_guard<std::mutex> lock(gLock);
    gLinks.erase(link);
  }
  if (link->failure != Failure::kNone) {
    // A reset, so that a printer that comes back does not print the rest
    // of a job that has been given up.
    const linger reset{1, 0};
    setsockopt(link->fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  } else {
    // Unread answers would make the close a reset, which can cost the
    // printer what it has not read yet.
    char buffer[512];
    while (recv(link->fd, buffer, sizeof buffer, MSG_DONTWAIT) > 0) {
    }
  }
  close(link->fd);
  delete link;
}

ssize_t readCallback(pappl_device_t* device, void* buffer, size_t size) {
  Link* link = linkOf(device);
  return link != nullptr ? readLink(*link, buffer, size, 10000) : -1;
}

ssize_t writeCallback(pappl_device_t* device, const void* buffer, size_t size) {
  Link* link = linkOf(device);
  return link != nullptr && sendAll(*link, static_cast<const char*>(buffer), size) ? static_cast<ssize_t>(size) : -1;
}

// What PAPPL's own devices report written.
size_t bytesWritten(pappl_device_t* device) {
  pappl_devmetrics_t metrics;
  papplDeviceGetMetrics(device, &metrics);
  return metrics.write_bytes;
}

// A device of PAPPL's: bytes it did not pass on.
std::string shortfall(pappl_device_t* device, size_t before, size_t handed) {
  const size_t written = bytesWritten(device) - before;
  return written >= handed ? std::string()
                           : "The printer took only " + std::to_string(written) + " of the " + std::to_string(handed) +
                                 " bytes sent to it";
}

// `before`: the link's count at the job's start.
std::string failureText(const Link& link, size_t before, size_t handed) {
  char text[256];
  if (link.failure == Failure::kCancelled) return "The job was cancelled";
  // A reset empties the queue: only a stalled link still knows what the
  // printer acknowledged.
  const size_t left = unsent(link), acknowledged = link.sent - left > before ? link.sent - left - before : 0;
  if (link.failure == Failure::kStalled && left == 0)
    std::snprintf(text, sizeof text, "The printer received the job's %zu bytes but has not answered for %d s", handed,
                  gStallMillis / 1000);
  else if (link.failure == Failure::kStalled)
    std::snprintf(text, sizeof text, "The printer took no data for %d s and has %zu of the %zu bytes sent to it",
                  gStallMillis / 1000, std::min(acknowledged, handed), handed);
  else
    std::snprintf(text, sizeof text, "The printer closed the connection%s%s%s after %zu bytes of this job",
                  link.error != 0 ? " (" : "", link.error != 0 ? std::strerror(link.error) : "",
                  link.error != 0 ? ")" : "", std::min(link.sent - before, handed));
  return text;
}

// Waits for the printer to acknowledge every byte and, when it answers
// status queries, to answer the one sent after them.
KelvoDelivery awaitDelivery(Link& link) {
  if (!sendAll(link, kQuery, sizeof kQuery - 1))
    return link.failure == Failure::kStalled ? KelvoDelivery::kStalled : KelvoDelivery::kLost;
  const Answers answers = answering(link.uri);
  long long progress = nowMs(), allTaken = -1;
  size_t queued = unsent(link);
  for (;;) {
    if (gStopping) park();
    if (cancelled(link)) return KelvoDelivery::kLost;
    pollfd p{link.fd, POLLIN, 0};
    poll(&p, 1, 20);
    char answer[512];
    const ssize_t got = recv(link.fd, answer, sizeof answer, MSG_DONTWAIT);
    if (got > 0 && link.answer.size() < 4096) link.answer.append(answer, static_cast<size_t>(got));
    if (got > 0 && std::memchr(answer, kEndOfAnswer, static_cast<size_t>(got)) != nullptr) {
      setAnswering(link.uri, Answers::kYes);
      return KelvoDelivery::kDelivered;
    }
    int error = 0;
    socklen_t length = sizeof error;
    if (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) error = errno;
    else getsockopt(link.fd, SOL_SOCKET, SO_ERROR, &error, &length);
    const size_t left = unsent(link);
    // A printer that closes its side (not a reset) has read what it got.
    if (error != 0 || (got == 0 && left > 0)) {
      failed(link, Failure::kClosed, error);
      return KelvoDelivery::kLost;
    }
    if (got == 0) return KelvoDelivery::kDelivered;
    const long long now = nowMs();
    if (left < queued || got > 0) progress = now;
    queued = left;
    if (left == 0 && answers != Answers::kYes) {
      if (allTaken < 0) allTaken = now;
      if (answers == Answers::kNo) return KelvoDelivery::kDelivered;
      if (now - allTaken >= kAnswerMillis) {
        setAnswering(link.uri, Answers::kNo);
        return KelvoDelivery::kDelivered;
      }
    }
    if (now - progress >= gStallMillis) {
      failed(link, Failure::kStalled, 0);
      return KelvoDelivery::kStalled;
    }
  }
}

}  // namespace

void kelvoDeviceAddScheme(int stallSeconds) {
  if (stallSeconds > 0) gStallMillis = stallSeconds * 1000;
  // PAPPL adds its own schemes only to an empty list: ask for one first.
  papplDeviceIsSupported("socket://localhost");
  papplDeviceAddScheme(kKelvoSocketScheme, PAPPL_DEVTYPE_CUSTOM_NETWORK, nullptr, openLink, closeLink, readCallback,
                       writeCallback, nullptr, nullptr);
}

void kelvoDeviceStop() {
  gStopping = true;
  gCancelConnect = 1;
}

size_t kelvoDeviceBeginJob(pappl_device_t* device, pappl_job_t* job) {
  if (Link* link = linkOf(device)) {
    link->job = job;
    link->answer.clear();
    return link->sent;
  }
  return bytesWritten(device);
}

KelvoDelivery kelvoDeviceFinishJob(pappl_device_t* device, size_t before, size_t handed, std::string& message) {
  papplDeviceFlush(device);
  if (gStopping) park();
  Link* link = linkOf(device);
  if (link == nullptr) {
    message = shortfall(device, before, handed);
    return message.empty() ? KelvoDelivery::kDelivered : KelvoDelivery::kLost;
  }
  const KelvoDelivery delivery = link->failure == Failure::kNone      ? awaitDelivery(*link)
                                 : link->failure == Failure::kStalled ? KelvoDelivery::kStalled
                                                                      : KelvoDelivery::kLost;
  if (delivery != KelvoDelivery::kDelivered) message = failureText(*link, before, handed);
  link->job = nullptr;
  return delivery;
}

KelvoDelivery kelvoDeviceFailure(pappl_device_t* device, size_t before, size_t handed, std::string& message) {
  const Link* link = linkOf(device);
  if (link == nullptr) {
    message = shortfall(device, before, handed);
    return message.empty() ? KelvoDelivery::kDelivered : KelvoDelivery::kLost;
  }
  if (link->failure == Failure::kNone) return KelvoDelivery::kDelivered;
  message = failureText(*link, before, handed);
  return link->failure == Failure::kStalled ? KelvoDelivery::kStalled : KelvoDelivery::kLost;
}

std::string kelvoDeviceLastAnswer(pappl_device_t* device) {
  Link* link = linkOf(device);
  return link != nullptr ? link->answer : std::string();
}

ssize_t kelvoDeviceRead(pappl_device_t* device, void* buffer, size_t size, int timeoutMs) {
  Link* link = linkOf(device);
  return link != nullptr ? readLink(*link, buffer, size, timeoutMs) : papplDeviceRead(device, buffer, size);
}
