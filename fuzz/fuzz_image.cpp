// Small pages of any size and content through the image code.
//
// Input: a mode byte, the page's width and height, the mode's parameters,
// then pixel bytes (repeated to fill the page).
//   0  the stencil chain (both guarded entries) and edf_cus at any threshold
//   1  a palette image of 1, 4, 8, 24 or 32 bits and a run of operations
//   2  the page pipeline with any halftone, transforms, negative and frame
//
// Properties: stencils hold only 0 and 255; palette images stay consistent;
// the processed page holds only dots and paper, and the printed graphic is
// exactly the plain encoding of the page.
#include <cstdio>
#include <string>
#include <vector>

#include "fuzz_util.h"
#include "stencil/jv_tattoo.h"
#include "test_support/memory_printer.h"
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
  const JVImage out = (flags & 8) ? jvTattooDitheringX8Guarded(src) : jvTattooDitheringGuarded(src);
  if (width == 0 || height == 0) {
    if (out.width != width || out.height != height) fail("empty page changed size");
    return;
  }
  checkStencil(out, width, height, (flags & 8) ? "Tattoo_X8" : "Tattoo");
  JVImage gray(width, height, JV_IMG_GRAY, bytes);
  checkStencil(edf_cus(gray, threshold), width, height, "edf_cus");
}

// ---- palette image ----

void checkImage(PaletteImage& img, const char* after) {
  if (!img.IsValid()) return;
  const uint32_t w = img.GetWidth();
  const uint32_t h = img.GetHeight();
  const uint32_t colours = img.GetNumColors();
  const uint32_t bpp = colours == 2 ? 1 : colours == 16 ? 4 : colours == 256 ? 8 : colours == 0 ? 24 : 0;
  if (w == 0 || h == 0 || w > 0x7FFFFFFF || h > 0x7FFFFFFF || bpp == 0)
    fail("after %s: %u x %u image with %u colours", after, w, h, colours);
  const uint32_t eff = img.GetEffWidth();
  if (eff != ((bpp * w + 31) >> 5) << 2) fail("after %s: %u bytes a row for %u pixels of %u bits", after, eff, w, bpp);
  uint8_t* first = img.GetBits(0);
  if (first == nullptr || (h > 1 && img.GetBits(h - 1) != first + static_cast<size_t>(eff) * (h - 1)))
    fail("after %s: rows are not where they should be", after);
  // Touches the last byte of the pixel area and every pixel.
  volatile uint8_t last = first[static_cast<size_t>(eff) * h - 1];
  (void)last;
  unsigned sum = 0;
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) sum += img.GetPixelIndex(x, y);
  volatile unsigned keep = sum;
  (void)keep;
}

void paletteOperations(Reader& in) {
  const unsigned depths[] = {1, 4, 8, 24, 32};
  const unsigned bpp = depths[in.byte() % 5];
  const unsigned width = in.byte() % 65;  // 0 is refused by Create
  const unsigned height = in.byte() % 65;
  const unsigned stride = (bpp * width + 7) / 8 + in.byte() % 4;
  const bool flip = in.byte() & 1;
  const unsigned operations = in.byte() % 12;
  std::vector<uint8_t> program;
  for (unsigned i = 0; i < operations * 9; ++i) program.push_back(in.byte());
  std::string pixels = kfuzz::fill(in.rest(), in.restSize(), static_cast<size_t>(stride) * height + 4 * width + 4);

  PaletteImage img, other;
  const bool made =
      img.CreateFromArray(reinterpret_cast<unsigned char*>(&pixels[0]), width, height, bpp, stride, flip);
  if (made != (width != 0 && height != 0)) fail("CreateFromArray of %u x %u returned %d", width, height, made);
  checkImage(img, "CreateFromArray");

  Reader op(program.data(), program.size());
  for (unsigned i = 0; i < operations; ++i) {
    const char* name = "";
    switch (op.byte() % 10) {
      case 0: {
        name = "Light";
        const int brightness = op.i32();
        img.Light(brightness, op.i32());
        break;
      }
      case 1:
        name = "Rotate180";
        if (op.byte() & 1) {
          img.Rotate180(&other);
          checkImage(other, name);
        } else {
          img.Rotate180(nullptr);
        }
        break;
      case 2:
        name = "Mirror";
        img.Mirror();
        break;
      case 3: {
        name = "Dither";
        const long method = op.i32();
        if (img.Dither(method) && img.IsValid()) {
          const tagRGBQUAD black = img.GetPaletteColor(0), white = img.GetPaletteColor(1);
          if (img.GetNumColors() != 2 || black.rgbRed != 0 || black.rgbGreen != 0 || black.rgbBlue != 0 ||
              white.rgbRed != 255 || white.rgbGreen != 255 || white.rgbBlue != 255)
            fail("Dither(%ld) did not leave a black and white image", method);
        }
        break;
      }
      case 4:
        name = "IncreaseBpp";
        img.IncreaseBpp(op.byte() % 30);
        break;
      case 5:
        name = "Negative";
        img.Negative();
        break;
      case 6: {
        name = "Expand";
        const long left = op.byte() % 17 - 1, top = op.byte() % 17 - 1, right = op.byte() % 17 - 1,
                   bottom = op.byte() % 17 - 1;
        const tagRGBQUAD canvas = {op.byte(), op.byte(), op.byte(), 0};
        img.Expand(left, top, right, bottom, canvas);
        break;
      }
      case 7: {
        name = "DrawLine";
        const int x0 = static_cast<int16_t>(op.u32()), x1 = static_cast<int16_t>(op.u32());
        img.DrawLine(x0, x1, static_cast<int8_t>(op.byte()), static_cast<int8_t>(op.byte()), op.byte());
        break;
      }
      case 8:
        name = "MakeCenter";
        img.MakeCenter(static_cast<int>(img.GetWidth()) + op.byte() % 40 - 8);
        break;
      default: {
        name = "SetPixelIndex";
        const long x = static_cast<int16_t>(op.u32() >> 8), y = static_cast<int8_t>(op.byte());
        img.SetPixelIndex(x, y, op.byte());
        volatile unsigned char v = img.GetPixelIndex(-x, y);
        (void)v;
        break;
      }
    }
    checkImage(img, name);
  }
}

