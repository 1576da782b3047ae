// The page entry of the printer: debug images, adjustment, transforms,
// halftoning, negative and frame, then the rendering of the processed page.
#include <sys/uio.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "printer/kelvo_printer.h"
#include "stencil/jv_image.h"
#include "stencil/jv_tattoo.h"
#include "support/kelvo_log.h"
#include "support/safe_files.h"

namespace {

// Every debug picture is named "kelvozpl-debug-<kind>-<job>-<pid>-<n>-<time>.bmp":
// unique to the job, the process and the page, and recognisable, so that only
// the driver's own pictures are ever removed.
const char kDebugPrefix[] = "kelvozpl-debug-";
const char kDebugSuffix[] = ".bmp";

// The last 64 pictures and 256 MB of them stay; older ones go first.
constexpr KelvoFileBudget kDebugBudget{64, 256ull << 20};
// How long a picture waits for other jobs writing theirs (a picture of the
// largest page takes well under a second to write).
constexpr double kDebugLockWait = 5;

bool isDebugPicture(const char* name) {
  const size_t length = std::strlen(name);
  return std::strncmp(name, kDebugPrefix, sizeof kDebugPrefix - 1) == 0 && length >= sizeof kDebugSuffix - 1 &&
         std::strcmp(name + length - (sizeof kDebugSuffix - 1), kDebugSuffix) == 0;
}

// Keeps what goes into a file name to letters, digits and a few marks: the tag
// comes from the job and must not reach another folder.
std::string fileNamePart(const std::string& text) {
  std::string out;
  for (char c : text.substr(0, 64)) out += (std::isalnum(static_cast<unsigned char>(c)) || c == '_') ? c : '_';
  return out.empty() ? "job" : out;
}

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

void KelvoPrinter::doPrintPackedImage(const unsigned char* rows, unsigned long bytesPerRow, unsigned long height,
                                      unsigned long width) {
  std::vector<unsigned char> page(width * height);
  for (unsigned long y = 0; y < height; ++y)
    for (unsigned long x = 0; x < width; ++x)
      page[y * width + x] = (rows[y * bytesPerRow + x / 8] >> (7 - x % 8)) & 1;
  doPrintImage(page.data(), width, height, width);
}

void KelvoPrinter::setDebugImages(bool on, const std::string& folder, const std::string& tag) {
  debugImages_ = on;
  debugFolder_ = folder.empty() || folder.back() == '/' ? folder : folder + "/";
  debugTag_ = fileNamePart(tag);
}

bool KelvoPrinter::printImage(unsigned char* data, unsigned long bytesPerLine, unsigned long height,
                              unsigned long width) {
  kelvoLogCommon(LogDebug, "printImage: Start processing image, input width: %zu, height: %zu, bytes per line: %zu",
                 width, height, bytesPerLine);
  size_t top = 0;
  size_t bottom = 0;
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

  if (debugImages_) saveImage(data, bytesPerLine, height, width, 8, "origin");

  writablePage_ = data;
  const bool processed = PageProcess(halftoneType_, data, static_cast<int>(bytesPerLine), static_cast<int>(width),
                                     static_cast<int>(height));
  writablePage_ = nullptr;
  if (!processed || (!stencilHeld_ && (pimage == nullptr || !pimage->IsValid()))) {
    // An image left empty by a failed creation has no pixels to save or print.
    kelvoLogCommon(LogError, "printImage: pimage is NULL, unable to print the image");
    return false;
  }

  // The trimmed range only feeds the log: the printer always gets the whole
  // processed page.
  const size_t adjustedHeight = bottom > top ? bottom - top : height;
  kelvoLogCommon(LogDebug,
                 "printImage: Processed image information - width: %zu, height: %zu, bytes per line: %zu, number "
                 "of top blank lines: %zu, number of bottom blank lines: %zu, adjusted height: %zu",
                 width, height, bytesPerLine, top, bottom, adjustedHeight);

  if (debugImages_) saveImage(pimage->GetBits(0), pimage->GetEffWidth(), pimage->GetHeight(), pimage->GetWidth(), 8,
                              "dithered");

  kelvoLogCommon(LogDebug, "printImage: Starting to print the processed image");
  printProcessed();
  kelvoLogCommon(LogDebug, "printImage: Image processing completed");
  return true;
}

void KelvoPrinter::printProcessed() {
  if (stencilHeld_) {
    doPrintImage(stencilBits_, static_cast<unsigned long>(stencilWidth_), static_cast<unsigned long>(stencilHeight_),
                 static_cast<unsigned long>(stencilWidth_));
  } else if (pimage->GetNumColors() == 2) {
    doPrintPackedImage(pimage->GetBits(0), pimage->GetEffWidth(), pimage->GetHeight(), pimage->GetWidth());
  } else {
    doPrintImage(pimage->GetBits(0), pimage->GetEffWidth(), pimage->GetHeight(), pimage->GetWidth());
  }
}

PaletteImage* KelvoPrinter::processedImage() {
  if (stencilHeld_) {
    stencilHeld_ = false;
    const int w = stencilWidth_, h = stencilHeight_;
    pimage = stencilImage_.CreateFromArray(stencilBits_, w, h, 8, w, false) ? &stencilImage_ : nullptr;
    // Negative printing inverts a stencil image's row padding as well.
    if (pimage != nullptr && negativePrint_)
      for (int y = 0; y < h; ++y) std::memset(pimage->GetBits(y) + w, 0xFF, pimage->GetEffWidth() - w);
  }
  return pimage;
}

bool KelvoPrinter::PageProcess(DitherType type, const unsigned char* data, int stride, int width, int height) {
  pimage = nullptr;
  stencilHeld_ = false;
  useJVDithering_ = halftoneType_ == Tattoo || halftoneType_ == Tattoo_X8;
  kelvoLogCommon(LogDebug, "PageProcess: JV dithering is %s", useJVDithering_ ? "enabled" : "disabled");

  // A stencil page without transforms goes to the chain straight from the
  // raster, its rows unpadded first where they are not: no page image.
  const bool transformed = brightness_ != 0 || contrast_ != 0 || rotate180Print_ || mirrorPrint_;
  if (useJVDithering_ && !transformed) {
    if (stride == width) return stencilPage(data, data == writablePage_ ? writablePage_ : nullptr, width, height);
    // Padded rows: unpadded into the stencil's own copy, which the chain
    // then makes the stencil in.
    stencilOut_ = JVImage(width, height, JV_IMG_GRAY);
    for (int y = 0; y < height; ++y)
      std::memcpy(stencilOut_.data + static_cast<size_t>(y) * width, data + static_cast<size_t>(y) * stride,
                  static_cast<size_t>(width));
    return stencilPage(stencilOut_.data, stencilOut_.data, width, height);
  }
  if (!workImage_.CreateFromArray(const_cast<unsigned char*>(data), width, height, 8, stride, false)) {
    kelvoLogCommon(LogCrit, "image.CreateFromArray with grey failed!");
    return false;
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
    // The chain takes the page without row padding; it is made in this
    // copy, which is then kept as the stencil. (A turn that ran out of
    // memory leaves no image.)
    if (!workImage_.IsValid()) return false;
    stencilOut_ = JVImage(width, height, JV_IMG_GRAY);
    for (int y = 0; y < height; ++y)
      std::memcpy(stencilOut_.data + static_cast<size_t>(y) * width, workImage_.GetBits(y), static_cast<size_t>(width));
    workImage_.Destroy();  // the chain needs only its own copy
    return stencilPage(stencilOut_.data, stencilOut_.data, width, height);
  }
  {
    // The type goes to Dither unchanged: the method numbers sit one place off
    // the names ("FloydSteinberg" runs the ordered dither and so on), and
    // printers in the field have been tuned to that.
    // Either fails only when memory runs out; the page left behind is not
    // the halftone.
    if (!workImage_.Dither(type)) return false;
    // The frame and the debug picture draw on 8-bit pages; otherwise a
    // printer that takes packed rows gets the halftone's 1-bit rows as they
    // are, and the page is not widened only to be packed again.
    if ((!takesPackedRows() || antiWrinkle_ != 0 || debugImages_) && !workImage_.IncreaseBpp(8)) return false;
    pimage = &workImage_;
    kelvoLogCommon(LogDebug, "PageProcess: Applied default dithering (%u colours)", pimage->GetNumColors());
  }

  return finishPage();
}

bool KelvoPrinter::stencilPage(const unsigned char* gray, unsigned char* writable, int width, int height) {
  // The guarded chain gives the chain's bytes for every page and also
  // finishes on blank and two-level pages.
  const bool x8 = halftoneType_ == Tattoo_X8;
  if (writable != nullptr) {
    if (!jvTattooStencilInPlace(writable, width, height, x8)) return false;
    stencilBits_ = writable;
  } else {
    stencilOut_ = jvTattooStencilOfGray(gray, width, height, x8);
    if (stencilOut_.byteCount() == 0) return false;
    stencilBits_ = stencilOut_.data;
  }
  stencilWidth_ = width;
  stencilHeight_ = height;
  kelvoLogCommon(LogDebug, "PageProcess: Applied JV dithering, width %d", width);
  if (antiWrinkle_ == 0 && !debugImages_) {
    // Printed from where the chain made it: no page-sized copy into an image.
    if (negativePrint_) {
      kelvoLogCommon(LogDebug, "PageProcess: Inverting the image for negative print");
      const size_t n = static_cast<size_t>(width) * static_cast<size_t>(height);
      for (size_t i = 0; i < n; ++i) stencilBits_[i] = static_cast<unsigned char>(~stencilBits_[i]);
    }
    stencilHeld_ = true;
    return true;
  }
  if (!stencilImage_.CreateFromArray(stencilBits_, width, height, 8, width, false)) {
    kelvoLogCommon(LogError, "PageProcess: Failed to create a new PaletteImage from JV dithered data");
    return false;
  }
  pimage = &stencilImage_;
  return finishPage();
}

bool KelvoPrinter::finishPage() {
  kelvoLogCommon(LogDebug, "PageProcess: negativePrint_ %d", negativePrint_ ? 1 : 0);
  if (negativePrint_) {
    kelvoLogCommon(LogDebug, "PageProcess: Inverting the image for negative print");
    if (useJVDithering_) {
      pimage->Negative();  // 0 and 255 trade places
    } else if (pimage->GetNumColors() == 2) {
      // 1-bit rows: every bit flips; bits past the page are never printed.
      const uint32_t rowBytes = pimage->GetEffWidth();
      for (uint32_t y = 0; y < pimage->GetHeight(); ++y) {
        unsigned char* row = pimage->GetBits(y);
        for (uint32_t i = 0; i < rowBytes; ++i) row[i] = static_cast<unsigned char>(~row[i]);
      }
    } else {
      // Halftoned pixels are 0 (paper) and 1 (dot): swap the two.
      const long w = static_cast<long>(pimage->GetWidth());
      for (long y = 0; y < static_cast<long>(pimage->GetHeight()); ++y) {
        unsigned char* row = pimage->GetBits(static_cast<unsigned>(y));
        for (long x = 0; x < w; ++x) row[x] = row[x] == 0 ? 1 : 0;
      }
    }
  }
  if (antiWrinkle_ != 0) EnableAntiWrink(*pimage);
  return pimage->IsValid();
}

void KelvoPrinter::saveImage(const unsigned char* data, unsigned long bytesPerLine, unsigned long height,
                             unsigned long width, unsigned short bitsPerPixel, const char* kind) {
  const time_t now = std::time(nullptr);
  struct tm local {};
  localtime_r(&now, &local);
  char name[256];
  std::snprintf(name, sizeof name, "%s%s-%s-%ld-%llu-%04d%02d%02d%02d%02d%02d%s", kDebugPrefix, kind,
                debugTag_.c_str(), static_cast<long>(getpid()), static_cast<unsigned long long>(pageIndex_),
                local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                kDebugSuffix);
  ++pageIndex_;
  const std::string path = debugFolder_ + name;

  const bool eightBit = bitsPerPixel == 8;
  const int w = static_cast<int>(width);
  const int h = static_cast<int>(height);
  const int rowSize = eightBit ? (w + 3) / 4 * 4 : ((w + 7) / 8 + 3) / 4 * 4;
  const uint32_t dataOffset = eightBit ? 1078 : 62;
  const uint32_t imageSize = static_cast<uint32_t>(rowSize) * static_cast<uint32_t>(h);
  const uint64_t fileBytes = eightBit ? dataOffset + static_cast<uint64_t>(width) * height
                                      : dataOffset + static_cast<uint64_t>(rowSize) * height;

  // Held until the picture is written: jobs saving pictures at the same time
  // make room in turn, each counting the others' pictures whole.
  const KelvoFolderLock lock(debugFolder_, kDebugLockWait);
  if (lock.busy()) {
    kelvoLogCommon(LogWarning, "Debug picture %s not saved: another job held the folder for %g s", path.c_str(),
                   kDebugLockWait);
    return;
  }
  if (!kelvoMakeRoom(debugFolder_, isDebugPicture, kDebugBudget, 1, fileBytes)) {
    kelvoLogCommon(LogWarning, "Debug picture %s not saved: it does not fit the %llu MB kept for debug pictures",
                   path.c_str(), static_cast<unsigned long long>(kDebugBudget.maxBytes >> 20));
    return;
  }
  const int fd = kelvoCreateNewFile(path, 0600);
  if (fd < 0) {
    kelvoLogCommon(LogWarning, "Debug picture not saved: unable to create %s: %s", path.c_str(),
                   std::strerror(errno));
    return;
  }

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

  bool written;
  if (eightBit) {
    unsigned char palette[256 * 4];
    for (int i = 0; i < 256; ++i) {
      palette[4 * i] = palette[4 * i + 1] = palette[4 * i + 2] = static_cast<unsigned char>(i);
      palette[4 * i + 3] = 0;
    }
    // Rows go out as they lie in the buffer, unpadded and top row first: the
    // files are for a quick look at the bytes, and support tools read them so.
    const struct iovec parts[3] = {{head, sizeof head},
                                   {palette, sizeof palette},
                                   {const_cast<unsigned char*>(data), static_cast<size_t>(width) * height}};
    written = kelvoWriteAllv(fd, parts, 3);
  } else {
    unsigned char palette[8] = {0, 0, 0, 0, 255, 255, 255, 0};
    std::vector<unsigned char> rows(static_cast<size_t>(rowSize) * (h > 0 ? h : 0), 0);
    for (long r = h - 1; r >= 0; --r) {
      unsigned char* row = rows.data() + static_cast<size_t>(h - 1 - r) * rowSize;
      const unsigned char* src = data + r * bytesPerLine;
      for (unsigned long x = 0; x < bytesPerLine && static_cast<long>(x / 8) < rowSize; ++x)
        if (src[x] == 0) row[x / 8] |= static_cast<unsigned char>(0x80 >> (x % 8));
      if (bytesPerLine % 8 != 0 && static_cast<long>((bytesPerLine - 1) / 8) < rowSize)
        row[(bytesPerLine - 1) / 8] |= static_cast<unsigned char>(0xFF >> (bytesPerLine % 8));
    }
    const struct iovec parts[3] = {{head, sizeof head}, {palette, sizeof palette}, {rows.data(), rows.size()}};
    written = kelvoWriteAllv(fd, parts, 3);
  }
  if (!written)
    kelvoLogCommon(LogWarning, "Debug picture %s is incomplete: %s", path.c_str(), std::strerror(errno));
  close(fd);
}
