// Whole jobs through the real filter binary with the shipped PPDs.
#include <random>

#include "filter/filter_main.h"
#include "job_runner.h"
#include "test_support/reference.h"

namespace {

std::vector<std::string> filesIn(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (const dirent* e = readdir(d))
      if (e->d_name[0] != '.') names.push_back(dir + "/" + e->d_name);
    closedir(d);
  }
  return names;
}

// A 4x6 inch label at 203 dpi with every setup option set by the job: the
// setup block is the reference block, the graphic is the threshold of the
// ink (above 128 prints).
TEST(FilterJob, LabelSetupBlockAndThresholdGraphic) {
  RawPage label = page(812, 1218);
  std::mt19937 rng(5);
  for (size_t i = 0; i < label.pixels.size(); ++i) label.pixels[i] = static_cast<char>((i / 812) % 7 ? rng() : 0);
  const std::string options = "PaperType=LabelGaps GapsHeight=3 Origin=Rotation180 PrintSpeed=4 Darkness=15 "
                              "MediaMethod=Transfer PostAction=TearOff HalftoneType=None";
  // The label PPDs speak standard ZPL by default: "^XA" and the page's own dots.
  const JobResult standard = runJob(rasterStream({label}), options, ppdPath("kelvo203.ppd"));
  const std::string standardHead = kLineFeeds + "^XA\r\n^PW812\r\n^LL1218\r\n^MNY\r\n^POI\r\n^PR4\r\n";
  EXPECT_EQ(standard.out.substr(0, standardHead.size()), standardHead);
  const JobResult job = runJob(rasterStream({label}), options + " ZplDialect=Kelvo", ppdPath("kelvo203.ppd"));
  ASSERT_EQ(job.status, 0) << job.err;
  const std::string head = kLineFeeds +
                           "SIZE 101.6 mm, 152.4 mm\r\n^XX\r\n^PW811\r\n^LL1217\r\n^MNY\r\n^POI\r\n^PR4\r\n~SD15\r\n"
                           "^MTT\r\n^MMT,N\r\n^XZ\r\n\r\n"
                           "^XX\r\n^PQ1\n~DGR:CUPS.GRF,124236,102,\n";
  ASSERT_EQ(job.out.substr(0, head.size()), head);
  const std::string tail = "^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n";
  ASSERT_EQ(job.out.substr(job.out.size() - tail.size()), tail);

  const std::vector<ZplGraphic> graphics = graphicsOf(job.out);
  ASSERT_EQ(graphics.size(), 1u);
  ASSERT_EQ(graphics[0].height, 1218u);
  long wrong = 0;
  for (size_t y = 0; y < 1218; ++y)
    for (size_t x = 0; x < 812; ++x) {
      const bool dot = graphics[0].rows[y * 102 + x / 8] & (0x80 >> (x % 8));
      wrong += dot != (static_cast<unsigned char>(label.pixels[y * 812 + x]) > 128);
    }
  EXPECT_EQ(wrong, 0);
  EXPECT_FALSE(has(job.err, "ERROR:")) << job.err;
}

