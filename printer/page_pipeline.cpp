// The page entry of the printer: debug images, adjustment, transforms,
// halftoning, negative and frame, then the rendering of the processed page.
#include <cstdlib>
#include <cstring>
#include <ctime>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "printer/kelvo_printer.h"
#include "stencil/jv_image.h"
#include "stencil/jv_tattoo.h"
#include "support/kelvo_log.h"

namespace {

const char kOriginPattern[] = KELVO_DEBUG_IMAGE_DIR "origin_%d-%d-%d_%d_%d_%d_%ld.bmp";
const char kDitheredPattern[] = KELVO_DEBUG_IMAGE_DIR "dithered_%d-%d-%d_%d_%d_%d_%ld.bmp";

bool rowIsBlank(const unsigned char* row, size_t n) {
  for (size_t i = 0; i < n; ++i)
    if (row[i] != 0) return false;
  return true;
}

size_t keptBytes(size_t bytesPerLine, size_t skipRight) {
  return skipRight > bytesPerLine ? bytesPerLine : bytesPerLine - skipRight;
}

void putLe16(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
}

void putLe32(unsigned char* p, uint32_t v) {
  putLe16(p, v);
  putLe16(p + 2, v >> 16);
}

}  // namespace

// The count deliberately starts one row in (the first row of the page is
// never examined). The walk would end on the row just past the page; that row
// is not ours to read, so it counts as blank.
extern "C" size_t kelvoImageCountBlankLinesFromFront(const unsigned char* data, size_t bytesPerLine,
                                                     size_t height, size_t skipRight, size_t stride) {
  const size_t n = keptBytes(bytesPerLine, skipRight);
  for (size_t i = 0; i < height; ++i) {
    if (i + 1 >= height) continue;
    if (!rowIsBlank(data + (i + 1) * stride, n)) return i;
  }
  return height;
}

// Returns the number of rows up to and including the last row with ink.
extern "C" size_t kelvoImageCountBlankLinesFromBack(const unsigned char* data, size_t bytesPerLine,
                                                    size_t height, size_t skipRight, size_t stride) {
  const size_t n = keptBytes(bytesPerLine, skipRight);
  for (size_t i = height; i >= 1; --i) {
    if (!rowIsBlank(data + (i - 1) * stride, n)) return i;
  }
  return 0;
}

