#pragma once
// Whole jobs through the real filter binary: raster streams written byte by
// byte, so headers can say anything, the program run as the spooler runs it,
// and everything it wrote collected.
#include <cups/raster.h>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <malloc.h>
#ifdef KELVO_SANITIZED
#include <sanitizer/allocator_interface.h>
#endif
#include <sys/ioctl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

#include "filter_test_util.h"
#include "test_support/read_file.h"
#include "tools/zpl_decode.h"

inline const std::string kLineFeeds(64, '\n');

// The user cupsd runs filters as. When the tests run as root, jobs started
// while a test holds a RunAsLp run as that user, as in a real spooler; the
// job's temporary folder then belongs to it.
inline const passwd* lpUser() {
  static const passwd* user = getuid() == 0 ? getpwnam("lp") : nullptr;
  return user;
}
inline bool gRunAsLp = false;
struct RunAsLp {
  RunAsLp() { gRunAsLp = lpUser() != nullptr; }
  ~RunAsLp() { gRunAsLp = false; }
  // Why a test that needs the switch cannot have it; empty when it can.
  static std::string unavailable() {
    return lpUser() != nullptr ? "" : "not running as root with a user lp: jobs run as the test's own user";
  }
};

// Address space the jobs started while a test holds a MemoryLimit may take:
// their allocations fail past it.
inline rlim_t gMemoryLimit = 0;
struct MemoryLimit {
  explicit MemoryLimit(rlim_t bytes) { gMemoryLimit = bytes; }
  ~MemoryLimit() { gMemoryLimit = 0; }
};


// An 8-bit K page, 0 = no ink; `pixels` are written as they are, however
// many there are.
struct RawPage {
  cups_page_header2_t h;
  std::string pixels;
};

inline RawPage page(unsigned width, unsigned height, unsigned dpi = 203, unsigned char ink = 0) {
  RawPage p{{}, std::string(static_cast<size_t>(width) * height, static_cast<char>(ink))};
  p.h.HWResolution[0] = p.h.HWResolution[1] = dpi;
  p.h.NumCopies = 1;
  p.h.cupsWidth = width;
  p.h.cupsHeight = height;
  p.h.cupsBitsPerColor = p.h.cupsBitsPerPixel = 8;
  p.h.cupsBytesPerLine = width;
  p.h.cupsColorOrder = CUPS_ORDER_CHUNKED;
  p.h.cupsColorSpace = CUPS_CSPACE_K;
  p.h.cupsNumColors = 1;
  return p;
}

inline RawPage noisePage(unsigned width, unsigned height, unsigned dpi = 203, uint32_t seed = 1) {
  RawPage p = page(width, height, dpi);
  for (char& c : p.pixels) c = static_cast<char>((seed = seed * 1103515245u + 12345u) >> 24);
  return p;
}

// An uncompressed raster stream in this machine's byte order, as libcups
// writes one.
inline std::string rasterStream(const std::vector<RawPage>& pages) {
  const uint32_t sync = CUPS_RASTER_SYNC;
  std::string bytes(reinterpret_cast<const char*>(&sync), sizeof sync);
  for (const RawPage& p : pages) bytes.append(reinterpret_cast<const char*>(&p.h), sizeof p.h) += p.pixels;
  return bytes;
}

// What a page is made of, for pages written with libcups's compressing
// writer: CUPS's own filters send compressed raster, where rows that repeat
// and runs of one level take a byte or two.
enum class Content { Blank, Gray, Noise, Grid };

// Row y of such a page. Grid is the costliest kind of page for Barcode and
// Text: rows of paper, ink and mixed pixels in between (mixes whose share
// changes from row to row), groups of them 66 dots apart, with random pixels
// in the gaps.
inline void contentRow(Content content, unsigned y, unsigned width, unsigned char* row, uint32_t& seed) {
  for (unsigned x = 0; x < width; ++x) {
    const unsigned p = x % 66;
    switch (content) {
      case Content::Blank: row[x] = 0; break;
      case Content::Gray: row[x] = 128; break;
      case Content::Noise: row[x] = static_cast<unsigned char>((seed = seed * 1103515245u + 12345u) >> 24); break;
      case Content::Grid:
        if (p < 33) {
          row[x] = p % 2 ? static_cast<unsigned char>(40 + (y * 7 + x) % 170) : p % 4 == 0 ? 0 : 255;
        } else {
          seed = seed * 1103515245u + 12345u;
          row[x] = seed >> 24 & 1 ? static_cast<unsigned char>(40 + (seed >> 16) % 170) : (seed >> 8 & 1 ? 0 : 255);
        }
        break;
    }
  }
}

