// Hostile and broken input through the real filter binary: headers that
// overflow or contradict themselves, extreme resolutions, streams that stop
// anywhere, odd options and PPDs, outputs that fail, and a job cancelled in
// the middle of its graphic.
#include <poll.h>
#include <signal.h>

#include <limits>

#include "filter/job_setup.h"
#include "job_runner.h"
#include "printer/zpl_printer.h"

namespace {

using Clock = std::chrono::steady_clock;

// --- raster streams written byte by byte, so headers can say anything ---

cups_page_header2_t header(unsigned width, unsigned height, unsigned dpi = 203) {
  cups_page_header2_t h;
  std::memset(&h, 0, sizeof h);
  h.HWResolution[0] = h.HWResolution[1] = dpi;
  h.NumCopies = 1;
  h.cupsWidth = width;
  h.cupsHeight = height;
  h.cupsBitsPerColor = h.cupsBitsPerPixel = 8;
  h.cupsBytesPerLine = width;
  h.cupsColorOrder = CUPS_ORDER_CHUNKED;
  h.cupsColorSpace = CUPS_CSPACE_K;
  h.cupsNumColors = 1;
  return h;
}

struct RawPage {
  cups_page_header2_t h;
  std::string pixels;  // written as they are, however many there are
};

RawPage noisePage(unsigned width, unsigned height, unsigned dpi = 203, uint32_t seed = 1) {
  RawPage page{header(width, height, dpi), std::string(static_cast<size_t>(width) * height, '\0')};
  for (char& c : page.pixels) {
    seed = seed * 1103515245u + 12345u;
    c = static_cast<char>(seed >> 24);
  }
  return page;
}

// An uncompressed raster stream in this machine's byte order.
std::string rasterStream(const std::vector<RawPage>& pages) {
  const uint32_t sync = CUPS_RASTER_SYNC;
  std::string bytes(reinterpret_cast<const char*>(&sync), sizeof sync);
  for (const RawPage& page : pages) {
    bytes.append(reinterpret_cast<const char*>(&page.h), sizeof page.h);
    bytes += page.pixels;
  }
  return bytes;
}

std::string minimalPpd(const std::string& body) {
  return "*PPD-Adobe: \"4.3\"\n*FormatVersion: \"4.3\"\n*LanguageVersion: English\n*LanguageEncoding: ISOLatin1\n"
         "*OpenUI *PageSize: PickOne\n*DefaultPageSize: w288h432\n*PageSize w288h432: \"\"\n*CloseUI: *PageSize\n"
         "*PaperDimension w288h432: \"288 432\"\n" +
         body;
}

std::string pickOne(const std::string& name, const std::string& choice) {
  return "*OpenUI *" + name + ": PickOne\n*Default" + name + ": " + choice + "\n*" + name + " " + choice +
         ": \"\"\n*CloseUI: *" + name + "\n";
}

// A printer writing to one stream of the test's choosing.
class StreamPrinter : public ZplPrinter {
 public:
  explicit StreamPrinter(FILE* stream) {
    outputStreams_.clear();
    outputStreams_.push_back(stream);
  }
};

// A header refused by the filter ends the job with an error; the page in
// front of it is printed once and only once.
TEST(HostileInput, RefusedHeadersEndTheJob) {
  RawPage wrapped = noisePage(1, 1);
  wrapped.h.cupsWidth = 0x20000001;  // times 8 bits wraps to 8 bits: one byte a row
  RawPage noPixels = noisePage(16, 2);
  noPixels.h.cupsWidth = 0;
  RawPage noXResolution = noisePage(16, 2), noYResolution = noisePage(16, 2);
  noXResolution.h.HWResolution[0] = 0;
  noYResolution.h.HWResolution[1] = 0;
  const struct {
    const char* what;
    RawPage page;
    const char* error;
  } cases[] = {
      {"width that wraps", wrapped, "ERROR:Page header is inconsistent: 536870913 pixels per line but only 1 bytes"},
      {"zero width", noPixels, "ERROR:Page header is inconsistent: 16 bytes per line but no pixels"},
      {"zero x resolution", noXResolution, "ERROR:Page header has no resolution (0 x 203 dpi)"},
      {"zero y resolution", noYResolution, "ERROR:Page header has no resolution (203 x 0 dpi)"},
  };
  const RawPage stencil = noisePage(24, 16, 300, 9);
  for (const auto& c : cases) {
    const JobResult job = runJob(rasterStream({stencil, c.page}), "HalftoneType=Tattoo", ppdPath("kelvotat.ppd"));
    EXPECT_EQ(job.status, 1) << c.what;
    EXPECT_TRUE(has(job.err, c.error)) << c.what << "\n" << job.err;
    EXPECT_EQ(job.out.compare(0, kLineFeeds.size(), kLineFeeds), 0) << c.what;
    const std::vector<ZplGraphic> graphics = graphicsOf(job.out);
    ASSERT_EQ(graphics.size(), 1u) << c.what << ": the stencil in front, and nothing for the refused page";
    EXPECT_EQ(graphics[0].height, 16u);
  }
}

// The page size in millimetres divides by the resolution; the label commands
// convert it to dots. Neither may misbehave at the ends of the range.
TEST(HostileInput, ExtremeResolutionsStillPrint) {
  RawPage huge = noisePage(64, 8, 0xFFFFFFFFu);
  RawPage one = noisePage(64, 8, 1);
  // 64 and 8 pixels at 1 dpi are 1625.6 by 203.2 mm, which the label
  // commands turn back into dots at 203 dpi: 12991 and 1623, not 12992 and
  // 1624, as the single-precision products (329996.78 and 41249.598) are
  // divided by 25.4 and truncated, the same as for every size.
  const struct {
    const char* what;
    RawPage page;
    const char* setup;
  } cases[] = {
      {"4294967295 dpi", huge, "SIZE 0.0 mm, 0.0 mm\r\n^XX\r\n^PW0\r\n^LL0\r\n"},
      {"1 dpi", one, "SIZE 1625.6 mm, 203.2 mm\r\n^XX\r\n^PW12991\r\n^LL1623\r\n"},
  };
  for (const auto& c : cases) {
    const JobResult job = runJob(rasterStream({c.page}), "", ppdPath("kelvo203.ppd"));
    EXPECT_EQ(job.status, 0) << c.what << "\n" << job.err;
    EXPECT_TRUE(has(job.out, c.setup)) << c.what << "\n" << job.out.substr(64, 80);
    const std::vector<ZplGraphic> graphics = graphicsOf(job.out);
    ASSERT_EQ(graphics.size(), 1u) << c.what;
    EXPECT_EQ(graphics[0].bytesPerRow, 8u) << c.what;
  }
}

// Sizes that do not fit a dot count (a 128 MiB row at 1 dpi is 3.4e9 mm)
// saturate instead of being undefined.
TEST(HostileInput, LabelSizeConversionsAreDefined) {
  const float inf = std::numeric_limits<float>::infinity();
  const struct {
    float mm;
    const char* dots;
  } cases[] = {
      {3.4e9f, "2147483647"}, {inf, "2147483647"}, {-3.4e9f, "-2147483648"}, {-inf, "-2147483648"},
      {std::numeric_limits<float>::quiet_NaN(), "0"},
  };
  for (const auto& c : cases) {
    FILE* stream = std::tmpfile();
    ASSERT_NE(stream, nullptr);
    {
      StreamPrinter printer(stream);
      sPrinter = &printer;
      setSize(c.mm, c.mm);
      sPrinter = nullptr;
    }
    std::rewind(stream);
    char text[128] = {};
    EXPECT_GT(std::fread(text, 1, sizeof text - 1, stream), 0u);
    std::fclose(stream);
    EXPECT_EQ(std::string(text), std::string("^PW") + c.dots + "\r\n^LL" + c.dots + "\r\n") << c.mm;
  }
}

// A stream may stop anywhere; what arrived whole is printed and the job
// ends as the end of a stream does.
TEST(HostileInput, StreamsThatStopAnywhere) {
  const std::string page = rasterStream({noisePage(32, 4)});
  const std::string headerOnly = page.substr(0, 4 + sizeof(cups_page_header2_t));
  const struct {
    const char* what;
    std::string stream;
    size_t graphics;
  } cases[] = {
      {"empty file", "", 0},
      {"not a raster stream", std::string(5000, 'x'), 0},
      {"ends inside the first header", page.substr(0, 900), 0},
      {"ends inside the second header", page + headerOnly.substr(4, 1000), 1},
      {"second header without pixels", page + headerOnly.substr(4), 1},
  };
  for (const auto& c : cases) {
    const JobResult job = runJob(c.stream, "", ppdPath("kelvo203.ppd"));
    EXPECT_EQ(job.status, 0) << c.what << "\n" << job.err;
    EXPECT_EQ(job.out.compare(0, kLineFeeds.size(), kLineFeeds), 0) << c.what;
    EXPECT_EQ(graphicsOf(job.out).size(), c.graphics) << c.what;
    EXPECT_FALSE(has(job.err, "ERROR:")) << c.what << "\n" << job.err;
  }
}

// Options are whatever a user typed. The longest single argument Linux passes
// is 128 KiB.
TEST(HostileInput, OddOptionStrings) {
  std::string many;
  while (many.size() < 120 * 1024) many += "opt" + std::to_string(many.size()) + "=x ";
  const struct {
    const char* what;
    std::string options;
  } cases[] = {
      {"120 KiB of options", many},
      {"one 120 KiB value", "HalftoneType=" + std::string(120 * 1024, 'T')},
      {"unterminated quote", "HalftoneType=\"Tattoo PrintSpeed='4"},
      {"quotes and backslashes", "a='\\\"' b=\"\\'\\\\\" c={x=\"}\" d=\\"},
      {"no names", "= == =x , ,, \t\n"},
      {"bytes that are no text", std::string("\x01\xff\xfe=\x80\x81 HalftoneType=\xc3\x28", 20)},
  };
  const std::string raster = rasterStream({noisePage(40, 8)});
  for (const auto& c : cases) {
    const JobResult job = runJob(raster, c.options, ppdPath("kelvo203.ppd"));
    EXPECT_EQ(job.status, 0) << c.what << "\n" << job.err.substr(0, 500);
    EXPECT_EQ(graphicsOf(job.out).size(), 1u) << c.what;
    EXPECT_LT(job.seconds, 10) << c.what;
  }
  // Quotes are the option syntax, not part of the value.
  EXPECT_TRUE(has(runJob(raster, "PrintSpeed=\"4\"", ppdPath("kelvo203.ppd")).out, "\r\n^PR4\r\n"));
}

// Without a usable PPD there is no page size, and the job is refused before
// anything reaches the printer.
TEST(HostileInput, BrokenPpdFiles) {
  const Scratch empty("empty.ppd", ""), binary("binary.ppd", rasterStream({noisePage(16, 16)})),
      headerOnly("header.ppd", "*PPD-Adobe: \"4.3\"\n"), longLine("long.ppd", "*PPD-Adobe: \"4.3\"\n*" + std::string(1 << 20, 'k')),
      longWord("word.ppd", minimalPpd(pickOne("PrintSpeed", "4" + std::string(40, 'x'))));
  const struct {
    const char* what;
    std::string ppd;
  } cases[] = {
      {"missing file", "/nonexistent/kelvo.ppd"}, {"empty file", empty.path},
      {"a directory", testing::TempDir()},        {"not a PPD", binary.path},
      {"header only", headerOnly.path},           {"a 1 MiB line", longLine.path},
      {"a choice word of 41 characters", longWord.path},
  };
  const std::string raster = rasterStream({noisePage(16, 4)});
  for (const auto& c : cases) {
    const JobResult job = runJob(raster, "", c.ppd);
    EXPECT_EQ(job.status, 1) << c.what;
    EXPECT_EQ(job.out, "") << c.what;
    EXPECT_TRUE(has(job.err, "ERROR: Paper size must not less than 1.0 : (0.000000, 0.000000)\n"))
        << c.what << "\n" << job.err;
  }
}

// Choice words fill the settings' fields to the last character: CUPS takes
// at most 40, and a word of 40 arrives whole, matched to its end and sent as
// it is.
TEST(HostileInput, ChoiceWordsAsLongAsTheFields) {
  const std::string speed = "4" + std::string(39, 'x');
  const Scratch ppd("long-words.ppd", minimalPpd(pickOne("PrintSpeed", speed) +
                                                 pickOne("PaperType", std::string(31, 'a') + "LabelGaps") +
                                                 pickOne("Origin", std::string(29, 'o') + "Rotation180") +
                                                 pickOne("GapsHeight", "3") + pickOne("Darkness", "30")));
  const JobResult job = runJob(rasterStream({noisePage(16, 4)}), "", ppd.path);
  ASSERT_EQ(job.status, 0) << job.err;
  EXPECT_TRUE(has(job.out, "\r\n^MNY\r\n^POI\r\n^PR" + speed + "\r\n~SD30\r\n^XZ\r\n")) << job.out.substr(64, 200);
}

std::vector<std::string> filesIn(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (const dirent* e = readdir(d))
      if (e->d_name[0] != '.') names.push_back(dir + "/" + e->d_name);
    closedir(d);
  }
  return names;
}