void KelvoPrinter::printImage(const unsigned char* data, unsigned long bytesPerLine, unsigned long height,
                              unsigned long width) {
  kelvoLogCommon(LogDebug, "printImage: Start processing image, input width: %zu, height: %zu, bytes per line: %zu",
                 width, height, bytesPerLine);
  const size_t pageBytes = bytesPerLine * height;
  unsigned char* spare = nullptr;
  unsigned char* result = nullptr;
  size_t top = 0;
  size_t bottom = 0;
  size_t adjustedHeight = height;
  unsigned char* adjusted = nullptr;

  // The spare buffer is never written; it stays because its allocation is the
  // page's early test for memory.
  spare = static_cast<unsigned char*>(std::malloc(pageBytes));
  if (spare == nullptr) {
    kelvoLogCommon(LogError, "printImage: Memory allocation failed, unable to process image, exiting processing");
    goto done;
  }
  kelvoLogCommon(LogDebug, "printImage: Memory allocated successfully, size: %zu bytes", pageBytes);

  if (removeBlankEdges_ != 0) {
    if (removeBlankEdges_ & 8) {
      bottom = kelvoImageCountBlankLinesFromBack(data, bytesPerLine, height, skipRightPixels_, width);
      kelvoLogCommon(LogDebug,
                     "printImage: Removal of bottom blank edges detected, number of bottom blank lines: %zu", bottom);
    }
    if (removeBlankEdges_ & 2) {
      top = kelvoImageCountBlankLinesFromFront(data, bytesPerLine, height, skipRightPixels_, width);
      kelvoLogCommon(LogDebug, "printImage: Removal of top blank edges detected, number of top blank lines: %zu",
                     top);
    }
  }

  std::strcpy(imagePathPattern_, kOriginPattern);
  kelvoLogCommon(LogDebug, "printImage: Saving original image, file path will be generated based on time");
  saveImage(data, bytesPerLine, height, width, 8);

  result = static_cast<unsigned char*>(std::malloc(2 * pageBytes));
  if (result == nullptr) {
    kelvoLogCommon(LogError,
                   "printImage: Memory allocation for processing result failed, unable to continue processing");
    goto done;
  }
  // The logged size is the page size, not the doubled allocation; the log
  // line has always read that way.
  kelvoLogCommon(LogDebug, "printImage: Memory for processing result allocated successfully, size: %zu bytes",
                 pageBytes);

  PageProcess(halftoneType_, data, static_cast<int>(bytesPerLine), static_cast<int>(width),
              static_cast<int>(height), result);

  // The trimmed range only feeds the log: the printer always gets the whole
  // processed page.
  adjusted = result;
  if (bottom > top) {
    adjustedHeight = bottom - top;
    adjusted = result + top * bytesPerLine;
    kelvoLogCommon(LogDebug, "printImage: Adjusted image height to %zu, pointer offset by %zu bytes", adjustedHeight,
                   top * bytesPerLine);
  }
  // The "width" and "bytes per line" labels stand over the other value; the
  // line is kept as support staff know it.
  kelvoLogCommon(LogDebug,
                 "printImage: Processed image information - pointer address: %lu, width: %zu, height: %zu, bytes "
                 "per line: %zu, number of top blank lines: %zu, number of bottom blank lines: %zu, adjusted "
                 "height: %zu",
                 reinterpret_cast<unsigned long>(adjusted), bytesPerLine, height, width, top, bottom,
                 adjustedHeight);

  std::strcpy(imagePathPattern_, kDitheredPattern);
  kelvoLogCommon(LogDebug, "printImage: Saving processed image, file path will be generated based on time");
  // An image left empty by a failed creation has no pixels to save or print.
  if (pimage != nullptr && pimage->IsValid())
    saveImage(pimage->GetBits(0), pimage->GetEffWidth(), pimage->GetHeight(), pimage->GetWidth(), 8);

  kelvoLogCommon(LogDebug, "printImage: Starting to print the processed image");
  if (pimage != nullptr && pimage->IsValid()) {
    doPrintImage(pimage->GetBits(0), pimage->GetEffWidth(), pimage->GetHeight(), pimage->GetWidth());
  } else {
    kelvoLogCommon(LogError, "printImage: pimage is NULL, unable to print the image");
  }

done:
  if (spare != nullptr) {
    std::free(spare);
    spare = nullptr;
    kelvoLogCommon(LogDebug, "printImage: Freed the allocated memory, address: %p", static_cast<void*>(spare));
  }
  if (result != nullptr) {
    // Logged just before the release: the line reports the address it had.
    kelvoLogCommon(LogDebug, "printImage: Freed the memory for processing result, address: %p",
                   static_cast<void*>(result));
    std::free(result);
  }
  kelvoLogCommon(LogDebug, "printImage: Image processing completed");
}

