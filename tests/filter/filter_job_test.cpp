// Whole jobs through the real filter binary with the shipped PPDs.
#include <glob.h>

#include <random>

#include "filter/filter_main.h"
#include "job_runner.h"

namespace {

bool dotAt(const ZplGraphic& g, size_t x, size_t y) { return g.rows[y * g.bytesPerRow + x / 8] & (0x80 >> (x % 8)); }

// A 4x6 inch label at 203 dpi with every setup option set by the job: the
// setup block is the reference block, the graphic is the threshold of the
// ink (above 128 prints).
TEST(FilterJob, LabelSetupBlockAndThresholdGraphic) {
  RasterPage page;
  page.width = 812;
  page.height = 1218;
  std::mt19937 rng(5);
  page.pixels.resize(812 * 1218);
  for (size_t i = 0; i < page.pixels.size(); ++i) page.pixels[i] = static_cast<unsigned char>((i / 812) % 7 ? rng() : 0);
  Scratch raster("label.ras");
  writeRaster(raster.path, {page});

  const JobResult job = runFilter(jobArgs("PaperType=LabelGaps GapsHeight=3 Origin=Rotation180 PrintSpeed=4 Darkness=15 "
                                          "MediaMethod=Transfer PostAction=TearOff HalftoneType=None",
                                          raster.path),
                                  ppdPath("kelvo203.ppd"));
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
    for (size_t x = 0; x < 812; ++x) wrong += dotAt(graphics[0], x, y) != (page.pixels[y * 812 + x] > 128);
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(job.err.find("ERROR:"), std::string::npos) << job.err;
}

// Job options override the PPD's defaults; without them the defaults speak.
TEST(FilterJob, PpdDefaultsAndJobOptions) {
  RasterPage page;
  page.copies = 3;
  Scratch raster("defaults.ras");
  writeRaster(raster.path, {page});
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
    const JobResult job = runFilter(jobArgs(c.options, raster.path), ppdPath("kelvo203.ppd"));
    ASSERT_EQ(job.status, 0) << c.options << "\n" << job.err;
    // A 16 x 4 page at 203 dpi is 2.0020 by 0.5005 mm: 16 and 4 dots again.
    EXPECT_EQ(job.out.rfind(kLineFeeds + "SIZE 2.0 mm, 0.5 mm\r\n^XX\r\n^PW16\r\n^LL4\r\n", 0), 0u) << c.options;
    for (const char* text : c.present) EXPECT_NE(job.out.find(text), std::string::npos) << c.options << ": " << text;
    for (const char* text : c.absent) EXPECT_EQ(job.out.find(text), std::string::npos) << c.options << ": " << text;
  }
}

// Every page starts its row compression afresh: an all-dots first row is
// sent in full on every page, later all-dots rows as ":".
TEST(FilterJob, PagesAreEncodedIndependently) {
  RasterPage page;
  page.width = 16;
  page.height = 2;
  page.pixels.assign(32, 255);
  Scratch raster("pages.ras");
  writeRaster(raster.path, {page, page});
  const JobResult job = runFilter(jobArgs("", raster.path), ppdPath("kelvo203.ppd"));
  ASSERT_EQ(job.status, 0) << job.err;
  const std::string graphic = "^XX\r\n^PQ1\n~DGR:CUPS.GRF,4,2,\nJF:^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n";
  const size_t first = job.out.find(graphic);
  ASSERT_NE(first, std::string::npos) << job.out;
  EXPECT_NE(job.out.find(graphic, first + 1), std::string::npos);
  EXPECT_EQ(job.out.rfind(graphic), job.out.size() - graphic.size());  // nothing after the last page
  // Each page brings its own setup block.
  EXPECT_NE(job.out.find("^XZ\r\n\r\n", job.out.find("^XZ\r\n\r\n") + 1), std::string::npos);
}

