// Whole jobs through the real filter binary, one table: headers that
// overflow or contradict themselves, extreme resolutions, streams that stop
// anywhere, odd options and PPDs, outputs that fail; then cancelled jobs and
// the disk budget of what a job may leave behind.
#include <algorithm>
#include <fstream>
#include <set>

#include "job_runner.h"
#include "printer/zpl_graphic.h"

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
      {"not a PPD", good, "", binary.path, {1, -1, "ERROR:The PPD file " + binary.path + " is not valid: "}},
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

const char* const kHalftones[] = {"None",   "FloydSteinberg", "Ordered", "Burkes",    "Stucki",     "JarvisJudiceNinke",
                                  "Sierra", "StevensonArce",  "Tattoo",  "Tattoo_X8", "BarcodeText"};

// The page's header alone: a page refused at its header is never read.
std::string headerOnly(unsigned width, unsigned height, unsigned dpi, unsigned bytesPerLine) {
  RawPage p = page(width, 0, dpi);
  p.h.cupsHeight = height;
  p.h.cupsBytesPerLine = std::max(width, bytesPerLine);
  return rasterStream({p});
}

// Pages at a model's limits and one past them, with every halftone. A page
// the model cannot print is refused at its header, naming the limit it
// breaks, before anything is allocated for it. Any other page prints in at
// most one and a half times its 8-bit size of memory and 8 MB more than a
// page of 16 x 4 dots (the page and its dots, an eighth of it; the stencil
// is made in the page), and in processor time proportional to its dots.
//
// The limits are the model's widest and longest page at its resolution, and
// an eighth of an inch: 295 x 2808 points at 203 dpi on the label printer
// (831.7 and 7917 dots, and 26) and Letter's width and A4's length at 300 dpi
// on the stencil printer (2550 and 3507.9 dots, and 38); a PPD without a
// resolution is read at 600 dpi (4 x 6 inches: 2400 and 75). With custom
// sizes up to 100000 points, the 32000 dots ZPL takes either way, and the
// 128 MiB of raster a page may have.
TEST(PageLimits, HostilePagesAreRefusedOrPrintedWithinTheirCost) {
  PpdChanges large;
  large.largestPt = 100000;
  const TempFile wide("wide.ppd", shippedPpd("kelvo203.ppd", large)), anyDpi("any-dpi.ppd", labelPpd(""));
  const std::string label = ppdPath("kelvo203.ppd"), stencil = ppdPath("kelvotat.ppd");
  struct Row {
    std::string ppd;
    unsigned width, height, dpi;
    Content content;
    std::string refusal;  // empty: the page prints
    std::string options = "";
    unsigned bytesPerLine = 0;  // 0: the width
  };
  const Row rows[] = {
      {label, 858, 16, 203, Content::Gray, ""},
      {label, 859, 16, 203, Content::Gray, "ERROR:Page 1 is 859 x 16 dots, wider than the 858 dots this printer "
                                           "prints (4.23 inches at 203 dpi)\n"},
      {label, 1, 7943, 203, Content::Noise, ""},
      {label, 1, 7944, 203, Content::Noise, "longer than the 7943 dots this printer prints (39.13 inches at 203 dpi)"},
      // The costliest page of the model for Barcode and Text, as noise is
      // for the others.
      {label, 858, 7943, 203, Content::Grid, ""},
      // A header may claim any resolution, and a job any custom size; the
      // limits stay the model's.
      {label, 859, 16, 1, Content::Blank, "wider than the 858 dots"},
      {label, 858, 7944, 600, Content::Blank, "longer than the 7943 dots"},
      {label, 859, 16, 203, Content::Blank, "wider than the 858 dots", "PageSize=Custom.5000x5000"},
      {ppdPath("k300w8.ppd"), 2588, 11738, 300, Content::Gray, ""},  // the largest page of a shipped model
      {stencil, 2588, 3546, 300, Content::Noise, ""},
      {stencil, 2589, 16, 300, Content::Noise, "wider than the 2588 dots this printer prints (8.63 inches at 300 dpi)"},
      {stencil, 16, 3547, 300, Content::Noise, "longer than the 3546 dots this printer prints (11.82 inches at 300"},
      {anyDpi.path, 2475, 16, 203, Content::Gray, ""},
      {anyDpi.path, 2476, 16, 203, Content::Gray, "wider than the 2475 dots this printer prints (4.12 inches at 600"},
      {wide.path, 32000, 16, 203, Content::Gray, ""},
      {wide.path, 32001, 16, 203, Content::Gray, "wider than the 32000 dots this printer prints (157.64 inches"},
      {wide.path, 16, 32001, 203, Content::Gray, "longer than the 32000 dots"},
      {wide.path, 812, 1300000, 203, Content::Gray, "ERROR:Page 1 is 812 x 1300000 dots, longer than the 32000 dots"},
      // 128 MiB to the byte, and a row more (rows padded to 32768 bytes).
      {wide.path, 32000, 4096, 203, Content::Blank, "", "", 32768},
      {wide.path, 32000, 4097, 203, Content::Blank,
       "ERROR:Page 1 is 32000 x 4097 dots in 134250496 bytes of raster, more than the 134217728 bytes (128 MiB) of "
       "memory a page may take\n", "", 32768},
  };
#ifdef KELVO_SANITIZED
  // Freed blocks are held back a while to catch their use, and every step
  // is checked.
  const double memoryFactor = 4.5, nsPerDot = 3000;
#else
  const double memoryFactor = 1.5, nsPerDot = 1000;
#endif
  const TempFile input("limits.ras", "");
  for (const Row& row : rows) {
    const bool refused = !row.refusal.empty();
    const double pageKb = static_cast<double>(std::max(row.width, row.bytesPerLine)) * row.height / 1024;
    off_t inputBytes = 0;
    if (refused) {
      std::ofstream(input.path, std::ios::binary | std::ios::trunc)
          << headerOnly(row.width, row.height, row.dpi, row.bytesPerLine);
    } else {
      inputBytes = writeCompressedPage(input.path, row.width, row.height, row.dpi, row.content, 1, row.bytesPerLine);
    }
    const TempFile tiny("tiny.ras", rasterStream({noisePage(16, 4, row.dpi)}));
    for (const char* halftone : kHalftones) {
      const std::string what = std::string(halftone) + ", " + std::to_string(row.width) + " x " +
                               std::to_string(row.height) + " dots, " + row.ppd.substr(row.ppd.rfind('/') + 1);
      SCOPED_TRACE(what);
      const std::string options = std::string("HalftoneType=") + halftone + " " + row.options;
      const JobResult base = runFilter(jobArgs(options, tiny.path), row.ppd);
      const JobResult job = runFilter(jobArgs(options, input.path), row.ppd);
      const std::string tail = job.err.substr(job.err.size() > 600 ? job.err.size() - 600 : 0);
      EXPECT_EQ(job.status, refused ? 1 : 0) << tail;
      EXPECT_LE(job.peakKb, base.peakKb + (refused ? 1024 : memoryFactor * pageKb + 8192));
      EXPECT_LE(job.cpuSeconds, base.cpuSeconds + 0.5 + nsPerDot * 1e-9 * row.width * row.height);
      if (refused) {
        EXPECT_TRUE(has(job.err, row.refusal)) << tail;
        EXPECT_FALSE(has(job.out, "~DG"));
        continue;
      }
      // What docs/page-cost.md tabulates.
      std::printf("cost: %s: %lld bytes in, page %.1f MiB, peak %.1f MiB (%+.1f MiB over a tiny page's), %.2f s, "
                  "%.0f ns a dot, %zu bytes out\n",
                  what.c_str(), static_cast<long long>(inputBytes), pageKb / 1024, job.peakKb / 1024.0,
                  (job.peakKb - base.peakKb) / 1024.0, job.cpuSeconds,
                  (job.cpuSeconds - base.cpuSeconds) * 1e9 / row.width / row.height, job.out.size());
      EXPECT_FALSE(has(job.err, "ERROR:")) << tail;
      const std::vector<ZplGraphic> graphics = graphicsOf(job.out);
      ASSERT_EQ(graphics.size(), 1u);
      EXPECT_EQ(graphics[0].height, row.height);
      EXPECT_EQ(graphics[0].bytesPerRow, (row.width + 7) / 8);
    }
  }
}