long KelvoPrinter::PageProcess(DitherType type, const unsigned char* data, int stride, int width, int height,
                               unsigned char* out) {
  useJVDithering_ = halftoneType_ == Tattoo || halftoneType_ == Tattoo_X8;
  kelvoLogCommon(LogDebug, "PageProcess: JV dithering is %s", useJVDithering_ ? "enabled" : "disabled");

  if (!workImage_.CreateFromArray(const_cast<unsigned char*>(data), width, height, 8, stride, false)) {
    kelvoLogCommon(LogCrit, "image.CreateFromArray with grey failed!");
    return 0;
  }
  kelvoLogCommon(LogDebug, "PageProcess: Successfully created PaletteImage from array with stride %d", stride);

  // The user's -100..100 steps are scaled to the table's working range.
  if (brightness_ != 0 || contrast_ != 0) {
    workImage_.Light(brightness_ * 5, contrast_ * 2);
    kelvoLogCommon(LogDebug, "PageProcess: Adjusted brightness to %d and contrast to %d", brightness_ * 5,
                   contrast_ * 2);
  }
  if (rotate180Print_) {
    workImage_.Rotate180(nullptr);
    kelvoLogCommon(LogDebug, "PageProcess: Rotated the image 180 degrees");
  }
  if (mirrorPrint_) {
    workImage_.Mirror();
    kelvoLogCommon(LogDebug, "PageProcess: Mirrored the image");
  }

  if (useJVDithering_) {
    copyPixels(workImage_, out, width, height, stride);
    kelvoLogCommon(LogDebug, "PageProcess: Copied pixels to the output buffer for JV dithering, with stride %d, EffWidth %d",
                   stride, static_cast<int>(workImage_.GetEffWidth()));
    JVImage src(width, height, JV_IMG_GRAY, out);
    // The guarded entries give the chain's bytes for every page and also
    // finish on blank and two-level pages.
    JVImage stencil = halftoneType_ == Tattoo_X8 ? jvTattooDitheringX8Guarded(src) : jvTattooDitheringGuarded(src);
    const int rounded = (stencil.width + 3) / 4 * 4;
    kelvoLogCommon(LogDebug, "PageProcess: Applied JV dithering with stride %d, width %d", rounded, width);
    if (!stencilImage_.CreateFromArray(stencil.data, width, height, 8, width, false)) {
      kelvoLogCommon(LogError, "PageProcess: Failed to create a new PaletteImage from JV dithered data");
      return 0;
    }
    kelvoLogCommon(LogDebug, "PageProcess: Successfully created a new PaletteImage from JV dithered data");
    pimage = &stencilImage_;
  } else {
    // The type goes to Dither unchanged: the method numbers sit one place off
    // the names ("FloydSteinberg" runs the ordered dither and so on), and
    // printers in the field have been tuned to that.
    workImage_.Dither(type);
    workImage_.IncreaseBpp(8);
    pimage = &workImage_;
    kelvoLogCommon(LogDebug, "PageProcess: Applied default dithering and increased bit depth");
  }

  kelvoLogCommon(LogDebug, "PageProcess: negativePrint_ %d", negativePrint_ ? 1 : 0);
  if (negativePrint_) {
    kelvoLogCommon(LogDebug, "PageProcess: Inverting the image for negative print");
    pimage->Negative();
  }
  if (antiWrinkle_ != 0) EnableAntiWrink(*pimage);

  const long effWidth = pimage->GetEffWidth();
  // `out` holds 2 * stride * height bytes; a frame that enlarged the image
  // must not push the copy past it.
  const long capacity = 2L * stride * height;
  long rows = pimage->GetHeight();
  if (effWidth > 0 && rows * effWidth > capacity) rows = capacity / effWidth;
  copyProcessedPixels(pimage, out, static_cast<int>(pimage->GetWidth()), static_cast<int>(rows),
                      static_cast<int>(effWidth));
  kelvoLogCommon(LogDebug, "PageProcess: Filled the output buffer with processed pixels, length: %d",
                 static_cast<int>(height * effWidth));
  return height * effWidth;
}

void KelvoPrinter::copyPixels(PaletteImage& image, unsigned char* out, int width, int height, int stride) {
  // The pipeline's pages are 8-bit and at least this large: copy rows.
  if (image.IsValid() && image.GetNumColors() == 256 && width <= static_cast<int>(image.GetWidth()) &&
      height <= static_cast<int>(image.GetHeight())) {
    for (int y = 0; y < height; ++y)
      if (width > 0) std::memcpy(out + static_cast<long>(y) * stride, image.GetBits(y), static_cast<size_t>(width));
    return;
  }
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) out[static_cast<long>(y) * stride + x] = image.GetPixelIndex(x, y);
}

void KelvoPrinter::copyProcessedPixels(PaletteImage* image, unsigned char* out, int width, int height, int stride) {
  // Index 1 (a dot after halftoning) becomes 0xFF, then the negative inverts.
  unsigned char map[256];
  for (int v = 0; v < 256; ++v) {
    const unsigned char dot = static_cast<unsigned char>(v == 1 ? 0xFF : v);
    map[v] = negativePrint_ ? static_cast<unsigned char>(~dot) : dot;
  }
  if (image->IsValid() && image->GetNumColors() == 256 && width <= static_cast<int>(image->GetWidth()) &&
      height <= static_cast<int>(image->GetHeight())) {
    // The same map as a sum of two steps, 16 pixels at a time: v | 0xFF
    // where v == 1, then an exclusive or with 0xFF for the negative.
    const unsigned char flip = negativePrint_ ? 0xFF : 0x00;
    for (int y = 0; y < height; ++y) {
      const unsigned char* src = image->GetBits(y);
      unsigned char* dst = out + static_cast<long>(y) * stride;
      int x = 0;
#if defined(__SSE2__)
      const __m128i one = _mm_set1_epi8(1);
      const __m128i invert = _mm_set1_epi8(static_cast<char>(flip));
      for (; x + 16 <= width; x += 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + x));
        const __m128i dot = _mm_or_si128(v, _mm_cmpeq_epi8(v, one));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + x), _mm_xor_si128(dot, invert));
      }