// A page of pure ink and paper halftones to itself with every diffusion and
// dither: a vertical bar two dots wide and a full-width black band must come
// back dot for dot at every width (rows are padded to four bytes in the
// image; the padding must never shift a row), and inverted when printing
// in negative. A band right after a patterned row was once sent as a repeat
// of that row.
TEST(FilterJob, EveryWidthPrintsStraightWithItsBands) {
  std::vector<unsigned> widths;
  for (unsigned w = 1; w <= 70; ++w) widths.push_back(w);
  for (unsigned w : {406u, 813u, 2305u}) widths.push_back(w);
  std::vector<RawPage> pages;
  for (unsigned w : widths) {
    RawPage p = page(w, 12);
    for (unsigned y = 0; y < 12; ++y)
      for (unsigned x = 0; x < w; ++x)
        if ((y >= 4 && y < 8) || x == w / 3 || x == w / 3 + 1) p.pixels[y * w + x] = static_cast<char>(255);
    pages.push_back(p);
  }
  const std::string raster = rasterStream(pages);
  for (const char* options : {"HalftoneType=None", "HalftoneType=Ordered NegativeImage=True",
                              "HalftoneType=StevensonArce", "HalftoneType=FloydSteinberg NegativeImage=True"}) {
    const bool negative = has(options, "Negative");
    // The 4-inch printer at 600 dpi takes the widest of them.
    const JobResult job = runJob(raster, options, ppdPath("k600w4.ppd"));
    ASSERT_EQ(job.status, 0) << job.err;
    const std::vector<ZplGraphic> graphics = graphicsOf(job.out);
    ASSERT_EQ(graphics.size(), pages.size()) << options;
    for (size_t i = 0; i < pages.size(); ++i) {
      const unsigned w = pages[i].h.cupsWidth;
      ASSERT_EQ(graphics[i].bytesPerRow, (w + 7) / 8);
      long wrong = 0;
      for (unsigned y = 0; y < 12; ++y)
        for (unsigned x = 0; x < w; ++x) {
          const bool dot = graphics[i].rows[y * graphics[i].bytesPerRow + x / 8] & (0x80 >> (x % 8));
          wrong += dot != ((pages[i].pixels[y * w + x] != 0) != negative);
        }
      EXPECT_EQ(wrong, 0) << options << ", width " << w;
    }
  }
}

// Every halftone and page option a job can choose, through the program on a
// page of noise 45 dots wide (rows padded in the image): the printed dots
// are the plain definition's page for that choice, dot for dot.
TEST(FilterJob, EveryHalftoneAndPageOptionPrintsItsPlainPage) {
  const unsigned width = 45, height = 13;
  const RawPage noise = noisePage(width, height, 203, 11);
  const std::vector<uint8_t> data(noise.pixels.begin(), noise.pixels.end());
  const std::string raster = rasterStream({noise});
  const char* names[] = {"None", "FloydSteinberg", "Ordered", "Burkes", "Stucki",
                         "JarvisJudiceNinke", "Sierra", "StevensonArce", "Tattoo", "Tattoo_X8"};
  struct Row { std::string options; kref::Options o; };
  std::vector<Row> rows;
  for (int type = 0; type < 10; ++type) {
    kref::Options o;
    o.type = type;
    rows.push_back({std::string("HalftoneType=") + names[type], o});
    o.brightness = type % 2 ? -30 : 40;
    o.mirror = type % 3 == 0;
    o.negative = type % 3 != 2;
    rows.push_back({std::string("HalftoneType=") + names[type] + " Brightness=" + std::to_string(o.brightness) +
                        (o.mirror ? " MirrorImage=True" : "") + (o.negative ? " NegativeImage=True" : ""),
                    o});
  }
  PpdChanges allowing;
  allowing.allowJobs = true;
  const TempFile debugPpd("debug.ppd", shippedPpd("kelvo203.ppd", allowing));
  for (const Row& row : rows) {
    const JobResult job = runJob(raster, row.options, ppdPath("kelvo203.ppd"));
    ASSERT_EQ(job.status, 0) << row.options << "\n" << job.err;
    const std::vector<ZplGraphic> graphics = graphicsOf(job.out);
    ASSERT_EQ(graphics.size(), 1u) << row.options;
    const kref::Page want = kref::processPage(data.data(), width, width, height, row.o);
    long wrong = 0;
    for (unsigned y = 0; y < height; ++y)
      for (unsigned x = 0; x < width; ++x)
        wrong += ((graphics[0].rows[y * graphics[0].bytesPerRow + x / 8] & (0x80 >> (x % 8))) != 0) !=
                 (want.px[static_cast<size_t>(y) * want.eff + x] != 0);
    EXPECT_EQ(wrong, 0) << row.options;
    // A stencil prints the same with its debug pictures on.
    if (row.o.type >= 8) {
      const JobResult debug = runJob(raster, row.options + " DebugImages=True", debugPpd.path);
      EXPECT_EQ(debug.tempFiles.size(), 2u) << row.options;
      const std::vector<ZplGraphic> again = graphicsOf(debug.out);
      ASSERT_EQ(again.size(), 1u) << row.options;
      EXPECT_EQ(again[0].rows, graphics[0].rows) << row.options << " DebugImages=True";
    }
  }
}