TEST(FilterJob, RecordingFileHoldsExactlyWhatThePrinterGets) {
  const std::string prefix = testing::TempDir() + "kelvo_rec_" + std::to_string(getpid());
  std::string ppd = slurp(ppdPath("kelvo203.ppd"));
  const std::string attribute = "*kelvoFilterOutputFile: \"/var/spool/cups/tmp/kelvozpl\"";
  ASSERT_NE(ppd.find(attribute), std::string::npos);
  ppd.replace(ppd.find(attribute), attribute.size(), "*kelvoFilterOutputFile: \"" + prefix + "\"");
  Scratch ppdFile("rec.ppd");
  std::ofstream(ppdFile.path) << ppd;
  RasterPage page;
  page.pixels.assign(64, 200);
  Scratch raster("rec.ras");
  writeRaster(raster.path, {page, page});

  const JobResult job = runFilter(jobArgs("RecordPrinterCommands=1", raster.path), ppdFile.path);
  ASSERT_EQ(job.status, 0) << job.err;
  glob_t found;
  ASSERT_EQ(glob((prefix + "-[0-9]*.bin").c_str(), 0, nullptr, &found), 0);
  ASSERT_EQ(found.gl_pathc, 1u);
  const std::string recorded = found.gl_pathv[0];
  globfree(&found);
  EXPECT_EQ(recorded.size(), prefix.size() + 1 + 14 + 4);  // "-", the date and time, ".bin"
  EXPECT_EQ(slurp(recorded), job.out);
  EXPECT_EQ(job.out.rfind(kLineFeeds + "SIZE", 0), 0u);
  EXPECT_NE(job.err.find("DEBUG:Filter data output to: " + recorded + "\n"), std::string::npos);
  std::remove(recorded.c_str());

  // A recording file that cannot be created costs the recording, not the job.
  ppd.replace(ppd.find(prefix), prefix.size(), "/nonexistent-kelvo-dir/rec");
  std::ofstream(ppdFile.path) << ppd;
  const JobResult unrecorded = runFilter(jobArgs("RecordPrinterCommands=1", raster.path), ppdFile.path);
  EXPECT_EQ(unrecorded.status, 0);
  EXPECT_EQ(unrecorded.out, job.out);
  EXPECT_NE(unrecorded.err.find("ERROR:Unable to open the recording file /nonexistent-kelvo-dir/rec-"), std::string::npos)
      << unrecorded.err;
  EXPECT_EQ(unrecorded.err.find("Filter data output to"), std::string::npos);
}

TEST(FilterJob, FailuresAndTheirStatus) {
  Scratch ok("ok.ras"), oneBit("onebit.ras"), empty("empty.ras"), tooBig("big.ras"), overflow("overflow.ras"),
      truncated("truncated.ras");
  writeRaster(ok.path, {RasterPage{}});
  RasterPage bitmap;
  bitmap.bitsPerPixel = 1;
  writeRaster(oneBit.path, {bitmap, RasterPage{}});
  RasterPage zeroHeight;
  zeroHeight.height = 0;
  writeRaster(empty.path, {zeroHeight, RasterPage{}});
  RasterPage big;  // one row past the page limit
  big.width = 16384;
  big.height = static_cast<unsigned>(kKelvoMaxPageBytes / 16384 + 1);
  big.headerOnly = true;
  writeRaster(tooBig.path, {big});
  RasterPage huge;  // bytes per line times height does not fit 32 bits
  huge.width = 65536;
  huge.height = 65537;
  huge.headerOnly = true;
  writeRaster(overflow.path, {huge});
  {
    RasterPage page;
    page.height = 8;
    page.pixels.assign(16 * 8, 255);
    writeRaster(truncated.path, {page});
    const std::string whole = slurp(truncated.path);
    std::ofstream(truncated.path, std::ios::binary) << whole.substr(0, whole.size() - 40);  // half the rows
  }
  const std::string label = ppdPath("kelvo203.ppd");
  const std::string program = "rastertokelvozpl";

  struct Case {
    const char* what;
    std::vector<std::string> args;
    std::string ppd;
    int status;
    std::string out;  // exact standard output
    std::string errHas;
  };
  const Case cases[] = {
      {"five arguments", {"1", "u", "t", "1"}, label, 1, "",
       program + " v3.13.13\n\nUsage:\n\n    " + program + " job_id user title copyies options [file]\n\n"},
      {"raster file missing", jobArgs("", "/nonexistent/job.ras"), label, 1, "", "ERROR: Unable to open raster file - "},
      {"no PPD", jobArgs("", ok.path), "", 1, "", "ERROR: Paper size must not less than 1.0 : (0.000000, 0.000000)\n"},
      {"1-bit page", jobArgs("", oneBit.path), label, 1, kLineFeeds,
       "ERROR:Unsupported bits per pixel : 1 ! Requires 8 bits per pixel!\n"},
      {"zero-height page ends the job", jobArgs("", empty.path), label, 0, kLineFeeds, ""},
      {"page over the limit", jobArgs("", tooBig.path), label, 1, kLineFeeds, "ERROR:Page of 16384 x"},
      {"page bytes overflow", jobArgs("", overflow.path), label, 1, kLineFeeds, "ERROR:Page of 65536 x 65537"},
  };
  for (const Case& c : cases) {
    const JobResult job = runFilter(c.args, c.ppd);
    EXPECT_EQ(job.status, c.status) << c.what << "\n" << job.err;
    EXPECT_EQ(job.out, c.out) << c.what;
    EXPECT_NE(job.err.find(c.errHas), std::string::npos) << c.what << "\n" << job.err;
  }
  // The two texts without a line of their own stand alone on standard error.
  EXPECT_EQ(runFilter({"1", "u", "t", "1"}, label).err, cases[0].errHas);
  EXPECT_EQ(runFilter(jobArgs("", "/nonexistent/job.ras"), label).err, cases[1].errHas);

  // Pixels that end early: the page is skipped, the job still ends well.
  const JobResult cut = runFilter(jobArgs("", truncated.path), label);
  EXPECT_EQ(cut.status, 0) << cut.err;
  EXPECT_EQ(cut.out.find("~DG"), std::string::npos);
  EXPECT_NE(cut.out.find("^XZ\r\n\r\n"), std::string::npos);  // its setup block went out
}