// The recording file name lives in a 256-byte field, terminator included:
// after "-", 14 digits of date and time and ".bin" (19 characters) the
// prefix may take 236 characters. A longer one is refused, never cut. PPD
// lines stop at 255 characters, so such prefixes span two lines of a quoted
// value (a name with a line break in it is still a name).
TEST(HostileInput, RecordingPrefixAtTheFieldLimit) {
  const std::string dir = scratchPath("rec");
  mkdir(dir.c_str(), 0755);
  const std::string raster = rasterStream({noisePage(16, 4)});
  for (size_t length : {236u, 237u, 400u}) {
    std::string prefix = dir + "/";
    while (prefix.size() < length) prefix += prefix.size() % 100 == 99 ? '\n' : 'r';
    const Scratch ppd("rec.ppd", minimalPpd(pickOne("RecordPrinterCommands", "1") + "*kelvoFilterOutputFile: \"" +
                                            prefix + "\"\n"));
    const JobResult job = runJob(raster, "", ppd.path);
    EXPECT_EQ(job.status, 0) << length << "\n" << job.err;
    EXPECT_EQ(graphicsOf(job.out).size(), 1u) << length;
    const std::vector<std::string> files = filesIn(dir);
    if (length == 236) {
      ASSERT_EQ(files.size(), 1u) << "a prefix that fits is recorded\n" << job.err;
      EXPECT_EQ(files[0].size(), 236u + 19u);
      EXPECT_EQ(slurp(files[0]), job.out);
      EXPECT_FALSE(has(job.err, "ERROR:")) << job.err;
    } else {
      EXPECT_TRUE(files.empty()) << length;
      EXPECT_TRUE(has(job.err, "ERROR:Recording file name too long, printer commands are not recorded"))
          << length << "\n" << job.err;
    }
    for (const std::string& file : files) std::remove(file.c_str());
  }
  rmdir(dir.c_str());
}

