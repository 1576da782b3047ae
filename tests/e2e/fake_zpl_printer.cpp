// fakezplprinter: a stand-in for a ZPL network printer. Listens on a free
// port of 127.0.0.1 (raw port printing, what CUPS's socket backend speaks),
// takes one connection at a time and saves every byte of it as
// <dir>/job-<n>.zpl, n counting from 1. A file appears under its final name
// only once the sender has closed its side, so a file that exists is complete;
// a connection that ends any other way leaves <dir>/job-<n>.zpl.incomplete.
// Host status queries (~HQES, and ~HS as older printers know it) are
// answered as the printer state named in the file given with -s says (one
// of kStates; "ready" without the file), read again at every query, so a
// test can change the printer's state while it runs. A connection that
// carried nothing but queries is no job and is not saved.
// The file's modification time is the arrival of its last byte, so that a sender
// that keeps the connection open afterwards (waiting for a status answer
// that never comes) can be timed up to that byte.
//
// Printers also fail. A mode says how this one behaves (-m, or the first
// word of the control file given with -c, read before every connection and
// every 0.2 s while refusing, so a test can change it while it runs):
//   save            reads every connection to its end (the default)
//   never-read      accepts and reads nothing until the sender goes away or
//                   the mode changes (the printer restarts: the connection
//                   is reset)
//   slow=N          reads at most N bytes a second
//   close-after=N   reads N bytes of a connection, then closes it
//   refuse          accepts nothing: connections are refused
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

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

volatile sig_atomic_t gStop = 0;
time_t gDeadline = 0;

void onSignal(int) { gStop = 1; }
bool stopping() { return gStop || time(nullptr) >= gDeadline; }

// A connection that sends nothing for this long is dropped; the socket
// backend streams a job without pauses of that length.
constexpr int kIdleMillis = 60000;

enum class Mode { kSave, kNeverRead, kSlow, kCloseAfter, kRefuse };
struct ModeName {
  const char* name;
  Mode mode;
  bool counted;  // takes "=N"
};
const ModeName kModes[] = {
    {"save", Mode::kSave, false},         {"never-read", Mode::kNeverRead, false}, {"slow", Mode::kSlow, true},
    {"close-after", Mode::kCloseAfter, true}, {"refuse", Mode::kRefuse, false},
};
struct Behaviour {
  Mode mode = Mode::kSave;
  long count = 0;
};

bool parseMode(const std::string& text, Behaviour& out) {
  const size_t eq = text.find('=');
  const std::string name = text.substr(0, eq);
  for (const ModeName& m : kModes) {
    if (name != m.name || m.counted != (eq != std::string::npos)) continue;
    out.mode = m.mode;
    out.count = m.counted ? std::atol(text.c_str() + eq + 1) : 0;
    return !m.counted || out.count > 0;
  }
  return false;
}

// The control file's mode, or `fallback` while it has none.
Behaviour currentMode(const std::string& controlFile, const Behaviour& fallback) {
  Behaviour b = fallback;
  std::string word;
  if (!controlFile.empty() && std::ifstream(controlFile) >> word && !parseMode(word, b)) b = fallback;
  return b;
}

// ~HQES's answer with the low groups of its ERRORS and WARNINGS lines.
std::string hqes(const char* errors, const char* warnings) {
  const char* errorFlag = std::strcmp(errors, "00000000") != 0 ? "1" : "0";
  const char* warningFlag = std::strcmp(warnings, "00000000") != 0 ? "1" : "0";
  return std::string("\x02\r\n  PRINTER STATUS\r\n    ERRORS:         ") + errorFlag + " 00000000 " + errors +
         "\r\n    WARNINGS:       " + warningFlag + " 00000000 " + warnings + "\r\n\x03\r\n";
}

// ~HS's three strings of a printer in tear-off mode, direct thermal, with
// the paper out flag as given ('0' or '1').
std::string hs(char paperOut) {
  return std::string("\x02" "030,") + paperOut + ",0,1218,000,0,0,0,000,0,0,0\x03\r\n" +
         "\x02" "001,0,0,0,0,2,4,0,00000000,1,000\x03\r\n\x02" "1234,0\x03\r\n";
}

// A printer state: what it answers to ~HQES and to ~HS ("" for nothing),
// and after how long.
struct State {
  const char* name;
  std::string toHqes;
  std::string toHs;
  int delayMillis;
};