#endif
      for (; x < width; ++x) dst[x] = map[src[x]];
    }
    return;
  }
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) out[static_cast<long>(y) * stride + x] = map[image->GetPixelIndex(x, y)];
}

void KelvoPrinter::saveImage(const unsigned char* data, unsigned long bytesPerLine, unsigned long height,
                             unsigned long width, unsigned short bitsPerPixel) {
  const time_t now = std::time(nullptr);
  struct tm local {};
  localtime_r(&now, &local);
  char path[1400];
  std::snprintf(path, sizeof path, imagePathPattern_, local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                local.tm_hour, local.tm_min, local.tm_sec, static_cast<long>(page_index));
  ++page_index;

  FILE* file = std::fopen(path, "wb+");
  if (file == nullptr) {
    std::fprintf(stderr, "KelvoPrinter::saveImage: unable to open the file %s\n", path);
    return;
  }

  const bool eightBit = bitsPerPixel == 8;
  const int w = static_cast<int>(width);
  const int h = static_cast<int>(height);
  const int rowSize = eightBit ? (w + 3) / 4 * 4 : ((w + 7) / 8 + 3) / 4 * 4;
  const uint32_t dataOffset = eightBit ? 1078 : 62;
  const uint32_t imageSize = static_cast<uint32_t>(rowSize) * static_cast<uint32_t>(h);

  unsigned char head[54] = {};
  putLe16(head + 0, 0x4D42);
  putLe32(head + 2, dataOffset + imageSize);
  putLe32(head + 10, dataOffset);
  putLe32(head + 14, 40);
  putLe32(head + 18, static_cast<uint32_t>(w));
  putLe32(head + 22, static_cast<uint32_t>(h));
  putLe16(head + 26, 1);
  putLe16(head + 28, eightBit ? 8 : 1);
  putLe32(head + 34, imageSize);
  putLe32(head + 46, eightBit ? 256 : 0);
  putLe32(head + 50, eightBit ? 256 : 0);
  std::fwrite(head, sizeof head, 1, file);

  if (eightBit) {
    unsigned char palette[256 * 4];
    for (int i = 0; i < 256; ++i) {
      palette[4 * i] = palette[4 * i + 1] = palette[4 * i + 2] = static_cast<unsigned char>(i);
      palette[4 * i + 3] = 0;
    }
    std::fwrite(palette, sizeof palette, 1, file);
    // Rows go out as they lie in the buffer, unpadded and top row first: the
    // files are for a quick look at the bytes, and support tools read them so.
    std::fwrite(data, static_cast<size_t>(width) * height, 1, file);
  } else {
    const unsigned char palette[8] = {0, 0, 0, 0, 255, 255, 255, 0};
    std::fwrite(palette, sizeof palette, 1, file);
    unsigned char* row = static_cast<unsigned char*>(std::calloc(rowSize > 0 ? rowSize : 1, 1));
    for (long r = h - 1; row != nullptr && r >= 0; --r) {
      std::memset(row, 0, rowSize);
      const unsigned char* src = data + r * bytesPerLine;
      for (unsigned long x = 0; x < bytesPerLine && static_cast<long>(x / 8) < rowSize; ++x)
        if (src[x] == 0) row[x / 8] |= static_cast<unsigned char>(0x80 >> (x % 8));
      if (bytesPerLine % 8 != 0 && static_cast<long>((bytesPerLine - 1) / 8) < rowSize)
        row[(bytesPerLine - 1) / 8] |= static_cast<unsigned char>(0xFF >> (bytesPerLine % 8));
      std::fwrite(row, rowSize, 1, file);
    }
    std::free(row);
  }
  std::fclose(file);
}
