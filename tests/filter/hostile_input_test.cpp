// Whole jobs through the real filter binary, one table: headers that
// overflow or contradict themselves, extreme resolutions, streams that stop
// anywhere, odd options and PPDs, outputs that fail; then cancelled jobs and
// the disk budget of what a job may leave behind.
#include <fstream>
#include <set>

#include "job_runner.h"

namespace {

// What must come of a job.
struct Expect {
  int status;
  int graphics;                          // decoded from standard output; -1: nothing reaches the printer
  std::string error;                     // a text of the log; empty: no error line at all
  std::vector<std::string> output = {};  // texts the printer gets
  std::vector<std::string> absent = {};  // texts it must not get
};

void expectJob(const std::string& what, const JobResult& job, const Expect& e) {
  SCOPED_TRACE(what);
  EXPECT_EQ(job.status, e.status) << job.err.substr(job.err.size() > 800 ? job.err.size() - 800 : 0);
  EXPECT_LT(job.seconds, 10);
  EXPECT_TRUE(e.error.empty() ? !has(job.err, "ERROR:") : has(job.err, e.error)) << job.err.substr(0, 800);
  if (e.graphics < 0) {
    EXPECT_EQ(job.out, "");
  } else {
    EXPECT_EQ(job.out.compare(0, kLineFeeds.size(), kLineFeeds), 0);
    EXPECT_EQ(graphicsOf(job.out).size(), static_cast<size_t>(e.graphics));
  }
  for (const std::string& text : e.output) EXPECT_TRUE(has(job.out, text)) << text;
  for (const std::string& text : e.absent) EXPECT_FALSE(has(job.out, text)) << text;
}

RawPage withHeader(RawPage p, void (*change)(cups_page_header2_t&)) {
  change(p.h);
  return p;
}

TEST(WholeJobs, HostileAndBrokenInput) {
  const std::string label = ppdPath("kelvo203.ppd"), stencil = ppdPath("kelvotat.ppd");
  const std::string good = rasterStream({noisePage(24, 16)}), stencilPage = rasterStream({noisePage(24, 16, 300, 9)});
  const std::string header = good.substr(4, sizeof(cups_page_header2_t));
  const RawPage badHeaders[] = {
      withHeader(noisePage(1, 1), [](cups_page_header2_t& h) { h.cupsWidth = 0x20000001; }),  // x 8 bits wraps to 8
      withHeader(noisePage(16, 2), [](cups_page_header2_t& h) { h.cupsWidth = 0; }),
      withHeader(noisePage(16, 2), [](cups_page_header2_t& h) { h.HWResolution[0] = 0; }),
      withHeader(noisePage(16, 2), [](cups_page_header2_t& h) { h.HWResolution[1] = 0; }),
      withHeader(noisePage(16, 2), [](cups_page_header2_t& h) { h.cupsBitsPerPixel = h.cupsBitsPerColor = 0; }),
      withHeader(noisePage(16, 2), [](cups_page_header2_t& h) { h.cupsBytesPerLine = 0x80000000u; }),
      withHeader(page(16, 4), [](cups_page_header2_t& h) { h.cupsBitsPerColor = h.cupsBitsPerPixel = 1; }),
      withHeader(page(16384, 0), [](cups_page_header2_t& h) { h.cupsHeight = 8193; }),  // a row past 128 MiB
      withHeader(page(65536, 0), [](cups_page_header2_t& h) { h.cupsHeight = 65537; }),  // over 32 bits
  };
  std::string manyOptions;
  while (manyOptions.size() < 120 * 1024) manyOptions += "opt" + std::to_string(manyOptions.size()) + "=x ";
  const TempFile empty("empty.ppd", ""), binary("binary.ppd", rasterStream({noisePage(16, 16)})),
      headerOnly("header.ppd", "*PPD-Adobe: \"4.3\"\n"),
      longLine("long.ppd", "*PPD-Adobe: \"4.3\"\n*" + std::string(1 << 20, 'k')),
      longWord("word.ppd", labelPpd(ppdOption("PrintSpeed", "4" + std::string(40, 'x')))),
      // Choice words fill the settings' fields to the last character: CUPS
      // takes at most 40, and a word of 40 arrives whole, matched to its end.
      fullWords("full-words.ppd", labelPpd(ppdOption("PrintSpeed", "4" + std::string(39, 'x')) +
                                           ppdOption("PaperType", std::string(31, 'a') + "LabelGaps") +
                                           ppdOption("Origin", std::string(29, 'o') + "Rotation180") +
                                           ppdOption("GapsHeight", "3") + ppdOption("Darkness", "30"))),
      inject("inject.ppd", labelPpd(ppdOption("PrintSpeed", "2^XA^FO50,50^FDINJECTED^FS^XZ"))),
      noWidth("no-width.ppd", ppdText(ppdOption("PageSize", "w0h432") + "*PaperDimension w0h432: \"0 432\"\n"));
  const std::string noPageSize = "ERROR: Paper size must not less than 1.0 : (0.000000, 0.000000)\n";
  const std::string cannotSend = "ERROR:Unable to send the job to the printer: writing standard output failed ";
  const std::string fiftyPages = rasterStream(std::vector<RawPage>(50, noisePage(400, 300)));

  struct Row {
    const char* what;
    std::string stream, options, ppd;
    Expect expect;
    Output output = Output::Capture;
  };
  const Row rows[] = {
      // A header refused by the filter ends the job with an error; the stencil
      // in front of it is printed once and only once.
      {"wrapping width", stencilPage + rasterStream({badHeaders[0]}).substr(4), "HalftoneType=Tattoo", stencil,
       {1, 1, "ERROR:Page header is inconsistent: 536870913 pixels per line but only 1 bytes", {"~DGR:CUPS.GRF,48,3,\n"}}},
      {"no pixels", stencilPage + rasterStream({badHeaders[1]}).substr(4), "HalftoneType=Tattoo", stencil,
       {1, 1, "ERROR:Page header is inconsistent: 16 bytes per line but no pixels"}},
      {"no x resolution", stencilPage + rasterStream({badHeaders[2]}).substr(4), "HalftoneType=Tattoo", stencil,
       {1, 1, "ERROR:Page header has no resolution (0 x 203 dpi)"}},
      {"no y resolution", stencilPage + rasterStream({badHeaders[3]}).substr(4), "HalftoneType=Tattoo", stencil,
       {1, 1, "ERROR:Page header has no resolution (203 x 0 dpi)"}},
      // Headers libcups refuses and bytes that are no page end the job with an
      // error; the page before them stays printed.
      {"no bits per pixel", good + rasterStream({badHeaders[4]}).substr(4), "", label,
       {1, 1, "ERROR:Page 2: the raster stream holds"}},
      {"bytes per line of 2^31", good + rasterStream({badHeaders[5]}).substr(4), "", label, {1, 1, "ERROR:Page 2:"}},
      {"garbage after a page", good + std::string(3000, 'x'), "", label, {1, 1, "bytes that are not a raster page"}},
      {"1-bit page", rasterStream({badHeaders[6], page(16, 4)}), "", label,
       {1, 0, "ERROR:Unsupported bits per pixel : 1 ! Requires 8 bits per pixel!\n", {}, {"^XA", "SIZE"}}},
      {"page over the limit", rasterStream({badHeaders[7]}), "", label, {1, 0, "ERROR:Page of 16384 x", {}, {"^XA"}}},
      {"page bytes overflow", rasterStream({badHeaders[8]}), "", label, {1, 0, "ERROR:Page of 65536 x 65537"}},
      // A stream may stop anywhere; what arrived whole is printed and the job
      // ends as the end of a stream does. A zero-height page is the end mark
      // some spoolers send.
      {"empty file", "", "", label, {0, 0, ""}},
      {"not a raster stream", std::string(5000, 'x'), "", label, {0, 0, ""}},
      {"ends inside the first header", good.substr(0, 900), "", label, {0, 0, ""}},
      {"ends inside the second header", good + header.substr(0, 1000), "", label, {0, 1, ""}},
      {"second header without pixels", good + header, "", label, {0, 1, ""}},
      {"zero height ends the job", rasterStream({noisePage(24, 16), page(16, 0), noisePage(8, 8)}), "", label,
       {0, 1, ""}},
      {"pixels that end early", good.substr(0, good.size() - 40), "", label, {0, 0, "", {"^XZ\r\n\r\n"}, {"~DG"}}},
      // The page size in millimetres divides by the resolution, and the label
      // commands turn it back into dots at 203 dpi: 64 and 8 pixels at 1 dpi
      // are 1625.6 by 203.2 mm, 12991 and 1623 dots, not 12992 and 1624, as
      // the single-precision products (329996.78 and 41249.598) are divided by
      // 25.4 and truncated.
      {"2^32-1 dpi", rasterStream({noisePage(64, 8, 0xFFFFFFFFu)}), "ZplDialect=Kelvo", label,
       {0, 1, "", {"SIZE 0.0 mm, 0.0 mm\r\n^XX\r\n^PW0\r\n^LL0\r\n", "~DGR:CUPS.GRF,64,8,\n"}}},
      {"1 dpi", rasterStream({noisePage(64, 8, 1)}), "ZplDialect=Kelvo", label,
       {0, 1, "", {"SIZE 1625.6 mm, 203.2 mm\r\n^XX\r\n^PW12991\r\n^LL1623\r\n"}}},
      // Options are whatever a user typed; the longest single argument Linux
      // passes is 128 KiB. Quotes are the option syntax, not the value.
      {"120 KiB of options", good, manyOptions, label, {0, 1, ""}},
      {"one 120 KiB value", good, "HalftoneType=" + std::string(120 * 1024, 'T'), label, {0, 1, ""}},
      {"unterminated quote", good, "HalftoneType=\"Tattoo PrintSpeed='4", label, {0, 1, ""}},
      {"quotes and backslashes", good, "a='\\\"' b=\"\\'\\\\\" c={x=\"}\" d=\\", label, {0, 1, ""}},
      {"no names", good, "= == =x , ,, \t\n", label, {0, 1, ""}},
      {"bytes that are no text", good, std::string("\x01\xff\xfe=\x80\x81 HalftoneType=\xc3\x28", 20), label,
       {0, 1, ""}},
      {"quoted", good, "PrintSpeed=\"4\"", label, {0, 1, "", {"\r\n^PR4\r\n"}}},
      // Without a usable PPD there is no page size, and nothing is printed.
      {"missing PPD", good, "", "/nonexistent/kelvo.ppd", {1, -1, noPageSize}},
      {"empty PPD", good, "", empty.path, {1, -1, noPageSize}},
      {"PPD is a directory", good, "", testing::TempDir(), {1, -1, noPageSize}},
      {"not a PPD", good, "", binary.path, {1, -1, noPageSize}},
      {"PPD header only", good, "", headerOnly.path, {1, -1, noPageSize}},
      {"a 1 MiB PPD line", good, "", longLine.path, {1, -1, noPageSize}},
      {"a choice word of 41 characters", good, "", longWord.path, {1, -1, noPageSize}},
      // One side of the size missing is enough to refuse it (432 points at
      // 0.3528 mm are 152.4096 mm, as the nearest float).
      {"a page size without width", good, "", noWidth.path,
       {1, -1, "ERROR: Paper size must not less than 1.0 : (0.000000, 152.409607)\n"}},
      // A speed word the printer would not take as a speed is left out, and
      // a crafted one cannot put commands into the job.
      {"words of 40 characters", good, "", fullWords.path, {0, 1, "", {"\r\n^MNY\r\n^POI\r\n~SD30\r\n^XZ\r\n"}}},
      {"injected speed", good, "", inject.path, {0, 1, "", {}, {"^PR", "INJECTED"}}},
      // A printer that cannot be written to ends the job with an error,
      // promptly, at the first of many pages.
      {"printer link full", fiftyPages, "", label, {1, -1, cannotSend + "(No space left on device)"}, Output::DevFull},
      // Even a job of no page sends its line feeds; held in a buffer to the end, they fail there.
      {"printer link full, no page", "", "", label, {1, -1, cannotSend + "(No space left on device)"}, Output::DevFull},
      {"printer link broken", fiftyPages, "", label, {1, -1, cannotSend + "(Broken pipe)"}, Output::BrokenPipe},
      {"output closed", fiftyPages, "", label,
       {1, -1, "ERROR:Standard output is closed, there is nowhere to send the job"}, Output::Closed},
  };
  for (const Row& row : rows) {
    const JobResult job = runJob(row.stream, row.options, row.ppd, row.output);
    expectJob(row.what, job, row.expect);
    if (row.output != Output::Capture) {
      EXPECT_FALSE(has(job.err, "PAGE: 2 ")) << row.what << ": went on after the failure";
    }
    if (std::string(row.what) == "injected speed") {
      EXPECT_TRUE(has(job.err, "WARNING: Print speed \"2^XA^FO50,50^FDINJECTED^FS^XZ\" is not a speed")) << job.err;
    }
  }
}

// A 64-pixel page of four rows whose first 16 pixels are dots: each row is
// sent as "JF,", and the whole graphic is the format below. Cancelling
// stops at the next row: the rows sent so far stay whole and "~DN" ends the
// download; once the download is complete the page goes out as it is.
TEST(Cancel, GraphicStopsAtARowAndAborts) {
  std::vector<unsigned char> bits(64 * 4, 0);
  for (size_t r = 0; r < 4; ++r) std::memset(&bits[r * 64], 1, 16);
  const std::string head = "^XX\r\n^PQ1\n~DGR:CUPS.GRF,32,8,\n";
  const std::string tail = "^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n";
  const std::tuple<const char*, size_t, std::string> cases[] = {  // 0: cancelled before the page
      {"before the page", 0, ""},
      {"while the header goes out", 1, head + "~DN\r\n"},
      {"after the first row", head.size() + 3, head + "JF,~DN\r\n"},
      {"after the third row", head.size() + 9, head + "JF,JF,JF,~DN\r\n"},
      {"after the last row", head.size() + 12, head + "JF,JF,JF,JF," + tail},
      {"never", std::string::npos, head + "JF,JF,JF,JF," + tail},
  };
  RawPage header = page(64, 4);
  for (const auto& [what, limit, out] : cases) {
    CancellingSink sink(limit);
    {
      MemoryPrinter printer;
      printer.sendTo(sink.open());
      printer.setPageHeader(&header.h);
      printer.setCancelFlag(&sink.cancelled);
      sink.cancelled = limit == 0;
      printer.doPrintImage(bits.data(), 64, 4, 64);
    }
    EXPECT_EQ(sink.text, out) << what;
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

  const JobResult job = runJob(raster, "", ppdPath("kelvo203.ppd"), Output::Cancel, download + 100000);
  ASSERT_EQ(job.status, 0) << job.err.substr(job.err.size() > 800 ? job.err.size() - 800 : 0);
  EXPECT_LT(job.seconds, 5);
  const std::string abort = "~DN\r\n";
  ASSERT_GT(job.out.size(), download + 100000);
  EXPECT_EQ(job.out.substr(job.out.size() - abort.size()), abort);
  const size_t sent = job.out.size() - abort.size();
  EXPECT_LT(sent, whole.out.size() - 100000) << "the page was not cut short";
  EXPECT_EQ(job.out.compare(0, sent, whole.out, 0, sent), 0);
}

// Cancelling is the spooler's decision, not a failure: with the printer
// link stalled (a pipe nobody reads) or closed just before the cancel, the job
// ends within a second, exit 0, no error line.
TEST(Cancel, StalledOrClosedLinkEndsPromptly) {
  const std::string raster = rasterStream(std::vector<RawPage>(20, noisePage(800, 600)));
  for (Output output : {Output::Stalled, Output::CloseAndCancel}) {
    const JobResult job = runJob(raster, "", ppdPath("kelvo203.ppd"), output);
    EXPECT_EQ(job.status, 0) << job.err.substr(job.err.size() > 600 ? job.err.size() - 600 : 0);
    EXPECT_LT(job.seconds, 1.0);
    EXPECT_FALSE(has(job.err, "ERROR:")) << job.err.substr(job.err.size() > 600 ? job.err.size() - 600 : 0);
  }
}

// Debug pictures stay within their budget however many pages come: the
// newest 64 of the filter's own, in a folder it shares with others.
TEST(DiskBudget, ThousandsOfTinyPagesLeaveAtMost64Pictures) {
  const RunAsLp lp;
  if (!RunAsLp::unavailable().empty()) std::printf("note: %s\n", RunAsLp::unavailable().c_str());
  const std::string raster = rasterStream(std::vector<RawPage>(1500, noisePage(4, 2)));
  const TempFile ppd("debug.ppd", labelPpd(ppdOption("DebugImages", "False", {"False", "True"})));
  const JobResult job = runJob(raster, "DebugImages=True", ppd.path);
  ASSERT_EQ(job.status, 0) << job.err.substr(0, 400);
  EXPECT_EQ(graphicsOf(job.out).size(), 1500u);
  EXPECT_EQ(job.tempFiles.size(), 64u);
  for (const std::string& name : job.tempFiles) EXPECT_EQ(name.rfind("kelvozpl-debug-", 0), 0u) << name;
  const JobResult off = runJob(raster.substr(0, 4 + 20 * (sizeof(cups_page_header2_t) + 8)), "", ppd.path);
  EXPECT_TRUE(off.tempFiles.empty());
}

// Two jobs started in the same second into one folder keep their own
// pictures: the names carry the process, not only the job and the time.
TEST(DiskBudget, TwoJobsInOneSecondKeepSeparateFiles) {
  const std::string dir = scratchPath("shared-tmp");
  mkdir(dir.c_str(), 0700);
  const TempFile input("two.ras", rasterStream({noisePage(24, 8)}));
  pid_t pids[2];
  for (pid_t& pid : pids) {
    pid = fork();
    if (pid == 0) {
      dup2(open("/dev/null", O_WRONLY), 1);
      dup2(open("/dev/null", O_WRONLY), 2);
      setenv("TMPDIR", dir.c_str(), 1);
      setenv("PPD", ppdPath("kelvo203.ppd").c_str(), 1);
      execl(KELVO_FILTER_PATH, "rastertokelvozpl", "42", "u", "t", "1", "DebugImages=True", input.path.c_str(),
            static_cast<char*>(nullptr));
      _exit(127);
    }
  }
  for (pid_t pid : pids) {
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(namesIn(dir).size(), 4u);
  removeTree(dir);
}

// The shipped label PPD with jobs allowed to ask for a recording, named
// <prefix>-<date and time>.bin.
std::string recordingPpd(const std::string& prefix) {
  std::string text = readFile(ppdPath("kelvo203.ppd"));
  const std::string attribute = "*kelvoFilterOutputFile: \"/var/spool/cups/tmp/kelvozpl\"";
  const size_t at = text.find(attribute);
  EXPECT_NE(at, std::string::npos);
  if (at != std::string::npos)
    text.replace(at, attribute.size(),
                 "*kelvoAllowJobRecording: \"True\"\n*kelvoFilterOutputFile: \"" + prefix + "\"");
  return text;
}

// A link planted under the name the recording will get is left alone: the
// file it points to keeps its bytes, the job prints without a recording.
TEST(DiskBudget, PlantedLinkAtTheRecordingNameIsNotFollowed) {
  // As the spooler's user, in a folder of its group (as /var/spool/cups/tmp):
  // the planted link points at a file of its own that a followed link would
  // overwrite.
  const RunAsLp lp;
  if (!RunAsLp::unavailable().empty()) std::printf("note: %s\n", RunAsLp::unavailable().c_str());
  const std::string dir = scratchPath("links");
  mkdir(dir.c_str(), 0770);
  const std::string target = dir + "/writable-target";
  { std::ofstream(target) << "secret"; }
  if (lpUser() != nullptr) {
    ASSERT_EQ(chown(dir.c_str(), 0, lpUser()->pw_gid), 0);
    ASSERT_EQ(chown(target.c_str(), lpUser()->pw_uid, lpUser()->pw_gid), 0);
  }
  const time_t now = time(nullptr);
  for (time_t t = now; t < now + 4; ++t) {
    struct tm local {};
    localtime_r(&t, &local);
    char name[64];
    std::strftime(name, sizeof name, "/rec-%Y%m%d%H%M%S.bin", &local);
    ASSERT_EQ(symlink(target.c_str(), (dir + name).c_str()), 0);
  }
  const TempFile ppd("rec-link.ppd", recordingPpd(dir + "/rec"));
  const JobResult job = runJob(rasterStream({noisePage(16, 4)}), "RecordPrinterCommands=1", ppd.path);
  EXPECT_EQ(job.status, 0);
  EXPECT_EQ(graphicsOf(job.out).size(), 1u);
  EXPECT_TRUE(has(job.err, "WARNING: Printer commands not recorded: unable to create " + dir + "/rec-")) << job.err;
  EXPECT_EQ(readFile(target), "secret");
  removeTree(dir);
}

// Recordings keep the newest 64 of their own in their folder: a job makes
// room by removing the oldest. Names that only look alike are not its own.
TEST(DiskBudget, RecordingsKeepTheNewest64OfTheirOwn) {
  const std::string dir = scratchPath("recs");
  mkdir(dir.c_str(), 0755);
  std::vector<std::string> own;
  for (int i = 0; i < 70; ++i) {
    char name[64];
    std::snprintf(name, sizeof name, "rec-202601010000%02d.bin", i);
    own.push_back(name);
    { std::ofstream(dir + "/" + name) << "old"; }
    const struct timespec times[2] = {{1767225600 + i, 0}, {1767225600 + i, 0}};  // oldest first
    ASSERT_EQ(utimensat(AT_FDCWD, (dir + "/" + name).c_str(), times, 0), 0);
  }
  const std::vector<std::string> others = {"rec-2026010100000.bin",  "rec-20260101000000.txt", "rec-202601010000x0.bin",
                                           "recs-20260101000000.bin", "rec-20260101000000.bin.1"};
  for (const std::string& name : others) std::ofstream(dir + "/" + name) << "other";
  const TempFile ppd("recs.ppd", recordingPpd(dir + "/rec"));
  const JobResult job = runJob(rasterStream({noisePage(16, 4)}), "RecordPrinterCommands=1", ppd.path);
  EXPECT_EQ(job.status, 0) << job.err;
  std::set<std::string> expected(own.begin() + 7, own.end());  // the 63 newest old ones
  expected.insert(others.begin(), others.end());
  std::set<std::string> left;
  std::string recording;
  for (const std::string& name : namesIn(dir)) {
    if (expected.count(name) == 0 && recording.empty() && name.rfind("rec-", 0) == 0) recording = name;
    else left.insert(name);
  }
  EXPECT_EQ(left, expected);
  EXPECT_EQ(readFile(dir + "/" + recording), job.out);
  removeTree(dir);
}

}  // namespace