// Writes a compressed raster stream of `pages` pages to `path`, rows of
// `bytesPerLine` bytes (0: the width; the padding is blank); its size in
// bytes.
inline off_t writeCompressedPage(const std::string& path, unsigned width, unsigned height, unsigned dpi,
                                 Content content, unsigned pages = 1, unsigned bytesPerLine = 0) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  EXPECT_GE(fd, 0) << path;
  cups_raster_t* writer = cupsRasterOpen(fd, CUPS_RASTER_WRITE_COMPRESSED);
  cups_page_header2_t h = page(width, 0, dpi).h;
  h.cupsHeight = height;
  h.cupsBytesPerLine = std::max(width, bytesPerLine);
  std::vector<unsigned char> row(h.cupsBytesPerLine);
  uint32_t seed = 1;
  for (unsigned n = 0; n < pages; ++n) {
    EXPECT_TRUE(cupsRasterWriteHeader2(writer, &h));
    for (unsigned y = 0; y < height; ++y) {
      contentRow(content, y, width, row.data(), seed);
      cupsRasterWritePixels(writer, row.data(), h.cupsBytesPerLine);
    }
  }
  cupsRasterClose(writer);
  struct stat info {};
  fstat(fd, &info);
  close(fd);
  return info.st_size;
}

// The shipped PPD `name` as an administrator may change it: jobs allowed to
// ask for recordings and debug pictures, recordings named <prefix>-<date and
// time>.bin, custom sizes up to `largestPt` points each way.
struct PpdChanges {
  bool allowJobs = false;
  std::string recordingPrefix;
  double largestPt = 0;
};
inline std::string shippedPpd(const char* name, const PpdChanges& changes) {
  std::string text = readFile(ppdPath(name));
  auto replaceLine = [&text](const std::string& start, const std::string& line) {
    const size_t at = text.find(start);
    EXPECT_NE(at, std::string::npos) << start;
    if (at != std::string::npos) text.replace(at, text.find('\n', at) - at, line);
  };
  if (changes.allowJobs) replaceLine("*kelvoAllowJobRecording:", "*kelvoAllowJobRecording: \"True\"");
  if (!changes.recordingPrefix.empty())
    replaceLine("*kelvoFilterOutputFile:", "*kelvoFilterOutputFile: \"" + changes.recordingPrefix + "\"");
  if (changes.largestPt > 0) {
    const std::string pt = std::to_string(static_cast<long>(changes.largestPt));
    replaceLine("*MaxMediaWidth:", "*MaxMediaWidth: \"" + pt + "\"");
    replaceLine("*MaxMediaHeight:", "*MaxMediaHeight: \"" + pt + "\"");
    replaceLine("*ParamCustomPageSize Width:", "*ParamCustomPageSize Width: 1 points 36 " + pt);
    replaceLine("*ParamCustomPageSize Height:", "*ParamCustomPageSize Height: 2 points 36 " + pt);
  }
  return text;
}

// The spooler's temporary folder of a job (TMPDIR), where the filter saves
// its debug pictures; made empty for each job and removed after it.
inline std::string jobTempDir() { return scratchPath("tmpdir"); }

inline std::vector<std::string> namesIn(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (const dirent* e = readdir(d))
      if (e->d_name[0] != '.') names.push_back(e->d_name);
    closedir(d);
  }
  return names;
}

inline void removeTree(const std::string& dir) {
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return;
  while (const dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name != "." && name != "..") std::remove((dir + "/" + name).c_str());
  }
  closedir(d);
  rmdir(dir.c_str());
}

struct JobResult {
  int status = -1;
  std::string out;  // standard output: what the printer receives
  std::string err;  // standard error: what the spooler logs
  double seconds = 0;
  std::vector<std::string> tempFiles;  // what the job left in its TMPDIR
  // The job's peak resident memory and processor time, as the kernel counts
  // them for the child. A child starts as a copy of this process, so the
  // peak is never below this process's own at the start.
  long peakKb = 0;
  double cpuSeconds = 0;
};

// Where the filter's standard output goes. Cancel: a pipe the test reads;
// once `cancelAt` bytes have come and the filter has filled the pipe, the
// job gets SIGTERM as the spooler cancels it, and the time counts from there.
// Stalled: a pipe nobody reads (a printer link that hangs), cancelled once
// the filter has filled it. CloseAndCancel: the pipe's reader goes away and
// the job is cancelled 0.1 s later, as when cupsd stops the backend first.
// Terminate: captured, and the job gets SIGTERM 0.1 s after it started.
enum class Output { Capture, DevFull, Closed, BrokenPipe, Cancel, Stalled, CloseAndCancel, Terminate };