// A printer that cannot be written to ends the job with an error, promptly.
TEST(HostileInput, OutputThatFails) {
  const struct {
    const char* what;
    Output output;
    const char* error;
  } cases[] = {
      {"disk full", Output::DevFull, "ERROR:Unable to send the job to the printer: writing standard output failed (No space left on device)"},
      {"connection gone", Output::BrokenPipe, "ERROR:Unable to send the job to the printer: writing standard output failed (Broken pipe)"},
      {"standard output closed", Output::Closed, "ERROR:Standard output is closed, there is nowhere to send the job"},
  };
  // Many pages: the job must stop at the first one that cannot be sent.
  const std::string raster = rasterStream(std::vector<RawPage>(50, noisePage(400, 300)));
  for (const auto& c : cases) {
    const JobResult job = runJob(raster, "", ppdPath("kelvo203.ppd"), c.output);
    EXPECT_EQ(job.status, 1) << c.what << "\n" << job.err.substr(job.err.size() > 800 ? job.err.size() - 800 : 0);
    EXPECT_TRUE(has(job.err, c.error)) << c.what;
    EXPECT_FALSE(has(job.err, "PAGE: 2 ")) << c.what << ": went on after the failure";
    EXPECT_LT(job.seconds, 10) << c.what;
  }
}