// Job options override the PPD's defaults; without them the defaults speak.
TEST(FilterJob, PpdDefaultsAndJobOptions) {
  RawPage copies = page(16, 4);
  copies.h.NumCopies = 3;
  const std::string raster = rasterStream({copies});
  struct Case { const char* options; std::vector<const char*> present, absent; };
  const Case cases[] = {
      // kelvo203 defaults: gaps of 3 mm, normal origin, printer's speed and
      // darkness, direct thermal, tear off.
      {"", {"^MNY\r\n", "^PON\r\n", "^MTD\r\n", "^MMT,N\r\n", "^PQ3\n"}, {"^PR", "~SD"}},
      {"PrintSpeed=4 Darkness=30 PaperType=Continue PostAction=Cut MediaMethod=Transfer",
       {"^PR4\r\n", "~SD30\r\n", "^MNN\r\n", "^MMC,N\r\n", "^MTT\r\n"}, {"^MNY"}},
      {"PaperType=LabelMark GapsHeight=0 Darkness=0", {"^MNN\r\n", "~SD0\r\n"}, {"^MNM"}},
      {"PaperType=Normal PostAction=None", {"^XX\r\n^PW"}, {"^MN", "^MM"}},
  };
  for (const Case& c : cases) {
    const JobResult job = runJob(raster, std::string(c.options) + " ZplDialect=Kelvo", ppdPath("kelvo203.ppd"));
    ASSERT_EQ(job.status, 0) << c.options << "\n" << job.err;
    // A 16 x 4 page at 203 dpi is 2.0020 by 0.5005 mm: 16 and 4 dots again.
    EXPECT_EQ(job.out.rfind(kLineFeeds + "SIZE 2.0 mm, 0.5 mm\r\n^XX\r\n^PW16\r\n^LL4\r\n", 0), 0u) << c.options;
    for (const char* text : c.present) EXPECT_TRUE(has(job.out, text)) << c.options << ": " << text;
    for (const char* text : c.absent) EXPECT_FALSE(has(job.out, text)) << c.options << ": " << text;
  }
}

// A job choice the PPD does not have, or a misspelt option name, prints with
// the default and says so, naming the option, the value and the choices.
TEST(FilterJob, UnknownChoicesAreWarnedAbout) {
  const std::string raster = rasterStream({noisePage(16, 4)});
  const std::pair<const char*, const char*> cases[] = {
      {"HalftoneType=Burkess", "WARNING: Unknown choice \"Burkess\" for option HalftoneType; valid: None, "
                               "FloydSteinberg, Ordered, Burkes,"},
      {"Halftone=Burkes", "WARNING: Unknown option Halftone=Burkes (did you mean HalftoneType? valid: None, "},
      {"PrintSpeed=fast", "WARNING: Unknown choice \"fast\" for option PrintSpeed; valid: Normal, 1, 2,"},
  };
  const JobResult plain = runJob(raster, "", ppdPath("kelvo203.ppd"));
  for (const auto& c : cases) {
    const JobResult job = runJob(raster, c.first, ppdPath("kelvo203.ppd"));
    EXPECT_EQ(job.status, 0);
    EXPECT_TRUE(has(job.err, c.second)) << c.first << "\n" << job.err.substr(0, 600);
    EXPECT_EQ(job.out, plain.out) << c.first << ": the default prints";
  }
  // CUPS's own options are not PPD options and pass without a word.
  EXPECT_FALSE(has(runJob(raster, "media=w288h432 job-uuid=x number-up=1", ppdPath("kelvo203.ppd")).err, "WARNING"));
}