// Runs the filter with `args` after the program name, the environment
// variable PPD set to `ppd` (unset when empty) and standard input from
// `stdinPath` (empty: /dev/null).
inline JobResult runFilter(const std::vector<std::string>& args, const std::string& ppd,
                           const std::string& stdinPath = "", Output output = Output::Capture, size_t cancelAt = 0) {
  const std::string outPath = scratchPath("job.out"), errPath = scratchPath("job.err");
  int pipeEnds[2] = {-1, -1};
  const bool piped = output == Output::BrokenPipe || output == Output::Cancel || output == Output::Stalled ||
                     output == Output::CloseAndCancel;
  if (piped) {
    EXPECT_EQ(pipe(pipeEnds), 0);
  }
  if (output == Output::BrokenPipe) close(pipeEnds[0]);  // nobody will ever read
  const std::string tempDir = jobTempDir();  // named after this process, not the child
  removeTree(tempDir);
  mkdir(tempDir.c_str(), 0700);
  const bool asLp = gRunAsLp;
  if (asLp && chown(tempDir.c_str(), lpUser()->pw_uid, lpUser()->pw_gid) != 0) ADD_FAILURE() << "chown " << tempDir;
  // Freed memory goes back first: the child's peak starts at this process's.
#ifdef KELVO_SANITIZED
  __sanitizer_purge_allocator();  // freed blocks held back to catch their use
#else
  malloc_trim(0);
#endif
  auto start = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    if (gMemoryLimit != 0) {
      const struct rlimit limit {gMemoryLimit, gMemoryLimit};
      setrlimit(RLIMIT_AS, &limit);
    }
    dup2(open(stdinPath.empty() ? "/dev/null" : stdinPath.c_str(), O_RDONLY), 0);
    dup2(open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
    switch (output) {
      case Output::Capture:
      case Output::Terminate: dup2(open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1); break;
      case Output::DevFull: dup2(open("/dev/full", O_WRONLY), 1); break;
      case Output::Closed: close(1); break;
      default: dup2(pipeEnds[1], 1), close(pipeEnds[0]); break;
    }
    setenv("TMPDIR", tempDir.c_str(), 1);
    if (asLp && (setgroups(0, nullptr) != 0 || setgid(lpUser()->pw_gid) != 0 || setuid(lpUser()->pw_uid) != 0))
      _exit(126);
    if (ppd.empty()) unsetenv("PPD");
    else setenv("PPD", ppd.c_str(), 1);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(KELVO_FILTER_PATH));
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(KELVO_FILTER_PATH, argv.data());
    _exit(127);
  }
  if (pipeEnds[1] >= 0) close(pipeEnds[1]);
  JobResult result;
  if (output == Output::Cancel) {
    auto readSome = [&] {
      char chunk[8192];
      pollfd p{pipeEnds[0], POLLIN, 0};
      const ssize_t n = poll(&p, 1, 60000) > 0 ? read(pipeEnds[0], chunk, sizeof chunk) : 0;
      if (n > 0) result.out.append(chunk, static_cast<size_t>(n));
      return n > 0;
    };
    while (result.out.size() < cancelAt && readSome()) {
    }
    usleep(200 * 1000);
    start = std::chrono::steady_clock::now();
    kill(pid, SIGTERM);
    while (readSome()) {
    }
    close(pipeEnds[0]);
  } else if (output == Output::Stalled || output == Output::CloseAndCancel) {
    // Wait until the filter blocks on the full pipe, then cancel.
    for (int i = 0; i < 100; ++i) {
      int queued = 0;
      if (ioctl(pipeEnds[0], FIONREAD, &queued) == 0 && queued >= 65536) break;
      usleep(50 * 1000);
    }
    usleep(200 * 1000);
    start = std::chrono::steady_clock::now();
    if (output == Output::CloseAndCancel) close(pipeEnds[0]), usleep(100 * 1000);
    kill(pid, SIGTERM);
  } else if (output == Output::Terminate) {
    usleep(100 * 1000);
    kill(pid, SIGTERM);
  }
  // A job that hangs is killed after two minutes and fails its test.
  int status = 0;
  struct rusage usage {};
  for (int waited = 0; wait4(pid, &status, WNOHANG, &usage) == 0; ++waited) {
    if (waited == 120000) kill(pid, SIGKILL);
    usleep(1000);
  }
  result.peakKb = usage.ru_maxrss;
  result.cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                      static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (output == Output::Stalled) close(pipeEnds[0]);
  result.tempFiles = namesIn(jobTempDir());
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  if (output != Output::Cancel) result.out = readFile(outPath);
  result.err = readFile(errPath);
  std::remove(outPath.c_str());
  std::remove(errPath.c_str());
  removeTree(jobTempDir());
  return result;
}

// The usual six arguments of a job with `options`, reading `raster`.
inline std::vector<std::string> jobArgs(const std::string& options, const std::string& raster) {
  return {"42", "user", "title", "1", options, raster};
}

// Runs a job on raster bytes as they are.
inline JobResult runJob(const std::string& raster, const std::string& options, const std::string& ppd,
                        Output output = Output::Capture, size_t cancelAt = 0) {
  const TempFile input("job.ras", raster);
  return runFilter(jobArgs(options, input.path), ppd, "", output, cancelAt);
}

inline std::vector<ZplGraphic> graphicsOf(const std::string& job) {
  std::vector<ZplGraphic> graphics;
  std::string error;
  EXPECT_TRUE(kelvoZplDecode(reinterpret_cast<const unsigned char*>(job.data()), job.size(), graphics, error))
      << error;
  return graphics;
}