const State kStates[] = {
    // A printer of today: ~HQES only.
    {"ready", hqes("00000000", "00000000"), "", 0},
    {"media-out", hqes("00000001", "00000000"), "", 0},
    {"ribbon-out", hqes("00000002", "00000000"), "", 0},
    {"head-open", hqes("00000004", "00000000"), "", 0},
    {"cutter", hqes("00000008", "00000000"), "", 0},
    {"head-hot", hqes("00000010", "00000000"), "", 0},
    {"jam", hqes("00001000", "00000000"), "", 0},
    {"paused", hqes("00010000", "00000000"), "", 0},
    {"media-low", hqes("00000000", "00000008"), "", 0},
    {"media-out-and-head-open", hqes("00000005", "00000000"), "", 0},
    // Both, as printers that know ~HQES answer ~HS too (LPrint asks both,
    // and sizes its labels by ~HS's label length).
    {"answering", hqes("00000000", "00000000"), hs('0'), 0},
    // An older printer: ~HS only.
    {"hs-only-media-out", "", hs('1'), 0},
    {"hs-only-ready", "", hs('0'), 0},
    // Printers that answer wrongly, in part, not at all, or too late.
    {"garbage", "?? unknown command\r\n", "?? unknown command\r\n", 0},
    {"partial", "\x02\r\n  PRINTER STATUS\r\n    ERRORS:         1 00000000 0000", "", 0},
    {"silent", "", "", 0},
    {"late", hqes("00000001", "00000000"), hs('1'), 5000},
};

const State& stateNamed(const std::string& file) {
  std::string name = "ready";
  if (!file.empty()) {
    std::ifstream in(file);
    in >> name;
  }
  for (const State& state : kStates)
    if (name == state.name) return state;
  std::fprintf(stderr, "fakezplprinter: no printer state %s, answering as ready\n", name.c_str());
  return kStates[0];
}

long long nowMillis() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec * 1000LL + t.tv_nsec / 1000000;
}

// True when `job` holds nothing but status queries and white space.
bool onlyQueries(std::string job) {
  for (const char* query : {"~HQES", "~HS"})
    for (size_t at = job.find(query); at != std::string::npos; at = job.find(query)) job.erase(at, std::strlen(query));
  return job.find_first_not_of(" \t\r\n") == std::string::npos;
}

bool writeFileAtomically(const std::string& path, const std::string& text) {
  const std::string part = path + ".part";
  FILE* f = std::fopen(part.c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  return std::fclose(f) == 0 && ok && std::rename(part.c_str(), path.c_str()) == 0;
}

// Answers the queries that have come complete in `job` since `scan`, as
// the printer's state says: at once, or into `pending` when it answers late.
bool answerQueries(int fd, const std::string& job, size_t& scan, const std::string& stateFile, std::string& pending,
                   long long& due) {
  for (;;) {
    const size_t hqesAt = job.find("~HQES", scan), hsAt = job.find("~HS", scan);
    const size_t at = std::min(hqesAt, hsAt);
    if (at == std::string::npos) {
      // A query may arrive split across reads: look from its start on.
      scan = std::max(scan, job.size() < 4 ? 0 : job.size() - 4);
      return true;
    }
    const bool hqes = at == hqesAt;
    scan = at + (hqes ? 5 : 3);
    const State& state = stateNamed(stateFile);
    const std::string& answer = hqes ? state.toHqes : state.toHs;
    std::fprintf(stderr, "fakezplprinter: %s query after %zu bytes, %s\n", hqes ? "~HQES" : "~HS", at,
                 answer.empty() ? "not answered" : state.delayMillis > 0 ? "answered late" : "answered");
    if (answer.empty()) continue;
    if (state.delayMillis > 0) {
      pending = answer;
      due = nowMillis() + state.delayMillis;
    } else if (write(fd, answer.data(), answer.size()) < 0) {
      return false;
    }
  }
}

// Reads the connection to its end into `job` as `b` says, noting when the
// last byte came. False when the connection ends any other way: the peer
// stalls or resets it, this printer closes it (close-after, or a change
// from never-read), or a stop is requested.
bool receiveJob(int fd, const Behaviour& b, const std::string& controlFile, const std::string& stateFile,
                std::string& job, timespec& last) {
  size_t scan = 0;      // where the next query is looked for
  std::string pending;  // an answer not yet due
  long long due = 0;
  char buffer[65536];
  timespec second{};
  long readThisSecond = 0;
  for (;;) {
    if (b.mode == Mode::kCloseAfter && static_cast<long>(job.size()) >= b.count) return false;
    size_t want = sizeof buffer;
    if (b.mode == Mode::kCloseAfter) want = std::min(want, static_cast<size_t>(b.count - static_cast<long>(job.size())));
    if (b.mode == Mode::kSlow) {
      timespec now{};
      clock_gettime(CLOCK_MONOTONIC, &now);
      if (now.tv_sec != second.tv_sec) second = now, readThisSecond = 0;
      if (readThisSecond >= b.count) {
        if (stopping()) return false;
        usleep(static_cast<useconds_t>((1000000000L - now.tv_nsec) / 1000 + 1));
        continue;
      }
      want = std::min(want, static_cast<size_t>(b.count - readThisSecond));
    }
    // Never reading, it only watches for the sender going away.
    const long long wait = pending.empty() ? kIdleMillis : std::max(0LL, due - nowMillis());
    pollfd p{fd, static_cast<short>(b.mode == Mode::kNeverRead ? POLLRDHUP : POLLIN), 0};
    const int ready = poll(&p, 1, b.mode == Mode::kNeverRead ? 200 : static_cast<int>(std::min<long long>(wait, kIdleMillis)));
    if (stopping() || (ready < 0 && errno != EINTR)) return false;
    if (b.mode == Mode::kNeverRead) {
      if (ready > 0 || currentMode(controlFile, b).mode != Mode::kNeverRead) return false;
      continue;
    }
    if (ready == 0) {
      if (pending.empty()) return false;
      // The peer may have gone meanwhile; that is no failure of the job.
      if (write(fd, pending.data(), pending.size()) < 0 && errno != EPIPE) return false;
      pending.clear();
      continue;
    }
    const ssize_t got = ready > 0 ? read(fd, buffer, want) : -1;
    if (got == 0) return true;
    if (got > 0) {
      job.append(buffer, static_cast<size_t>(got));
      readThisSecond += got;
      clock_gettime(CLOCK_REALTIME, &last);
      if (!answerQueries(fd, job, scan, stateFile, pending, due)) return false;
    } else if (errno != EINTR) {
      return false;
    }
  }
}

int fail(const char* what, const std::string& name) {
  std::fprintf(stderr, "fakezplprinter: %s %s: %s\n", what, name.c_str(), std::strerror(errno));
  return 1;
}

// A listening socket on 127.0.0.1:`port` (0: a free one, which `port` is set to).
int listenOn(unsigned& port) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  // A printer's network buffer holds some tens of kilobytes; loopback's
  // would grow to megabytes and hide from a sender that the printer has
  // stopped reading.
  const int buffer = 65536;
  setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  socklen_t len = sizeof addr;
  if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listener, 8) != 0 || getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    if (listener >= 0) close(listener);
    return -1;
  }
  port = ntohs(addr.sin_port);
  return listener;
}

}  // namespace