// Every page starts its row compression afresh: the first row is sent in
// full on every page ("!": all dots), the next one as a repeat.
TEST(FilterJob, PagesAreEncodedIndependently) {
  const RawPage dots = page(16, 2, 203, 255);
  const JobResult job = runJob(rasterStream({dots, dots}), "", ppdPath("kelvo203.ppd"));
  ASSERT_EQ(job.status, 0) << job.err;
  const std::string graphic = "^XA\r\n^PQ1\n~DGR:CUPS.GRF,4,2,\n!:^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n";
  const size_t first = job.out.find(graphic);
  ASSERT_NE(first, std::string::npos) << job.out;
  EXPECT_NE(job.out.find(graphic, first + 1), std::string::npos);
  EXPECT_EQ(job.out.rfind(graphic), job.out.size() - graphic.size());  // nothing after the last page
  // Each page brings its own setup block.
  EXPECT_NE(job.out.find("^XZ\r\n\r\n", job.out.find("^XZ\r\n\r\n") + 1), std::string::npos);
}

// The recording file holds exactly what the printer gets. Its name lives in
// a 256-byte field, terminator included: after "-", 14 digits of date and
// time and ".bin" (19 characters) the prefix may take 236 characters; a
// longer one is refused, never cut. PPD lines stop at 255 characters, so
// such prefixes span two lines of a quoted value (a name with a line break
// in it is still a name). A file that cannot be created costs the
// recording, not the job. Where the administrator has not allowed jobs to
// ask (the shipped PPDs), the job's request is ignored, with a warning.
TEST(FilterJob, RecordingFile) {
  const std::string dir = scratchPath("rec");
  mkdir(dir.c_str(), 0755);
  const std::string shipped = readFile(ppdPath("kelvo203.ppd"));
  const std::string attribute = "*kelvoFilterOutputFile: \"/var/spool/cups/tmp/kelvozpl\"";
  const size_t at = shipped.find(attribute);
  ASSERT_NE(at, std::string::npos);
  const std::string raster = rasterStream({noisePage(16, 4), noisePage(16, 4, 203, 2)});
  const JobResult unrecorded = runJob(raster, "", ppdPath("kelvo203.ppd"));
  const char* tooLong = "ERROR:Recording file name too long, printer commands are not recorded";
  const char* cannotOpen = "WARNING: Printer commands not recorded: unable to create /nonexistent-kelvo-dir/rec-";
  const char* notAllowed = "WARNING: Option RecordPrinterCommands is set by the printer's administrator, not by a job";
  const struct { size_t length; const char* error; } cases[] = {
      {0, nullptr}, {236, nullptr}, {237, tooLong}, {400, tooLong}, {0, cannotOpen}, {0, notAllowed}};
  for (const auto& c : cases) {
    std::string prefix = c.error == cannotOpen ? "/nonexistent-kelvo-dir/rec" : dir + "/rec";
    while (prefix.size() < c.length) prefix += prefix.size() % 100 == 99 ? '\n' : 'r';
    std::string ppd = shipped;
    // This printer's administrator lets jobs ask for a recording (but the last's).
    const std::string allow = c.error == notAllowed ? "" : "*kelvoAllowJobRecording: \"True\"\n";
    const TempFile ppdFile("rec.ppd",
                           ppd.replace(at, attribute.size(), allow + "*kelvoFilterOutputFile: \"" + prefix + "\""));
    const JobResult job = runJob(raster, "RecordPrinterCommands=1", ppdFile.path);
    EXPECT_EQ(job.status, 0) << prefix << "\n" << job.err;
    EXPECT_EQ(job.out, unrecorded.out) << prefix;
    const std::vector<std::string> files = filesIn(dir);
    if (c.error == nullptr) {
      ASSERT_EQ(files.size(), 1u) << "a prefix that fits is recorded\n" << job.err;
      EXPECT_EQ(files[0].size(), prefix.size() + 19);
      EXPECT_EQ(files[0].rfind(prefix + "-", 0), 0u);
      EXPECT_EQ(readFile(files[0]), job.out);
      EXPECT_TRUE(has(job.err, "DEBUG:Filter data output to: " + files[0] + "\n")) << job.err;
      EXPECT_FALSE(has(job.err, "ERROR:")) << job.err;
    } else {
      EXPECT_TRUE(files.empty()) << prefix;
      EXPECT_TRUE(has(job.err, c.error)) << prefix << "\n" << job.err;
      EXPECT_FALSE(has(job.err, "Filter data output to")) << prefix;
    }
    for (const std::string& file : files) std::remove(file.c_str());
  }
  rmdir(dir.c_str());
}

