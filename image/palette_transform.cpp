#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <vector>

#include "image/palette_image.h"
#include "image/pixel_rows.h"

namespace {

const long kMaxSide = 2147483647;  // biWidth and biHeight are signed 32-bit

}  // namespace

bool PaletteImage::Light(int brightness, int contrast) {
  if (dib == nullptr) return false;

  // Single precision and truncation are part of the output: a table computed
  // any other way moves some levels by one and changes the printed dots.
  const float c = static_cast<float>(static_cast<int64_t>(contrast) + 100) / 100.0f;
  const int64_t b = static_cast<int64_t>(brightness) + 128;
  unsigned char table[256];
  for (int i = 0; i < 256; ++i) {
    const float v = static_cast<float>(i - 128) * c + static_cast<float>(b) + 0.5f;
    // Clamp before converting so that far out-of-range values stay defined.
    if (v >= 255.0f)
      table[i] = 255;
    else if (v > 0.0f)
      table[i] = static_cast<unsigned char>(static_cast<int>(v));
    else
      table[i] = 0;
  }
  return Lut(table);
}

bool PaletteImage::Lut(unsigned char* table) {
  if (dib == nullptr || table == nullptr) return false;
  const long width = header.biWidth;
  const long height = header.biHeight;
  if (header.biBitCount == 8) {
    for (long y = 0; y < height; ++y) {
      uint8_t* row = info.bits + static_cast<size_t>(info.effWidth) * static_cast<size_t>(y);
      for (long x = 0; x < width; ++x) row[x] = table[row[x]];
    }
    return true;
  }
  for (long y = 0; y < height; ++y)
    for (long x = 0; x < width; ++x) BlindSetPixelIndex(x, y, table[BlindGetPixelIndex(x, y)]);
  return true;
}

bool PaletteImage::Rotate180(PaletteImage* dst) {
  if (dib == nullptr) return false;

  // The result is 8 bpp whatever the source depth; later steps expect that.
  PaletteImage work;
  work.CopyInfo(*this);
  work.Create(GetWidth(), GetHeight(), 8, info.imageType);
  if (work.IsValid()) {
    work.SetPalette(GetPalette(), GetNumColors());
    const long width = header.biWidth;
    const long height = header.biHeight;
    std::vector<uint8_t> levels(static_cast<size_t>(width));
    for (long y = 0; y < height; ++y) {
      kelvoRowToLevels(info.bits + static_cast<size_t>(info.effWidth) * static_cast<size_t>(y), header.biBitCount,
                       width, levels.data());
      uint8_t* dst = work.GetBits(static_cast<unsigned int>(height - 1 - y));
      for (long x = 0; x < width; ++x) dst[width - 1 - x] = levels[static_cast<size_t>(x)];
    }
  }
  // A failed working image still moves in: the target ends empty, carrying
  // the creation's error text.
  (dst != nullptr ? *dst : *this).Transfer(work);
  return true;
}

void PaletteImage::Mirror() {
  if (dib == nullptr) return;

  const long width = header.biWidth;
  const long height = header.biHeight;
  const bool colour = header.biBitCount == 24;
  PaletteImage work;
  work.CopyInfo(*this);
  work.Create(GetWidth(), GetHeight(), colour ? 24 : 8, info.imageType);
  if (work.IsValid()) {
    work.SetPalette(GetPalette(), GetNumColors());
    if (header.biBitCount == 8) {
      const long last = width - 1;
      const uint8_t* src = info.bits;
      uint8_t* out = work.info.bits;
      for (long y = 0; y < height; ++y) {
        for (long j = 0; j <= last; ++j) out[j] = src[last - j];
        src += info.effWidth;
        out += info.effWidth;
      }
    } else {
      // Only 8-bit pages reach this from the pipeline. Other depths are
      // mirrored pixel by pixel: packed depths widen to 8 bpp like Rotate180,
      // 24 bpp keeps its colours.
      for (long y = 0; y < height; ++y) {
        for (long x = 0; x < width; ++x) {
          if (colour)
            work.BlindSetPixelColor(width - 1 - x, y, BlindGetPixelColor(x, y));
          else
            work.BlindSetPixelIndex(width - 1 - x, y, BlindGetPixelIndex(x, y));
        }
      }
    }
  }
  Transfer(work);
}

void PaletteImage::Negative() {
  if (dib == nullptr) return;
  // Row padding is inverted too; the emitter sends whole rows.
  for (uint32_t i = 0; i < header.biSizeImage; ++i) info.bits[i] = static_cast<uint8_t>(~info.bits[i]);
}

bool PaletteImage::IncreaseBpp(unsigned int nbit) {
  if (dib == nullptr) return false;
  if (nbit != 4 && nbit != 8 && nbit != 24) return false;
  if (header.biBitCount == nbit) return true;
  if (header.biBitCount > nbit) return false;

  PaletteImage work;
  work.CopyInfo(*this);
  work.Create(GetWidth(), GetHeight(), nbit, info.imageType);
  if (!work.IsValid()) {
    std::memcpy(info.lastError, work.info.lastError, sizeof info.lastError);
    return false;
  }
  if (nbit != 24) work.SetPalette(GetPalette(), GetNumColors());

  const long width = header.biWidth;
  const long height = header.biHeight;
  if (nbit == 8) {
    for (long y = 0; y < height; ++y)
      kelvoRowToLevels(info.bits + static_cast<size_t>(info.effWidth) * static_cast<size_t>(y), header.biBitCount,
                       width, work.GetBits(static_cast<unsigned int>(y)));
    Transfer(work);
    return true;
  }
  for (long y = 0; y < height; ++y) {
    for (long x = 0; x < width; ++x) {
      if (nbit == 24)
        work.BlindSetPixelColor(x, y, BlindGetPixelColor(x, y));
      else
        work.BlindSetPixelIndex(x, y, BlindGetPixelIndex(x, y));
    }
  }
  Transfer(work);
  return true;
}

