// Small pages of any size and content through the image code.
//
// Input: a mode byte, the page's width and height, the mode's parameters,
// then pixel bytes (repeated to fill the page).
//   even  the stencil chain (both guarded entries) and edf_cus at any threshold
//   odd   the page pipeline with any halftone, brightness, mirror, negative
//         and frame
//
// Properties: stencils hold only 0 and 255; the page's dots are those of the
// plain definitions (without a frame), no bit past a row's last dot is set,
// and the printed graphic is exactly the plain encoding of the dots.
#include <cstdio>
#include <string>
#include <vector>

#include "fuzz_util.h"
#include "image/pixel_rows.h"
#include "printer/page_pipeline.h"
#include "printer/zpl_graphic.h"
#include "stencil/jv_tattoo.h"
#include "test_support/memory_sink.h"
#include "test_support/reference.h"

namespace {

using kfuzz::fail;
using kfuzz::Reader;

// ---- stencil chain ----

void checkStencil(const JVImage& out, int width, int height, const char* what) {
  if (out.width != width || out.height != height || out.color != JV_IMG_GRAY || out.channels != 1)
    fail("%s: %dx%d page came back %dx%d, colour %d, %d channels", what, width, height, out.width, out.height,
         static_cast<int>(out.color), out.channels);
  for (int64_t i = 0; i < out.byteCount(); ++i)
    if (out.data[i] != 0 && out.data[i] != 255) fail("%s: byte %lld is %d", what, static_cast<long long>(i), out.data[i]);
}

void stencilChain(Reader& in) {
  const int width = in.byte() % 129;
  const int height = in.byte() % 129;
  const uint8_t flags = in.byte();
  const JV_IMG_COLOR layouts[] = {JV_IMG_GRAY, JV_IMG_BGR, JV_IMG_RGB, JV_IMG_BGRA, JV_IMG_RGBA,
                                  static_cast<JV_IMG_COLOR>(7), static_cast<JV_IMG_COLOR>(-1)};
  const JV_IMG_COLOR color = layouts[flags % 7];
  const int threshold = in.i32();
  const size_t count = static_cast<size_t>(width) * height * jvChannelsOf(color);
  const std::string pixels = kfuzz::fill(in.rest(), in.restSize(), count);
  const auto* bytes = reinterpret_cast<const unsigned char*>(pixels.data());

  JVImage src(width, height, color, bytes);
  const JVImage out = (flags & 8) ? jvTattooDitheringX8(src) : jvTattooDithering(src);
  if (width == 0 || height == 0) {
    if (out.width != width || out.height != height) fail("empty page changed size");
    return;
  }
  checkStencil(out, width, height, (flags & 8) ? "Tattoo_X8" : "Tattoo");
  JVImage gray(width, height, JV_IMG_GRAY, bytes);
  checkStencil(edf_cus(gray, threshold), width, height, "edf_cus");
}

// ---- page pipeline and graphic emitter ----

// ZPL's copy range: 0 and counts past 2^31 print once, the rest saturate.
int copiesSent(unsigned count) {
  return count == 0 || count > 0x7FFFFFFFu ? 1 : count > 99999999u ? 99999999 : static_cast<int>(count);
}

void pagePipeline(Reader& in) {
  const unsigned width = 1 + in.byte() % 96;
  const unsigned height = 1 + in.byte() % 96;
  const unsigned stride = width + in.byte() % 8;
  KelvoJobSettings settings;
  settings.halftone = static_cast<KelvoHalftone>(in.byte() % kKelvoHalftoneCount);
  settings.brightness = in.i32();
  const uint8_t flags = in.byte();
  settings.mirror = flags & 1;
  settings.negative = flags & 4;
  settings.antiWrinkleMm = in.byte() % 4;
  settings.copies = in.u32();
  // The frame grows the page to a whole sheet; a low resolution keeps that
  // sheet small enough to fuzz quickly.
  const unsigned dpi = 4 + in.byte() % 60;
  const char* names[] = {"A4", "Letter", "Tattoo_A5", "Tattoo_A6", "", "Custom.4x6in"};
  settings.sheet = names[in.byte() % 6];
  const std::string page = kfuzz::fill(in.rest(), in.restSize(), static_cast<size_t>(stride) * height);

  std::string scratch = page;  // the pipeline works in the page
  KelvoDots dots;
  if (!kelvoRenderPage(reinterpret_cast<uint8_t*>(&scratch[0]), stride, KelvoPageSize{width, height, dpi, dpi},
                       settings, dots, nullptr))
    fail("no dots for the page");
  MemorySink sink;
  kelvoWriteGraphic(sink, settings, dots);

  if (dots.width < width || dots.height < height || dots.rowBytes != (dots.width + 7) / 8 ||
      dots.bits.size() != dots.rowBytes * dots.height)
    fail("a page of %u x %u came out %u x %u", width, height, dots.width, dots.height);
  std::vector<uint8_t> page8(static_cast<size_t>(dots.width) * dots.height);
  for (unsigned y = 0; y < dots.height; ++y) {
    if ((dots.row(y)[dots.rowBytes - 1] & ~dots.lastByteMask()) != 0) fail("bits past the last dot of row %u", y);
    kelvoUnpackBits(dots.row(y), dots.width, &page8[static_cast<size_t>(y) * dots.width]);
  }
  if (sink.take() != kref::zplGraphic(page8.data(), static_cast<int>(dots.width), static_cast<int>(dots.width),
                                      static_cast<int>(dots.height), copiesSent(settings.copies)))
    fail("the graphic is not the plain encoding of the %u x %u page", dots.width, dots.height);

  // The plain definitions know every halftone but Barcode and Text, and no
  // frame.
  if (settings.antiWrinkleMm != 0 || settings.halftone == KelvoHalftone::kBarcodeText) return;
  kref::Options o;
  o.type = static_cast<int>(settings.halftone);
  o.brightness = settings.brightness < -100 ? -100 : settings.brightness > 100 ? 100 : settings.brightness;
  o.mirror = settings.mirror;
  o.negative = settings.negative;
  const kref::Page want = kref::processPage(reinterpret_cast<const uint8_t*>(page.data()), static_cast<int>(stride),
                                            static_cast<int>(width), static_cast<int>(height), o);
  for (unsigned y = 0; y < height; ++y)
    for (unsigned x = 0; x < width; ++x)
      if (page8[static_cast<size_t>(y) * width + x] != (want.px[static_cast<size_t>(y) * want.eff + x] != 0))
        fail("%s: dot (%u, %u) is not the plain definition's", kelvoHalftoneName(settings.halftone), x, y);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kfuzz::quietStderr();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Reader in(data, size);
  if (in.byte() % 2 == 0)
    stencilChain(in);
  else
    pagePipeline(in);
  return 0;
}