// Memory that runs out, wherever it does, ends the job with an error line
// and exit status 1, never a signal: a page at the 128 MiB cap with the
// address space limited to less than it needs, at steps along the way.
TEST(PageLimits, MemoryThatRunsOutEndsTheJobWithAnError) {
#ifdef KELVO_SANITIZED
  GTEST_SKIP() << "the sanitizers reserve more address space than the limits leave";
#endif
  PpdChanges large;
  large.largestPt = 100000;
  const TempFile wide("wide.ppd", shippedPpd("kelvo203.ppd", large));
  const TempFile input("cap.ras", "");
  writeCompressedPage(input.path, 32000, 4096, 203, Content::Blank, 1, 32768);
  // The page alone, and the page and its dots (a job of the page takes
  // about 175 MiB of address space, a stencil too: it is made in the page).
  for (const rlim_t mib : {96, 160}) {
    const MemoryLimit limit(mib << 20);
    for (const char* halftone : kHalftones) {
      const JobResult job = runFilter(jobArgs(std::string("HalftoneType=") + halftone, input.path), wide.path);
      SCOPED_TRACE(std::string(halftone) + " in " + std::to_string(mib) + " MiB");
      EXPECT_EQ(job.status, 1);
      EXPECT_TRUE(has(job.err, "out of memory")) << job.err.substr(job.err.size() > 600 ? job.err.size() - 600 : 0);
      EXPECT_FALSE(has(job.out, "^FO0,0^XGR")) << "no page was printed";
    }
  }
}