bool PaletteImage::Expand(long left, long top, long right, long bottom, tagRGBQUAD canvas) {
  if (dib == nullptr) return false;
  if (left < 0 || top < 0 || right < 0 || bottom < 0) return false;

  const long width = header.biWidth;
  const long height = header.biHeight;
  if (left > kMaxSide || top > kMaxSide || right > kMaxSide || bottom > kMaxSide ||
      width + left + right > kMaxSide || height + top + bottom > kMaxSide) {
    std::strcpy(info.lastError, "IMAGE_MAX_MEMORY exceeded");
    return false;
  }
  const long newWidth = width + left + right;
  const long newHeight = height + top + bottom;

  PaletteImage work;
  work.CopyInfo(*this);
  work.Create(static_cast<unsigned int>(newWidth), static_cast<unsigned int>(newHeight), header.biBitCount,
              info.imageType);
  if (!work.IsValid()) {
    std::memcpy(info.lastError, work.info.lastError, sizeof info.lastError);
    return false;
  }
  // The size test of Create lets width x height wrap; margins must never
  // turn a valid page into one whose block is smaller than its rows.
  if (static_cast<uint64_t>(work.info.effWidth) * static_cast<uint64_t>(newHeight) != work.header.biSizeImage) {
    std::strcpy(info.lastError, "IMAGE_MAX_MEMORY exceeded");
    return false;
  }
  work.SetPalette(GetPalette(), header.biClrUsed);

  const int bpp = header.biBitCount;
  if (bpp == 1 || bpp == 4) {
    const unsigned char fill = work.GetNearestIndex(canvas);
    for (long y = 0; y < newHeight; ++y) {
      for (long x = 0; x < newWidth; ++x) {
        const bool inside = x >= left && x < left + width && y >= bottom && y < bottom + height;
        work.SetPixelIndex(x, y, inside ? GetPixelIndex(x - left, y - bottom) : fill);
      }
    }
  } else {
    const long bytesPerPixel = bpp / 8;
    if (bpp == 8) {
      std::memset(work.info.bits, work.GetNearestIndex(canvas), work.header.biSizeImage);
    } else {
      for (long y = 0; y < newHeight; ++y) {
        uint8_t* row = work.GetBits(static_cast<unsigned int>(y));
        for (long x = 0; x < newWidth; ++x) {
          row[3 * x] = canvas.rgbBlue;
          row[3 * x + 1] = canvas.rgbGreen;
          row[3 * x + 2] = canvas.rgbRed;
        }
      }
    }
    // The bottom margin comes first in memory, the top margin last.
    for (long k = 0; k < height; ++k)
      std::memcpy(work.GetBits(static_cast<unsigned int>(bottom + k)) + left * bytesPerPixel,
                  GetBits(static_cast<unsigned int>(k)), static_cast<size_t>(bytesPerPixel * width));
  }
  Transfer(work);
  return true;
}

void PaletteImage::MakeCenter(int width) {
  if (dib == nullptr) return;
  const long oldWidth = header.biWidth;
  if (oldWidth >= width) return;

  PaletteImage work;
  work.CopyInfo(*this);
  work.Create(static_cast<unsigned int>(width), GetHeight(), 8, info.imageType);
  if (work.IsValid()) {
    work.SetPalette(GetPalette(), GetNumColors());
    const long offset = (width - oldWidth) / 2;
    const long height = header.biHeight;
    for (long y = 0; y < height; ++y)
      for (long x = 0; x < oldWidth; ++x) work.SetPixelIndex(x + offset, y, BlindGetPixelIndex(x, y));
  }
  Transfer(work);
}

void PaletteImage::DrawLine(int startX, int endX, int startY, int endY, unsigned char index) {
  if (dib == nullptr) return;

  const long dx = std::labs(static_cast<long>(endX) - startX);
  const long dy = std::labs(static_cast<long>(endY) - startY);
  const long stepX = endX >= startX ? 1 : -1;
  const long stepY = endY >= startY ? 1 : -1;
  // The major axis moves every pixel, the minor one whenever the accumulator
  // reaches the denominator.
  const bool xMajor = dx >= dy;
  const long denominator = xMajor ? dx : dy;
  const long increment = xMajor ? dy : dx;
  long accumulator = denominator / 2;
  long x = startX;
  long y = startY;
  for (long n = 0; n <= denominator; ++n) {
    SetPixelIndex(x, y, index);
    accumulator += increment;
    if (accumulator >= denominator) {
      accumulator -= denominator;
      if (xMajor)
        y += stepY;
      else
        x += stepX;
    }
    if (xMajor)
      x += stepX;
    else
      y += stepY;
  }
}