// --- cancelling ---

// Cancels the job, as the filter's SIGTERM handler does, once `limit` bytes
// have been written.
struct CancellingStream {
  size_t limit;
  std::string text;
  static ssize_t write(void* cookie, const char* data, size_t size) {
    auto* self = static_cast<CancellingStream*>(cookie);
    self->text.append(data, size);
    if (self->text.size() >= self->limit) sJobCancelled = 1;
    return static_cast<ssize_t>(size);
  }
};

// A 64-pixel page of four rows whose first 16 pixels are dots: each row is
// sent as "JF,", and the whole graphic is the format below. Cancelling
// stops at the next row: the rows sent so far stay whole and "~DN" ends the
// download; once the download is complete the page goes out as it is.
TEST(Cancel, GraphicStopsAtARowAndAborts) {
  std::vector<unsigned char> page(64 * 4, 0);
  for (size_t r = 0; r < 4; ++r) std::memset(&page[r * 64], 1, 16);
  const std::string head = "^XX\r\n^PQ1\n~DGR:CUPS.GRF,32,8,\n";
  const std::string tail = "^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n";
  const struct {
    const char* what;
    size_t limit;  // 0: cancelled before the page
    std::string out;
  } cases[] = {
      {"before the page", 0, ""},
      {"while the header goes out", 1, head + "~DN\r\n"},
      {"after the first row", head.size() + 3, head + "JF,~DN\r\n"},
      {"after the third row", head.size() + 9, head + "JF,JF,JF,~DN\r\n"},
      {"after the last row", head.size() + 12, head + "JF,JF,JF,JF," + tail},
      {"never", std::string::npos, head + "JF,JF,JF,JF," + tail},
  };
  cups_page_header2_t h = header(64, 4);
  for (const auto& c : cases) {
    CancellingStream sink{c.limit, ""};
    FILE* stream = fopencookie(&sink, "w", cookie_io_functions_t{nullptr, CancellingStream::write, nullptr, nullptr});
    ASSERT_NE(stream, nullptr);
    setvbuf(stream, nullptr, _IONBF, 0);
    {
      StreamPrinter printer(stream);
      printer.setPageHeader(&h);
      sPrinter = &printer;
      LastSet = 0;
      sJobCancelled = c.limit == 0;
      printer.doPrintImage(page.data(), 64, 4, 64);
      sPrinter = nullptr;
      sJobCancelled = 0;
    }
    std::fclose(stream);
    EXPECT_EQ(sink.text, c.out) << c.what;
  }
}