// Jobs refused before a page is read: the arguments, the raster file, the
// PPD. A FIFO or a device named as either is refused without waiting on it,
// also when the spooler cancels the job at once (a FIFO whose open waited
// once kept the job until it was killed).
TEST(FilterJob, RefusedBeforeThePage) {
  const TempFile ok("ok.ras", rasterStream({page(16, 4)}));
  const std::string label = ppdPath("kelvo203.ppd"), program = "rastertokelvozpl", fifo = scratchPath("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string noSize = "ERROR: Paper size must not less than 1.0 : (0.000000, 0.000000)\n";
  const std::string fifoRaster = "ERROR: Unable to open raster file - " + fifo + ": not a regular file but a FIFO\n";
  const std::string fifoPpd =
      noSize + "ERROR:Unable to read the PPD file " + fifo + ": not a regular file but a FIFO\n";
  struct Case {
    std::vector<std::string> args;
    std::string ppd, err;
    bool whole;  // the text is all of standard error: written before the log starts
    Output output = Output::Capture;
  };
  const Case cases[] = {
      {{"1", "u", "t", "1"}, label,
       program + " v3.13.13\n\nUsage:\n\n    " + program + " job_id user title copyies options [file]\n\n", true},
      {jobArgs("", "/nonexistent/job.ras"), label,
       "ERROR: Unable to open raster file - /nonexistent/job.ras: No such file or directory\n", true},
      {jobArgs("", ok.path), "", noSize + "ERROR:No PPD file: the environment variable PPD does not name the printer's PPD",
       false},
      {jobArgs("", ok.path), "/nonexistent/kelvo.ppd",
       noSize + "ERROR:Unable to read the PPD file /nonexistent/kelvo.ppd: No such file or directory\n", false},
      {jobArgs("", fifo), label, fifoRaster, true},
      {jobArgs("", fifo), label, fifoRaster, true, Output::Terminate},
      {jobArgs("", ok.path), fifo, fifoPpd, false},
      {jobArgs("", ok.path), fifo, fifoPpd, false, Output::Terminate},
      {jobArgs("", ok.path), "/dev/zero",
       noSize + "ERROR:Unable to read the PPD file /dev/zero: not a regular file but a character device\n", false},
  };
  for (const Case& c : cases) {
    const JobResult job = runFilter(c.args, c.ppd, "", c.output);
    EXPECT_LT(job.seconds, 1) << c.err;
    EXPECT_EQ(job.status, 1) << c.err;
    EXPECT_EQ(job.out, "") << c.err;
    EXPECT_TRUE(c.whole ? job.err == c.err : has(job.err, c.err)) << job.err;
  }
  std::remove(fifo.c_str());
}

// CUPS's own filters may hand over compressed raster; written with libcups's
// raster writer, the same pages must print the same bytes.
TEST(FilterJob, CompressedRasterFromLibcupsPrintsTheSame) {
  const std::vector<RawPage> pages = {noisePage(812, 40), page(64, 9, 203, 255), noisePage(33, 5, 203, 7)};
  const TempFile compressed("compressed.ras", "");
  const int fd = open(compressed.path.c_str(), O_WRONLY | O_TRUNC);
  ASSERT_GE(fd, 0);
  cups_raster_t* writer = cupsRasterOpen(fd, CUPS_RASTER_WRITE_COMPRESSED);
  for (RawPage p : pages) {
    ASSERT_TRUE(cupsRasterWriteHeader2(writer, &p.h));
    ASSERT_EQ(cupsRasterWritePixels(writer, reinterpret_cast<unsigned char*>(&p.pixels[0]),
                                    static_cast<unsigned>(p.pixels.size())),
              p.pixels.size());
  }
  cupsRasterClose(writer);
  close(fd);
  const JobResult viaLibcups = runFilter(jobArgs("HalftoneType=Ordered", compressed.path), ppdPath("kelvo203.ppd"));
  const JobResult plain = runJob(rasterStream(pages), "HalftoneType=Ordered", ppdPath("kelvo203.ppd"));
  ASSERT_EQ(viaLibcups.status, 0) << viaLibcups.err;
  EXPECT_EQ(graphicsOf(viaLibcups.out).size(), 3u);
  EXPECT_EQ(viaLibcups.out, plain.out);
}

TEST(FilterJob, SixArgumentsReadStandardInput) {
  const TempFile raster("stdin.ras", rasterStream({page(16, 4, 203, 255)}));
  const JobResult job = runFilter({"1", "u", "t", "1", ""}, ppdPath("kelvo203.ppd"), raster.path);
  EXPECT_EQ(job.status, 0) << job.err;
  EXPECT_TRUE(has(job.out, "~DGR:CUPS.GRF,8,2,\n!:::^FO")) << job.out;
}

// A blank page and a two-level line-art page would stall the stencil chain
// as designed; the filter finishes them in both tattoo types.
TEST(FilterJob, TattooTypesFinishBlankAndLineArtPages) {
  RawPage blank = page(240, 160, 300), lineArt = page(240, 160, 300);
  for (RawPage* p : {&blank, &lineArt}) std::snprintf(p->h.cupsPageSizeName, 64, "Tattoo_A6");
  for (size_t i = 0; i < lineArt.pixels.size(); ++i) lineArt.pixels[i] = (i / 240 / 10 + i % 240 / 10) % 2 ? '\xff' : 0;
  const std::string raster = rasterStream({blank, lineArt});
  for (const char* type : {"Tattoo", "Tattoo_X8"}) {
    const JobResult job = runJob(raster, std::string("HalftoneType=") + type, ppdPath("kelvotat.ppd"));
    ASSERT_EQ(job.status, 0) << type << "\n" << job.err;
    EXPECT_LT(job.seconds, 30) << type;
    const std::vector<ZplGraphic> graphics = graphicsOf(job.out);
    ASSERT_EQ(graphics.size(), 2u) << type;
    EXPECT_EQ(kelvoZplCountDots(graphics[0]), 0u) << type << ": a blank page prints nothing";
    const size_t dots = kelvoZplCountDots(graphics[1]);
    EXPECT_GT(dots, 240u * 160 / 4) << type;  // about half the page is ink
    EXPECT_LT(dots, 240u * 160 * 3 / 4) << type;
  }
  // The anti-wrinkle frame of 2 mm around A6's 100 x 118 mm: 1181 + 2 x 24
  // by 1394 + 2 x 12 dots at 300 dpi. The blank page is centred in it on
  // 1228 x 1418 dots (the odd difference halves down), so the right line
  // keeps 23 of its 24 columns: 2 x 12 rows of 1228 and 1394 rows of
  // 24 + 23 dots.
  const JobResult framed = runJob(rasterStream({blank}), "HalftoneType=Tattoo AntiWrinkle=2", ppdPath("kelvotat.ppd"));
  ASSERT_EQ(framed.status, 0) << framed.err;
  const std::vector<ZplGraphic> graphics = graphicsOf(framed.out);
  ASSERT_EQ(graphics.size(), 1u);
  EXPECT_EQ(graphics[0].bytesPerRow, (1228u + 7) / 8);
  EXPECT_EQ(graphics[0].height, 1418u);
  EXPECT_EQ(kelvoZplCountDots(graphics[0]), 2u * 12 * 1228 + 1394u * 47);
}

}  // namespace