// ---- page pipeline and graphic emitter ----

// What the printer sent must be the plain encoding of the page.
// ZPL's copy range: 0 and counts past 2^31 print once, the rest saturate.
int copiesSent(unsigned count) {
  return count == 0 || count > 0x7FFFFFFFu ? 1 : count > 99999999u ? 99999999 : static_cast<int>(count);
}

void checkGraphic(const std::string& sent, const unsigned char* bits, size_t stride, size_t width, size_t height,
                  const cups_page_header2_t& header, unsigned long skip) {
  if (sent != kref::zplGraphic(bits, static_cast<int>(stride), static_cast<int>(width), static_cast<int>(height),
                               copiesSent(header.NumCopies), skip))
    fail("the graphic is not the plain encoding of the %zu x %zu page", width, height);
}

void pagePipeline(Reader& in) {
  const unsigned width = 1 + in.byte() % 96;
  const unsigned height = 1 + in.byte() % 96;
  const unsigned stride = width + in.byte() % 8;
  MemoryPrinter printer;
  printer.setHalftoneType(static_cast<DitherType>(static_cast<int8_t>(in.byte())));
  printer.setBrightness(in.i32());
  printer.setContrast(in.i32());
  const uint8_t flags = in.byte();
  printer.setMirrorPrint(flags & 1);
  printer.setRotate180Print(flags & 2);
  printer.setNegativePrint(flags & 4);
  printer.setAntiWrinkle(in.byte() % 6);
  // The frame grows the page to a whole sheet; a low resolution keeps that
  // sheet small enough to fuzz quickly.
  printer.setResolution(4 + in.byte() % 60);
  printer.setRemoveBlankEdges(in.byte());
  printer.setSkipRightPixels(in.byte() % (width + 4));
  cups_page_header2_t header;
  std::memset(&header, 0, sizeof header);
  header.NumCopies = in.u32();
  const char* names[] = {"A4", "Letter", "Tattoo_A5", "Tattoo_A6", ""};
  const uint8_t name = in.byte() % 6;
  if (name < 5)
    std::snprintf(header.cupsPageSizeName, sizeof header.cupsPageSizeName, "%s", names[name]);
  else
    std::memset(header.cupsPageSizeName, 'A', sizeof header.cupsPageSizeName);  // unterminated
  printer.setPageHeader(&header);
  const std::string page = kfuzz::fill(in.rest(), in.restSize(), static_cast<size_t>(stride) * height);

  printer.printImage(reinterpret_cast<const unsigned char*>(page.data()), stride, height, width);

  PaletteImage* image = printer.processed();
  if (image == nullptr || !image->IsValid()) fail("no processed image");
  const size_t w = image->GetWidth(), h = image->GetHeight();
  for (size_t y = 0; y < h; ++y)
    for (size_t x = 0; x < w; ++x) {
      const unsigned v = image->GetPixelIndex(static_cast<long>(x), static_cast<long>(y));
      if (v != 0 && v != 1 && v != 255)
        fail("halftone %d left pixel (%zu, %zu) at %u", static_cast<int>(printer.getHalftoneType()), x, y, v);
    }
  // A halftoned page may reach the emitter in 1-bit rows; the plain
  // definition takes the 8-bit page.
  std::vector<unsigned char> page8;
  const unsigned char* bits = image->GetBits(0);
  size_t rowStride = image->GetEffWidth();
  if (image->GetNumColors() == 2) {
    page8.resize(w * h);
    for (size_t y = 0; y < h; ++y)
      for (size_t x = 0; x < w; ++x)
        page8[y * w + x] = image->GetPixelIndex(static_cast<long>(x), static_cast<long>(y));
    bits = page8.data();
    rowStride = w;
  }
  checkGraphic(printer.take(), bits, rowStride, w, h, header, printer.getSkipRightPixels());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kfuzz::quietStderr();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Reader in(data, size);
  switch (in.byte() % 3) {
    case 0: stencilChain(in); break;
    case 1: paletteOperations(in); break;
    default: pagePipeline(in); break;
  }
  return 0;
}