// The spooler cancels a job by SIGTERM. In the middle of a big page the
// filter ends the download it is sending and stops, promptly; everything
// before the abort is exactly what the uncancelled job sends.
TEST(Cancel, SigtermInTheMiddleOfAPage) {
  const std::string raster = rasterStream({noisePage(2400, 2000, 203, 4)});
  const JobResult whole = runJob(raster, "", ppdPath("kelvo203.ppd"));
  ASSERT_EQ(whole.status, 0);
  ASSERT_EQ(graphicsOf(whole.out).size(), 1u);
  const size_t download = whole.out.find("~DGR:CUPS.GRF,");
  ASSERT_NE(download, std::string::npos);
  ASSERT_GT(whole.out.size(), download + 500000) << "the graphic must outlast the pipe's buffer";

  const Scratch input("cancel.ras", raster);
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(out[1], 1);
    close(out[0]);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 2);
    setenv("PPD", ppdPath("kelvo203.ppd").c_str(), 1);
    execl(KELVO_FILTER_PATH, "rastertokelvozpl", "7", "user", "title", "1", "", input.path.c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  const time_t wallStart = time(nullptr);
  std::string got;
  auto readSome = [&](int timeoutMs) {
    pollfd p{out[0], POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0) return false;
    char chunk[8192];
    const ssize_t n = read(out[0], chunk, sizeof chunk);
    if (n <= 0) return false;
    got.append(chunk, static_cast<size_t>(n));
    return true;
  };
  // Read into the download, then let the filter fill the pipe and wait.
  while (got.size() < download + 100000 && readSome(60000)) {
  }
  ASSERT_GE(got.size(), download + 100000);
  usleep(200 * 1000);
  const auto cancelled = Clock::now();
  kill(pid, SIGTERM);
  while (readSome(30000)) {
  }
  int status = 0;
  waitpid(pid, &status, 0);
  const double seconds = std::chrono::duration<double>(Clock::now() - cancelled).count();
  close(out[0]);
  removeDebugImagesSince(wallStart);

  ASSERT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_LT(seconds, 5);
  const std::string abort = "~DN\r\n";
  ASSERT_GT(got.size(), abort.size());
  EXPECT_EQ(got.substr(got.size() - abort.size()), abort);
  const size_t sent = got.size() - abort.size();
  EXPECT_LT(sent, whole.out.size() - 100000) << "the page was not cut short";
  EXPECT_EQ(got.compare(0, sent, whole.out, 0, sent), 0);
}

}  // namespace
