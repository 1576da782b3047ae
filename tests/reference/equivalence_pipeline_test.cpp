// The page pipeline against the plain definitions: the dots and the graphic
// bytes, for every halftone, option set and page width.
#include <gtest/gtest.h>

#include <string>

#include "printer/page_pipeline.h"
#include "printer/zpl_graphic.h"
#include "test_support/memory_sink.h"
#include "test_support/random_pages.h"
#include "test_support/reference.h"

namespace {

KelvoJobSettings settingsOf(const kref::Options& o) {
  KelvoJobSettings s;
  s.halftone = static_cast<KelvoHalftone>(o.type);
  s.brightness = o.brightness;
  s.mirror = o.mirror;
  s.negative = o.negative;
  s.copies = 2;
  return s;
}

// The page through the pipeline into `dots` (kept from page to page, as a
// job keeps it), and its graphic.
std::string render(std::vector<uint8_t> data, int stride, int width, int height, const kref::Options& o,
                   KelvoDots& dots) {
  const KelvoJobSettings s = settingsOf(o);
  const KelvoPageSize size{static_cast<unsigned>(width), static_cast<unsigned>(height), 203, 203};
  EXPECT_TRUE(kelvoRenderPage(data.data(), static_cast<size_t>(stride), size, s, dots, nullptr));
  MemorySink sink;
  kelvoWriteGraphic(sink, s, dots);
  return sink.take();
}

void expectSamePage(const std::vector<uint8_t>& data, int stride, int width, int height, const kref::Options& o) {
  SCOPED_TRACE("type " + std::to_string(o.type) + ", " + std::to_string(width) + "x" + std::to_string(height) +
               " stride " + std::to_string(stride) + ", brightness " + std::to_string(o.brightness) +
               (o.mirror ? " mir" : "") + (o.negative ? " neg" : ""));
  KelvoDots dots;
  const std::string graphic = render(data, stride, width, height, o, dots);
  const kref::Page want = kref::processPage(data.data(), stride, width, height, o);
  ASSERT_EQ(dots.width, static_cast<unsigned>(width));
  ASSERT_EQ(dots.height, static_cast<unsigned>(height));
  long wrong = 0;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x)
      wrong += ((dots.row(y)[x / 8] >> (7 - x % 8)) & 1) != (want.px[static_cast<size_t>(y) * want.eff + x] != 0);
    wrong += (dots.row(y)[dots.rowBytes - 1] & ~dots.lastByteMask()) != 0;
  }
  ASSERT_EQ(wrong, 0);
  EXPECT_EQ(graphic, kref::zplGraphic(want.px.data(), want.eff, width, height, 2));
}

TEST(PipelineEquivalence, EveryTypeAndWidth) {
  std::mt19937 rng(4242);
  const int brightness[] = {0, 0, 20, -35, 100, -100, 7};
  for (int width = 1; width <= 70; ++width) {
    // Barcode and Text (10) is held to its hand-computed cases in the image
    // tests.
    for (int type = 0; type <= 9; ++type) {
      const int height = 1 + static_cast<int>(rng() % 9);
      kref::Options o;
      o.type = type;
      o.brightness = brightness[rng() % 7];
      o.mirror = rng() % 3 == 0;
      o.negative = rng() % 3 == 0;
      const int stride = width + static_cast<int>(rng() % 6);
      expectSamePage(kref::randomPage(width, height, stride, rng()), stride, width, height, o);
    }
  }
  // Pages wider than any row above.
  for (const int w : {812, 2481, 333}) {
    for (int type = 0; type <= 9; ++type) {
      kref::Options o;
      o.type = type;
      o.negative = type % 3 == 1;
      o.mirror = type % 4 == 2;
      o.brightness = type % 2 ? 15 : 0;
      const int h = 13 + type * 3;
      expectSamePage(kref::randomPage(w, h, w, rng()), w, w, h, o);
    }
  }
  // Brightness goes from -100 to 100; beyond, it stays there.
  const std::vector<uint8_t> page = kref::randomPage(40, 9, 40, 77);
  KelvoDots dots;
  for (const auto& [beyond, limit] : {std::pair<int, int>{250, 100}, {-101, -100}}) {
    kref::Options a, b;
    a.brightness = beyond, b.brightness = limit;
    EXPECT_EQ(render(page, 40, 40, 9, a, dots), render(page, 40, 40, 9, b, dots)) << beyond;
  }
}

// Pages one after the other into the same dots: nothing of a page carries
// over to the next.
TEST(PipelineEquivalence, MultiPageJobs) {
  std::mt19937 rng(99);
  for (int job = 0; job < 4; ++job) {
    kref::Options o;
    o.type = static_cast<int>(rng() % 10);
    o.negative = job % 2 == 1;
    KelvoDots dots;
    std::string want;
    std::string got;
    for (int n = 0; n < 3; ++n) {
      const int width = 8 + static_cast<int>(rng() % 300);
      const int height = 1 + static_cast<int>(rng() % 40);
      const std::vector<uint8_t> data = kref::randomPage(width, height, width, rng());
      got += render(data, width, width, height, o, dots);
      const kref::Page page = kref::processPage(data.data(), width, width, height, o);
      want += kref::zplGraphic(page.px.data(), page.eff, width, height, 2);
    }
    EXPECT_EQ(got, want) << "job " << job << " type " << o.type;
  }
}

}  // namespace