// A 64-pixel page of four rows whose first 16 pixels are dots: each row is
// sent as "JF,", and the whole graphic is the format below. Cancelling
// stops at the next row: the rows sent so far stay whole and "~DN" ends the
// download; once the download is complete the page goes out as it is.
TEST(Cancel, GraphicStopsAtARowAndAborts) {
  KelvoDots dots;
  dots.reset(64, 4);
  for (unsigned r = 0; r < 4; ++r) std::memset(dots.row(r), 0xFF, 2);
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
  for (const auto& [what, limit, out] : cases) {
    CancellingSink cancelling(limit);
    FILE* stream = cancelling.open();
    KelvoSink sink(stream);
    sink.setCancelFlag(&cancelling.cancelled);
    cancelling.cancelled = limit == 0;
    kelvoWriteGraphic(sink, KelvoJobSettings(), dots);
    std::fclose(stream);
    EXPECT_EQ(cancelling.text, out) << what;
  }
}

// The spooler cancels a job by SIGTERM. In the middle of a big page the
// filter ends the download it is sending and stops, promptly; everything
// before the abort is exactly what the uncancelled job sends.
TEST(Cancel, SigtermInTheMiddleOfAPage) {
  // The 4-inch printer at 600 dpi takes a page this wide.
  const std::string raster = rasterStream({noisePage(2400, 2000, 203, 4)}), ppd = ppdPath("k600w4.ppd");
  const JobResult whole = runJob(raster, "", ppd);
  ASSERT_EQ(whole.status, 0);
  ASSERT_EQ(graphicsOf(whole.out).size(), 1u);
  const size_t download = whole.out.find("~DGR:CUPS.GRF,");
  ASSERT_NE(download, std::string::npos);
  ASSERT_GT(whole.out.size(), download + 500000) << "the graphic must outlast the pipe's buffer";

  const JobResult job = runJob(raster, "", ppd, Output::Cancel, download + 100000);
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
  const std::string twenty = raster.substr(0, 4 + 20 * (sizeof(cups_page_header2_t) + 8));
  EXPECT_TRUE(runJob(twenty, "", ppd.path).tempFiles.empty());
  // Where the administrator has not allowed jobs to ask (the shipped PPDs),
  // the job's request is ignored, with a warning.
  const JobResult refused = runJob(twenty, "DebugImages=True", ppdPath("kelvo203.ppd"));
  EXPECT_TRUE(refused.tempFiles.empty());
  EXPECT_TRUE(has(refused.err, "WARNING: Option DebugImages is set by the printer's administrator, not by a job"));
}

