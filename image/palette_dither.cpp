#include <cstdint>
#include <cstring>

#include "image/palette_image.h"

namespace {

struct KernelCell {
  int dx;
  int dy;
  int weight;
};

struct Kernel {
  const KernelCell* cells;
  int count;
  int64_t divisor;
};

// Cells in the order their shares are added; the order matters because each
// share is clamped as soon as it is written.
const KernelCell kBurkes[] = {{1, 0, 8},  {2, 0, 4},  {-2, 1, 2}, {-1, 1, 4},
                              {0, 1, 8},  {1, 1, 4},  {2, 1, 2}};
const KernelCell kStucki[] = {{1, 0, 8},  {2, 0, 4},  {-2, 1, 2}, {-1, 1, 4}, {0, 1, 8}, {1, 1, 4},
                              {2, 1, 2},  {-2, 2, 1}, {-1, 2, 2}, {0, 2, 4},  {1, 2, 2}, {2, 2, 1}};
const KernelCell kJarvis[] = {{1, 0, 7},  {2, 0, 5},  {-2, 1, 3}, {-1, 1, 5}, {0, 1, 7}, {1, 1, 5},
                              {2, 1, 3},  {-2, 2, 1}, {-1, 2, 3}, {0, 2, 5},  {1, 2, 3}, {2, 2, 1}};
const KernelCell kSierra[] = {{1, 0, 5},  {2, 0, 3},  {-2, 1, 2}, {-1, 1, 4}, {0, 1, 5},
                              {1, 1, 4},  {2, 1, 2},  {-1, 2, 2}, {0, 2, 3},  {1, 2, 2}};
// The same-row neighbour gets nothing, as in the published kernel.
const KernelCell kStevensonArce[] = {{2, 0, 32},  {-3, 1, 12}, {-1, 1, 26}, {1, 1, 30}, {3, 1, 16},
                                     {-2, 2, 12}, {0, 2, 26},  {2, 2, 12},  {-3, 3, 5}, {-1, 3, 12},
                                     {1, 3, 12},  {3, 3, 5}};
const KernelCell kFloydSteinberg[] = {{1, 0, 7}, {-1, 1, 3}, {0, 1, 5}, {1, 1, 1}};

template <size_t N>
Kernel makeKernel(const KernelCell (&cells)[N], int64_t divisor) {
  return Kernel{cells, static_cast<int>(N), divisor};
}

Kernel kernelFor(long method) {
  switch (method) {
    case 2: return makeKernel(kBurkes, 32);
    case 3: return makeKernel(kStucki, 42);
    case 4: return makeKernel(kJarvis, 48);
    case 5: return makeKernel(kSierra, 32);
    case 6: return makeKernel(kStevensonArce, 200);
    default: return makeKernel(kFloydSteinberg, 16);
  }
}

const int kOrdered4x4[4][4] = {
    {0, 8, 2, 10},
    {12, 4, 14, 6},
    {3, 11, 1, 9},
    {15, 7, 13, 5},
};

}  // namespace

bool PaletteImage::Dither(long method) {
  if (dib == nullptr) return false;
  if (header.biBitCount == 1) return true;

  PaletteImage out;
  out.CopyInfo(*this);
  out.Create(GetWidth(), GetHeight(), 1, info.imageType);
  if (!out.IsValid()) {
    std::memcpy(info.lastError, out.info.lastError, sizeof info.lastError);
    return false;
  }

  const long width = header.biWidth;
  const long height = header.biHeight;

  switch (method) {
    case 0:
      for (long y = 0; y < height; ++y)
        for (long x = 0; x < width; ++x) out.SetPixelIndex(x, y, BlindGetPixelIndex(x, y) > 128 ? 255 : 0);
      break;

    case 1: {
      const unsigned char levels[2] = {0, 1};
      for (long y = 0; y < height; ++y) {
        for (long x = 0; x < width; ++x) {
          const int d = BlindGetPixelIndex(x, y) * 16 / 255;
          const int r = d % 16;
          const int o = d / 16;  // 1 only for level 255, where r is 0
          const bool up = kOrdered4x4[y & 3][x & 3] < r;
          out.BlindSetPixelIndex(x, y, levels[up ? o + 1 : o]);
        }
      }
      break;
    }

    case 7: {
      const int order = 4;
      uint8_t table[1 << (2 * order)];
      for (int i = 0; i < (1 << (2 * order)); ++i) {
        int a = i / order;
        int b = i % order;
        int t = 0;
        for (int k = 0; k < order; ++k) {
          t = (((t << 1) | ((a & 1) ^ (b & 1))) << 1) | (b & 1);
          a >>= 1;
          b >>= 1;
        }
        table[i] = static_cast<uint8_t>(t);
      }
      const int shift = 8 - 2 * order > 0 ? 8 - 2 * order : 0;
      for (long y = 0; y < height; ++y)
        for (long x = 0; x < width; ++x)
          out.SetPixelIndex(x, y, (BlindGetPixelIndex(x, y) >> shift) > table[(x % 4) + 4 * (y % 4)] ? 1 : 0);
      break;
    }

    default: {
      const Kernel k = kernelFor(method);
      for (long y = 0; y < height; ++y) {
        for (long x = 0; x < width; ++x) {
          const int64_t level = BlindGetPixelIndex(x, y);
          int64_t error;
          if (level > 128) {
            out.SetPixelIndex(x, y, 1);
            error = level - 255;
          } else {
            out.SetPixelIndex(x, y, 0);
            error = level;
          }
          // Each share is truncated on its own, so a little of the error is
          // lost on every pixel; the printed texture depends on that.
          for (int c = 0; c < k.count; ++c) {
            const KernelCell& cell = k.cells[c];
            int32_t v = static_cast<int32_t>(GetPixelIndex(x + cell.dx, y + cell.dy) + error * cell.weight / k.divisor);
            if (v < 0) v = 0;
            if (v > 255) v = 255;
            SetPixelIndex(x + cell.dx, y + cell.dy, static_cast<unsigned char>(v));
          }
        }
      }
      break;
    }
  }

  out.SetPaletteColor(0, 0, 0, 0, 0);
  out.SetPaletteColor(1, 255, 255, 255, 0);
  Transfer(out);
  return true;
}
