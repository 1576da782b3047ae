#pragma once
// Whole jobs through the real filter binary: raster files written with
// libcups's own raster writer or byte by byte, the program run as the
// spooler runs it, and everything it wrote collected.
#include <cups/raster.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tools/zpl_decode.h"

inline const std::string kLineFeeds(64, '\n');

inline std::string ppdPath(const char* name) { return std::string(KELVO_PPD_DIR) + "/" + name; }

inline std::string scratchPath(const std::string& name) {
  return testing::TempDir() + "kelvo_job_" + std::to_string(getpid()) + "_" + name;
}

// A file for one test, removed at its end: written by the test later, or
// at once with `bytes`.
struct Scratch {
  explicit Scratch(const std::string& name) : path(scratchPath(name)) {}
  Scratch(const std::string& name, const std::string& bytes) : path(scratchPath(name)) {
    std::ofstream(path, std::ios::binary) << bytes;
  }
  ~Scratch() { std::remove(path.c_str()); }
  std::string path;
};

inline std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

inline bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

struct RasterPage {
  unsigned width = 16, height = 4, dpi = 203, bitsPerPixel = 8, copies = 1;
  std::string sizeName;
  std::vector<unsigned char> pixels;  // bytes per line times height; missing bytes are zero
  bool headerOnly = false;            // write no pixel data at all
  unsigned bytesPerLine() const { return (width * bitsPerPixel + 7) / 8; }
};

// Writes the pages with libcups's raster writer (8-bit K, chunky, 0 = no ink).
inline void writeRaster(const std::string& path, const std::vector<RasterPage>& pages) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0) << path;
  cups_raster_t* raster = cupsRasterOpen(fd, CUPS_RASTER_WRITE);
  for (const RasterPage& page : pages) {
    cups_page_header2_t h;
    std::memset(&h, 0, sizeof h);
    std::snprintf(h.cupsPageSizeName, sizeof h.cupsPageSizeName, "%s", page.sizeName.c_str());
    h.HWResolution[0] = h.HWResolution[1] = page.dpi;
    h.PageSize[0] = page.width * 72 / (page.dpi ? page.dpi : 1);
    h.PageSize[1] = page.height * 72 / (page.dpi ? page.dpi : 1);
    h.NumCopies = page.copies;
    h.cupsWidth = page.width;
    h.cupsHeight = page.height;
    h.cupsBitsPerColor = page.bitsPerPixel;
    h.cupsBitsPerPixel = page.bitsPerPixel;
    h.cupsBytesPerLine = page.bytesPerLine();
    h.cupsColorOrder = CUPS_ORDER_CHUNKED;
    h.cupsColorSpace = CUPS_CSPACE_K;
    h.cupsNumColors = 1;
    ASSERT_TRUE(cupsRasterWriteHeader2(raster, &h));
    if (page.headerOnly) continue;
    std::vector<unsigned char> bytes = page.pixels;
    bytes.resize(static_cast<size_t>(page.bytesPerLine()) * page.height, 0);
    if (!bytes.empty()) cupsRasterWritePixels(raster, bytes.data(), static_cast<unsigned>(bytes.size()));
  }
  cupsRasterClose(raster);
  close(fd);
}

// The filter saves two debug pictures per page in the spooler's temporary
// folder; a test removes the ones its own job left there.
inline void removeDebugImagesSince(time_t start) {
  const std::string dir = "/var/spool/cups/tmp/";
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return;
  while (const dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name.rfind("origin_", 0) != 0 && name.rfind("dithered_", 0) != 0) continue;
    struct stat st;
    if (stat((dir + name).c_str(), &st) == 0 && st.st_mtime >= start) std::remove((dir + name).c_str());
  }
  closedir(d);
}

struct JobResult {
  int status = -1;
  std::string out;  // standard output: what the printer receives
  std::string err;  // standard error: what the spooler logs
  double seconds = 0;
};

// Where the filter's standard output goes.
enum class Output { Capture, DevFull, Closed, BrokenPipe };

// Runs the filter with `args` after the program name, the environment
// variable PPD set to `ppd` (unset when empty) and standard input from
// `stdinPath` (empty: /dev/null).
inline JobResult runFilter(const std::vector<std::string>& args, const std::string& ppd,
                           const std::string& stdinPath = "", Output output = Output::Capture) {
  const std::string outPath = scratchPath("job.out"), errPath = scratchPath("job.err");
  int pipeEnds[2] = {-1, -1};
  if (output == Output::BrokenPipe) {
    EXPECT_EQ(pipe(pipeEnds), 0);
    close(pipeEnds[0]);  // nobody will ever read
  }
  const auto start = std::chrono::steady_clock::now();
  const time_t wallStart = time(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(open(stdinPath.empty() ? "/dev/null" : stdinPath.c_str(), O_RDONLY), 0);
    dup2(open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
    switch (output) {
      case Output::Capture: dup2(open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1); break;
      case Output::DevFull: dup2(open("/dev/full", O_WRONLY), 1); break;
      case Output::Closed: close(1); break;
      case Output::BrokenPipe: dup2(pipeEnds[1], 1); break;
    }
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
  int status = 0;
  waitpid(pid, &status, 0);
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.out = slurp(outPath);
  result.err = slurp(errPath);
  std::remove(outPath.c_str());
  std::remove(errPath.c_str());
  removeDebugImagesSince(wallStart);
  return result;
}

// The usual six arguments of a job with `options`, reading `raster`.
inline std::vector<std::string> jobArgs(const std::string& options, const std::string& raster) {
  return {"42", "user", "title", "1", options, raster};
}

// Runs a job on raster bytes as they are.
inline JobResult runJob(const std::string& raster, const std::string& options, const std::string& ppd,
                        Output output = Output::Capture) {
  const Scratch input("job.ras", raster);
  return runFilter(jobArgs(options, input.path), ppd, "", output);
}

inline std::vector<ZplGraphic> graphicsOf(const std::string& job) {
  std::vector<ZplGraphic> graphics;
  std::string error;
  EXPECT_TRUE(kelvoZplDecode(reinterpret_cast<const unsigned char*>(job.data()), job.size(), graphics, error))
      << error;
  return graphics;
}
