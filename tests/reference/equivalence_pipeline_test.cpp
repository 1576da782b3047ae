// The page pipeline against the plain definitions: processed pixels and the
// graphic bytes, for every halftone type, option set and page width.
#include <gtest/gtest.h>

#include <string>

#include "test_support/memory_printer.h"
#include "test_support/random_pages.h"
#include "test_support/reference.h"

namespace {

// Two copies a page.
class CapturePrinter : public MemoryPrinter {
 public:
  CapturePrinter() {
    header_.NumCopies = 2;
    setPageHeader(&header_);
  }
  void apply(const kref::Options& o) {
    setHalftoneType(static_cast<DitherType>(o.type)), setBrightness(o.brightness), setContrast(o.contrast);
    setRotate180Print(o.rotate), setMirrorPrint(o.mirror), setNegativePrint(o.negative);
  }
  // What printImage does between the debug saves: process, then render.
  void page(const std::vector<uint8_t>& data, int stride, int width, int height) {
    ASSERT_TRUE(PageProcess(getHalftoneType(), data.data(), stride, width, height));
    printProcessed();
  }

 private:
  cups_page_header2_t header_{};
};

void expectSamePage(CapturePrinter& p, const std::vector<uint8_t>& data, int stride, int width, int height,
                    const kref::Options& o) {
  SCOPED_TRACE("type " + std::to_string(o.type) + ", " + std::to_string(width) + "x" + std::to_string(height) +
               " stride " + std::to_string(stride) + ", b/c " + std::to_string(o.brightness) + "/" +
               std::to_string(o.contrast) + (o.rotate ? " rot" : "") + (o.mirror ? " mir" : "") +
               (o.negative ? " neg" : "") + ", skip " + std::to_string(p.getSkipRightPixels()));
  p.apply(o);
  // The halftone's 1-bit rows straight to the emitter, then the same page
  // widened to 8 bits as the plain definition keeps it.
  p.setPackedRows(true);
  p.page(data, stride, width, height);
  const std::string fromPacked = p.take();
  p.setPackedRows(false);
  p.page(data, stride, width, height);
  const std::string graphic = p.take();
  EXPECT_EQ(fromPacked, graphic) << "packed rows";
  const kref::Page want = kref::processPage(data.data(), stride, width, height, o);
  PaletteImage& got = *p.processed();
  ASSERT_EQ(got.GetWidth(), static_cast<uint32_t>(width));
  ASSERT_EQ(got.GetHeight(), static_cast<uint32_t>(height));
  ASSERT_EQ(got.GetEffWidth(), static_cast<uint32_t>(want.eff));
  const std::vector<uint8_t> bits(got.GetBits(0), got.GetBits(0) + want.px.size());
  ASSERT_EQ(bits, want.px);
  EXPECT_EQ(graphic, kref::zplGraphic(want.px.data(), want.eff, width, height, 2, p.getSkipRightPixels()));
  // Rows without padding (widths of whole words) are sent as they always were,
  // when rows were taken to lie `width` bytes apart.
  if (width % 4 == 0) {
    EXPECT_EQ(graphic, kref::zplGraphic(want.px.data(), width, width, height, 2, p.getSkipRightPixels()));
  }
}

TEST(PipelineEquivalence, EveryTypeAndWidth) {
  std::mt19937 rng(4242);
  const int brightness[] = {0, 0, 20, -35, 100, -100, 7};
  const int contrast[] = {0, -10, 0, 45, -100, 100, 3};
  CapturePrinter p;
  for (int width = 1; width <= 70; ++width) {
    // 11 and 57 have no method of their own and take the default; 10, "Barcode
    // and Text", is held to its hand-computed cases in the image tests.
    for (int type : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 11, 57}) {
      const int height = 1 + static_cast<int>(rng() % 9);
      kref::Options o;
      o.type = type;
      o.brightness = brightness[rng() % 7];
      o.contrast = contrast[rng() % 7];
      o.rotate = rng() % 4 == 0;
      o.mirror = rng() % 3 == 0;
      o.negative = rng() % 3 == 0;
      const int stride = width + static_cast<int>(rng() % 6);
      expectSamePage(p, kref::randomPage(width, height, stride, rng()), stride, width, height, o);
    }
  }
  // Pages wider than any row above, half of them with a skipped right edge.
  for (const int w : {812, 2481, 333}) {
    for (int type = 0; type <= 9; ++type) {
      kref::Options o;
      o.type = type;
      o.negative = type % 3 == 1;
      o.mirror = type % 4 == 2;
      o.brightness = type % 2 ? 15 : 0;
      p.setSkipRightPixels(type % 2 ? 0 : 5);
      const int h = 13 + type * 3;
      expectSamePage(p, kref::randomPage(w, h, w, rng()), w, w, h, o);
    }
  }
}

// Whole pages through printImage, several in a row on one printer: buffers
// that live from page to page must not carry anything over.
TEST(PipelineEquivalence, MultiPageJobs) {
  std::mt19937 rng(99);
  CapturePrinter p;
  for (int job = 0; job < 4; ++job) {
    kref::Options o;
    o.type = static_cast<int>(rng() % 10);
    o.negative = job % 2 == 1;
    p.apply(o);
    std::string want;
    std::string got;
    for (int n = 0; n < 3; ++n) {
      const int width = 8 + static_cast<int>(rng() % 300);
      const int height = 1 + static_cast<int>(rng() % 40);
      const std::vector<uint8_t> data = kref::randomPage(width, height, width, rng());
      p.printImage(data.data(), width, height, width);
      got += p.take();
      const kref::Page page = kref::processPage(data.data(), width, width, height, o);
      want += kref::zplGraphic(page.px.data(), page.eff, width, height, 2, 0);
    }
    EXPECT_EQ(got, want) << "job " << job << " type " << o.type;
  }
}

}  // namespace
