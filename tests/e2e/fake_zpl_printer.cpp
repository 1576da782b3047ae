// fakezplprinter: a stand-in for a ZPL network printer. Listens on
// 127.0.0.1 (raw port printing, what CUPS's socket backend speaks), takes one
// connection at a time and saves every byte of it as <dir>/job-<n>.zpl, n
// counting from 1. A file appears under its final name only once the sender
// has closed its side, so a file that exists is complete.
//
// It never outlives its welcome: it stops on SIGTERM or SIGINT, and on its
// own when the lifetime given with -t runs out, so a test that dies without
// cleaning up leaves nothing listening for long.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
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

double nowSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

void usage() {
  std::fprintf(stderr,
               "Usage: fakezplprinter -d <dir> [-p port] [-f port-file] [-t seconds]\n"
               "  -d dir        where job-1.zpl, job-2.zpl, ... are written\n"
               "  -p port       TCP port on 127.0.0.1 (default 0: any free port)\n"
               "  -f port-file  the port actually taken is written there\n"
               "  -t seconds    stop after this long (default 900)\n");
}

bool writeFileAtomically(const std::string& path, const std::string& text) {
  const std::string part = path + ".part";
  FILE* f = std::fopen(part.c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  if (std::fclose(f) != 0 || !ok) return false;
  return std::rename(part.c_str(), path.c_str()) == 0;
}

// Reads the connection to its end into `job`. False when the peer stalls,
// the connection fails or a stop is requested before the end.
bool receiveJob(int fd, std::string& job) {
  char buffer[65536];
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    const int ready = poll(&p, 1, kIdleMillis);
    if (gStop) return false;
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) return true;
    job.append(buffer, static_cast<size_t>(got));
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::string dir;
  std::string portFile;
  long port = 0;
  long lifetime = 900;
  int opt;
  while ((opt = getopt(argc, argv, "d:p:f:t:")) != -1) {
    char* end = nullptr;
    switch (opt) {
      case 'd': dir = optarg; break;
      case 'f': portFile = optarg; break;
      case 'p':
        port = std::strtol(optarg, &end, 10);
        if (*end != '\0' || port < 0 || port > 65535) return usage(), 2;
        break;
      case 't':
        lifetime = std::strtol(optarg, &end, 10);
        if (*end != '\0' || lifetime <= 0) return usage(), 2;
        break;
      default: return usage(), 2;
    }
  }
  if (dir.empty() || optind != argc) return usage(), 2;
  if (access(dir.c_str(), W_OK | X_OK) != 0) {
    std::fprintf(stderr, "fakezplprinter: cannot write jobs into %s: %s\n", dir.c_str(), std::strerror(errno));
    return 1;
  }

  struct sigaction sa {};
  sa.sa_handler = onSignal;  // no SA_RESTART: poll must return on a stop request
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);

  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener < 0) {
    std::perror("fakezplprinter: socket");
    return 1;
  }
  const int one = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  socklen_t len = sizeof addr;
  if (bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(listener, 8) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    std::fprintf(stderr, "fakezplprinter: cannot listen on 127.0.0.1:%ld: %s\n", port, std::strerror(errno));
    close(listener);
    return 1;
  }
  const unsigned taken = ntohs(addr.sin_port);
  if (!portFile.empty() && !writeFileAtomically(portFile, std::to_string(taken) + "\n")) {
    std::fprintf(stderr, "fakezplprinter: cannot write %s: %s\n", portFile.c_str(), std::strerror(errno));
    close(listener);
    return 1;
  }
  std::fprintf(stderr, "fakezplprinter: listening on 127.0.0.1:%u, saving jobs in %s\n", taken, dir.c_str());

  const double deadline = nowSeconds() + static_cast<double>(lifetime);
  int status = 0;
  for (int jobNumber = 1; !gStop;) {
    const double left = deadline - nowSeconds();
    if (left <= 0) {
      std::fprintf(stderr, "fakezplprinter: lifetime of %ld s is over, stopping\n", lifetime);
      break;
    }
    pollfd p{listener, POLLIN, 0};
    const int ready = poll(&p, 1, left > 1.0 ? 1000 : static_cast<int>(left * 1000) + 1);
    if (ready <= 0) continue;
    const int conn = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (conn < 0) continue;
    std::string job;
    const bool complete = receiveJob(conn, job);
    const std::string path = dir + "/job-" + std::to_string(jobNumber) + ".zpl";
    if (!complete) {
      // Keep what came for diagnosis, under a name no finished job has.
      writeFileAtomically(path + ".incomplete", job);
      std::fprintf(stderr, "fakezplprinter: connection %d ended early after %zu bytes\n", jobNumber, job.size());
    } else if (!writeFileAtomically(path, job)) {
      std::fprintf(stderr, "fakezplprinter: cannot write %s: %s\n", path.c_str(), std::strerror(errno));
      close(conn);
      status = 1;
      break;
    } else {
      std::fprintf(stderr, "fakezplprinter: saved %zu bytes as %s\n", job.size(), path.c_str());
    }
    // Closed only now, so a sender that waits for the close (the socket
    // backend does) finishes its job after the file is in place.
    close(conn);
    ++jobNumber;
  }
  close(listener);
  return status;
}
