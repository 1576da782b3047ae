// fakezplprinter: a stand-in for a ZPL network printer. Listens on a free
// port of 127.0.0.1 (raw port printing, what CUPS's socket backend speaks),
// takes one connection at a time and saves every byte of it as
// <dir>/job-<n>.zpl, n counting from 1. A file appears under its final name
// only once the sender has closed its side, so a file that exists is complete.
// A host status query (~HQES) is answered as a ready printer answers it.
// The file's modification time is the arrival of its last byte, so that a sender
// that keeps the connection open afterwards (waiting for a status answer
// that never comes) can be timed up to that byte.
//
// It never outlives its welcome: it stops on SIGTERM or SIGINT, and on its
// own when the lifetime given with -t runs out, so a test that dies without
// cleaning up leaves nothing listening for long.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

volatile sig_atomic_t gStop = 0;

void onSignal(int) { gStop = 1; }

// A connection that sends nothing for this long is dropped; the socket
// backend streams a job without pauses of that length.
constexpr int kIdleMillis = 60000;

bool writeFileAtomically(const std::string& path, const std::string& text) {
  const std::string part = path + ".part";
  FILE* f = std::fopen(part.c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  return std::fclose(f) == 0 && ok && std::rename(part.c_str(), path.c_str()) == 0;
}

// Reads the connection to its end into `job`, noting when the last byte
// came. False when the peer stalls, the connection fails or a stop is
// requested before the end.
bool receiveJob(int fd, std::string& job, timespec& last) {
  static const char kReady[] =
      "\x02\r\n  PRINTER STATUS\r\n    ERRORS:         0 00000000 00000000\r\n"
      "    WARNINGS:       0 00000000 00000000\r\n\x03\r\n";
  size_t answered = 0;  // queries answered so far
  char buffer[65536];
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    const int ready = poll(&p, 1, kIdleMillis);
    if (gStop || (ready < 0 && errno != EINTR) || ready == 0) return false;
    const ssize_t got = ready > 0 ? read(fd, buffer, sizeof buffer) : -1;
    if (got == 0) return true;
    if (got > 0) {
      job.append(buffer, static_cast<size_t>(got));
      clock_gettime(CLOCK_REALTIME, &last);
      size_t queries = 0;
      for (size_t at = job.find("~HQES"); at != std::string::npos; at = job.find("~HQES", at + 5)) ++queries;
      for (; answered < queries; ++answered)
        if (write(fd, kReady, sizeof kReady - 1) < 0) return false;
    } else if (errno != EINTR) return false;
  }
}

int fail(const char* what, const std::string& name) {
  std::fprintf(stderr, "fakezplprinter: %s %s: %s\n", what, name.c_str(), std::strerror(errno));
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string dir, portFile;
  long lifetime = 900;
  auto usage = [] {
    std::fprintf(stderr, "Usage: fakezplprinter -d <dir> [-f port-file] [-t seconds, default 900]\n");
    return 2;
  };
  for (int opt; (opt = getopt(argc, argv, "d:f:t:")) != -1;) {
    if (opt == 'd') dir = optarg;
    else if (opt == 'f') portFile = optarg;
    else if (opt == 't') lifetime = std::atol(optarg);
    else return usage();
  }
  if (dir.empty() || optind != argc || lifetime <= 0) return usage();
  if (access(dir.c_str(), W_OK | X_OK) != 0) return fail("cannot write jobs into", dir);

  struct sigaction sa {};
  sa.sa_handler = onSignal;  // no SA_RESTART: poll must return on a stop request
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);

  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listener, 8) != 0 || getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
    return fail("cannot listen on", "127.0.0.1");
  const unsigned port = ntohs(addr.sin_port);
  if (!portFile.empty() && !writeFileAtomically(portFile, std::to_string(port) + "\n"))
    return fail("cannot write", portFile);
  std::fprintf(stderr, "fakezplprinter: listening on 127.0.0.1:%u, saving jobs in %s\n", port, dir.c_str());

  const time_t deadline = time(nullptr) + lifetime;
  for (int jobNumber = 1; !gStop;) {
    if (time(nullptr) >= deadline) {
      std::fprintf(stderr, "fakezplprinter: lifetime of %ld s is over, stopping\n", lifetime);
      break;
    }
    pollfd p{listener, POLLIN, 0};
    const int conn = poll(&p, 1, 1000) > 0 ? accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) : -1;
    if (conn < 0) continue;
    std::string job;
    timespec last{};
    clock_gettime(CLOCK_REALTIME, &last);
    const std::string path = dir + "/job-" + std::to_string(jobNumber++) + ".zpl";
    if (!receiveJob(conn, job, last)) {
      // Keep what came for diagnosis, under a name no finished job has.
      writeFileAtomically(path + ".incomplete", job);
      std::fprintf(stderr, "fakezplprinter: %s ended early after %zu bytes\n", path.c_str(), job.size());
    } else if (!writeFileAtomically(path, job)) {
      return fail("cannot write", path);
    } else {
      const timespec times[2] = {last, last};
      utimensat(AT_FDCWD, path.c_str(), times, 0);
      std::fprintf(stderr, "fakezplprinter: saved %zu bytes as %s\n", job.size(), path.c_str());
    }
    // Closed only now, so a sender that waits for the close (the socket
    // backend does) finishes its job after the file is in place.
    close(conn);
  }
  close(listener);
  return 0;
}