TEST(FilterJob, SixArgumentsReadStandardInput) {
  RasterPage page;
  page.pixels.assign(64, 255);
  Scratch raster("stdin.ras");
  writeRaster(raster.path, {page});
  const JobResult job = runFilter({"1", "u", "t", "1", ""}, ppdPath("kelvo203.ppd"), raster.path);
  EXPECT_EQ(job.status, 0) << job.err;
  EXPECT_NE(job.out.find("~DGR:CUPS.GRF,8,2,\nJF:::^FO"), std::string::npos) << job.out;
}

// A blank page and a two-level line-art page would stall the stencil chain
// as designed; the filter finishes them in both tattoo types.
TEST(FilterJob, TattooTypesFinishBlankAndLineArtPages) {
  RasterPage blank, lineArt;
  blank.width = lineArt.width = 240;
  blank.height = lineArt.height = 160;
  blank.dpi = lineArt.dpi = 300;
  blank.sizeName = lineArt.sizeName = "Tattoo_A6";
  lineArt.pixels.assign(240 * 160, 0);
  for (size_t i = 0; i < lineArt.pixels.size(); ++i) lineArt.pixels[i] = (i / 240 / 10 + i % 240 / 10) % 2 ? 255 : 0;
  Scratch raster("tattoo.ras");
  writeRaster(raster.path, {blank, lineArt});
  for (const char* type : {"Tattoo", "Tattoo_X8"}) {
    const JobResult job = runFilter(jobArgs(std::string("HalftoneType=") + type, raster.path), ppdPath("kelvotat.ppd"));
    ASSERT_EQ(job.status, 0) << type << "\n" << job.err;
    EXPECT_LT(job.seconds, 30) << type;
    const std::vector<ZplGraphic> graphics = graphicsOf(job.out);
    ASSERT_EQ(graphics.size(), 2u) << type;
    EXPECT_EQ(kelvoZplCountDots(graphics[0]), 0u) << type << ": a blank page prints nothing";
    const size_t dots = kelvoZplCountDots(graphics[1]);
    EXPECT_GT(dots, 240u * 160 / 4) << type;  // about half the page is ink
    EXPECT_LT(dots, 240u * 160 * 3 / 4) << type;
  }
}

// The largest page the limit is there for: an A3 sheet at 600 dpi.
TEST(FilterJob, A3At600DpiPasses) {
  RasterPage page;
  page.width = 7016;
  page.height = 9921;
  page.dpi = 600;
  Scratch raster("a3.ras");
  writeRaster(raster.path, {page});
  const JobResult job = runFilter(jobArgs("", raster.path), ppdPath("kelvo203.ppd"));
  ASSERT_EQ(job.status, 0) << job.err.substr(job.err.size() > 2000 ? job.err.size() - 2000 : 0);
  EXPECT_NE(job.out.find("~DGR:CUPS.GRF,8700717,877,\n"), std::string::npos);  // 877 bytes x 9921 rows
}

}  // namespace