int main(int argc, char** argv) {
  std::string dir, portFile, controlFile, stateFile;
  long lifetime = 900;
  Behaviour initial;
  auto usage = [] {
    std::fprintf(stderr,
                 "Usage: fakezplprinter -d <dir> [-f port-file] [-s state-file] [-t seconds, default 900] [-m mode]\n"
                 "       [-c control-file]\n"
                 "modes: save, never-read, slow=N, close-after=N, refuse\n");
    return 2;
  };
  for (int opt; (opt = getopt(argc, argv, "d:f:s:t:m:c:")) != -1;) {
    if (opt == 'd') dir = optarg;
    else if (opt == 'f') portFile = optarg;
    else if (opt == 's') stateFile = optarg;
    else if (opt == 't') lifetime = std::atol(optarg);
    else if (opt == 'm' && parseMode(optarg, initial)) continue;
    else if (opt == 'c') controlFile = optarg;
    else return usage();
  }
  if (dir.empty() || optind != argc || lifetime <= 0) return usage();
  if (access(dir.c_str(), W_OK | X_OK) != 0) return fail("cannot write jobs into", dir);

  struct sigaction sa {};
  sa.sa_handler = onSignal;  // no SA_RESTART: poll must return on a stop request
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);

  unsigned port = 0;
  int listener = listenOn(port);
  if (listener < 0) return fail("cannot listen on", "127.0.0.1");
  if (!portFile.empty() && !writeFileAtomically(portFile, std::to_string(port) + "\n"))
    return fail("cannot write", portFile);
  std::fprintf(stderr, "fakezplprinter: listening on 127.0.0.1:%u, saving jobs in %s\n", port, dir.c_str());

  gDeadline = time(nullptr) + lifetime;
  for (int jobNumber = 1; !gStop;) {
    if (stopping()) {
      std::fprintf(stderr, "fakezplprinter: lifetime of %ld s is over, stopping\n", lifetime);
      break;
    }
    const Behaviour b = currentMode(controlFile, initial);
    // Refusing, the port has no listener; it comes back on the same port.
    if ((b.mode == Mode::kRefuse) != (listener < 0)) {
      if (listener >= 0) {
        close(listener);
        listener = -1;
      } else if ((listener = listenOn(port)) < 0) {
        return fail("cannot listen again on", std::to_string(port));
      }
    }
    pollfd p{listener, POLLIN, 0};
    const int conn = listener >= 0 && poll(&p, 1, 200) > 0 ? accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) : -1;
    if (conn < 0) {
      if (listener < 0) usleep(200000);
      continue;
    }
    std::string job;
    timespec last{};
    clock_gettime(CLOCK_REALTIME, &last);
    const bool whole = receiveJob(conn, currentMode(controlFile, initial), controlFile, stateFile, job, last);
    if (whole && onlyQueries(job)) {
      std::fprintf(stderr, "fakezplprinter: a connection of status queries only\n");
      close(conn);
      continue;
    }
    const std::string path = dir + "/job-" + std::to_string(jobNumber++) + ".zpl";
    if (!whole) {
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
  if (listener >= 0) close(listener);
  return 0;
}