// Four jobs at once, each saving debug pictures of two pages of 36 MB (as
// received; 4.5 MB as printed) into one folder (324 MB in all): the pictures
// stay within their 256 MB budget at every moment, each job's under names of
// its own.
TEST(DiskBudget, FourJobsAtOnceStayWithinTheBudgetTogether) {
  const std::string dir = scratchPath("shared-tmp");
  removeTree(dir);
  mkdir(dir.c_str(), 0700);
  PpdChanges allowing;
  allowing.allowJobs = true;
  allowing.largestPt = 100000;
  const TempFile ppd("allowing.ppd", shippedPpd("kelvo203.ppd", allowing));
  const TempFile input("two-pages.ras", "");
  writeCompressedPage(input.path, 6000, 6000, 203, Content::Gray, 2);
  auto folderBytes = [&dir] {
    uint64_t bytes = 0;
    for (const std::string& name : namesIn(dir)) {
      struct stat info {};
      if (stat((dir + "/" + name).c_str(), &info) == 0) bytes += static_cast<uint64_t>(info.st_size);
    }
    return bytes;
  };
  std::vector<pid_t> pids;
  for (int i = 0; i < 4; ++i) {
    const pid_t pid = fork();
    if (pid == 0) {
      dup2(open("/dev/null", O_WRONLY), 1);
      dup2(open((dir + "-" + std::to_string(i) + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
      setenv("TMPDIR", dir.c_str(), 1);
      setenv("PPD", ppd.path.c_str(), 1);
      execl(KELVO_FILTER_PATH, "rastertokelvozpl", "42", "u", "t", "1", "DebugImages=True HalftoneType=None",
            input.path.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    pids.push_back(pid);
  }
  uint64_t most = 0;
  for (size_t running = pids.size(); running > 0;) {
    most = std::max(most, folderBytes());
    int status = 0;
    const pid_t done = waitpid(-1, &status, WNOHANG);
    if (done > 0) {
      --running;
      EXPECT_EQ(status, 0);
    } else {
      usleep(1000);
    }
  }
  EXPECT_LE(most, 256ull << 20);
  const std::vector<std::string> left = namesIn(dir);
  EXPECT_GE(left.size(), 6u) << "the newest pictures stay";
  EXPECT_LT(left.size(), 16u) << "older pictures made room for the newer";
  std::set<std::string> pidsLeft;
  // kelvozpl-debug-<kind>-<job>-<pid>-<n>-<time>.bmp
  for (const std::string& name : left) {
    size_t at = 0;
    for (int field = 0; field < 4; ++field) at = name.find('-', at) + 1;
    pidsLeft.insert(name.substr(at, name.find('-', at) - at));
  }
  EXPECT_GE(pidsLeft.size(), 2u) << "each job keeps its own names";
  for (int i = 0; i < 4; ++i) {
    const std::string err = readFile(dir + "-" + std::to_string(i) + ".err");
    EXPECT_FALSE(has(err, "another job held the folder")) << err.substr(0, 600);
    std::remove((dir + "-" + std::to_string(i) + ".err").c_str());
  }
  removeTree(dir);
}

// The shipped label PPD with jobs allowed to ask for a recording, named
// <prefix>-<date and time>.bin.
std::string recordingPpd(const std::string& prefix) {
  PpdChanges changes;
  changes.allowJobs = true;
  changes.recordingPrefix = prefix;
  return shippedPpd("kelvo203.ppd", changes);
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
