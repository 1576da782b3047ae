#include <cstdint>
#include <cstring>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "image/palette_barcode.h"
#include "image/palette_image.h"
#include "image/pixel_rows.h"

namespace {

struct KernelCell {
  int dx;
  int dy;
  int weight;
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

const int kOrdered4x4[4][4] = {
    {0, 8, 2, 10},
    {12, 4, 14, 6},
    {3, 11, 1, 9},
    {15, 7, 13, 5},
};

// Kernels reach at most 3 columns to either side and 3 rows down; the
// vector windows below read and write up to 5 cells past the right edge.
const long kMargin = 8;
const int kWindowRows = 4;

// The levels being dithered, a window of four rows padded on each side.
// Diffusion shares that fall off the page land in the padding or in rows
// past the last one and are never read back, which is exactly what happens
// to them on the image (their writes are ignored there).
class LevelWindow {
 public:
  LevelWindow(const uint8_t* bits, uint32_t stride, int bpp, long width, long height)
      : bits_(bits), stride_(stride), bpp_(bpp), width_(width), height_(height),
        rowSize_(width + 2 * kMargin), cells_(static_cast<size_t>(rowSize_) * kWindowRows) {
    for (long r = 0; r < kWindowRows; ++r) load(r);
  }
  // Row y + dy while row y is being dithered, at column 0.
  uint8_t* row(long y, long dy) { return &cells_[static_cast<size_t>((y + dy) % kWindowRows) * rowSize_ + kMargin]; }
  // Row y is finished: its slot takes row y + 4.
  void advance(long y) { load(y + kWindowRows); }
  // What the diffusion stores: 4-bit pixels keep only their low four bits,
  // and pixels of a 24-bit image have no index at all.
  uint8_t storeMask() const { return bpp_ == 8 ? 0xFF : bpp_ == 4 ? 0x0F : 0x00; }

 private:
  void load(long y) {
    uint8_t* dst = &cells_[static_cast<size_t>(y % kWindowRows) * rowSize_];
    std::memset(dst, 0, static_cast<size_t>(rowSize_));
    if (y >= height_) return;
    kelvoRowToLevels(bits_ + static_cast<size_t>(stride_) * static_cast<size_t>(y), bpp_, width_, dst + kMargin);
  }

  const uint8_t* bits_;
  uint32_t stride_;
  int bpp_;
  long width_;
  long height_;
  long rowSize_;
  std::vector<uint8_t> cells_;
};

inline int clampLevel(int v) { return v < 0 ? 0 : (v > 255 ? 255 : v); }

// One error-diffusion kernel over the page; `emit` receives each finished
// row as one 0/1 byte a pixel. The shares depend only on the pixel's level,
// so they are tabled once: error * weight / divisor, truncated toward zero,
// exactly the integer arithmetic of the kernel. Every cell still gets its
// shares one at a time, each clamped as it lands, in pixel order.
//
// The two cells to the right live in registers. Each row below is a window
// of eight cells (x - 3 .. x + 4) in one vector: a pixel adds its shares to
// all eight lanes at once (a zero share leaves a stored level as it is),
// then the leftmost cell, which no later pixel reaches, goes back to memory.
template <int Below, size_t N, typename Emit>
void diffuse(LevelWindow& win, const KernelCell (&cells)[N], int64_t divisor, long width, long height, Emit emit) {
  struct Shares {
    int right1;
    int right2;
#if defined(__SSE2__)
    __m128i below[Below];
#else
    int16_t below[Below][8];
#endif
  };
  std::vector<Shares> table(256);
  for (int level = 0; level < 256; ++level) {
    const int64_t error = level > 128 ? level - 255 : level;
    int16_t lanes[Below][8] = {};
    Shares& t = table[static_cast<size_t>(level)];
    t.right1 = t.right2 = 0;
    for (const KernelCell& c : cells) {
      const int share = static_cast<int>(error * c.weight / divisor);
      if (c.dy == 0)
        (c.dx == 1 ? t.right1 : t.right2) = share;
      else
        lanes[c.dy - 1][c.dx + 3] = static_cast<int16_t>(share);
    }
#if defined(__SSE2__)
    for (int r = 0; r < Below; ++r) t.below[r] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(lanes[r]));
#else
    std::memcpy(t.below, lanes, sizeof lanes);
#endif
  }

  const uint8_t mask = win.storeMask();
  std::vector<uint8_t> out(static_cast<size_t>(width));
  for (long y = 0; y < height; ++y) {
    const uint8_t* cur = win.row(y, 0);
    uint8_t* below[Below];
    for (int r = 0; r < Below; ++r) below[r] = win.row(y, r + 1);
    int here = cur[0];
    int next = cur[1];
#if defined(__SSE2__)
    const __m128i zero = _mm_setzero_si128();
    const __m128i top = _mm_set1_epi16(255);
    const __m128i keep = _mm_set1_epi16(mask);
    __m128i window[Below];
    for (int r = 0; r < Below; ++r)
      window[r] = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(below[r] - 3)), zero);
#endif
    for (long x = 0; x < width; ++x) {
      const int level = here;
      out[static_cast<size_t>(x)] = level > 128 ? 1 : 0;
      const Shares& s = table[static_cast<size_t>(level)];
      here = clampLevel(next + s.right1) & mask;
      next = clampLevel(cur[x + 2] + s.right2) & mask;
#if defined(__SSE2__)
      for (int r = 0; r < Below; ++r) {
        __m128i w = _mm_add_epi16(window[r], s.below[r]);
        w = _mm_and_si128(_mm_max_epi16(_mm_min_epi16(w, top), zero), keep);
        below[r][x - 3] = static_cast<uint8_t>(_mm_cvtsi128_si32(w));
        window[r] = _mm_insert_epi16(_mm_srli_si128(w, 2), below[r][x + 5], 7);
      }
#else
      for (int r = 0; r < Below; ++r)
        for (int lane = 0; lane < 8; ++lane) {
          uint8_t& cell = below[r][x - 3 + lane];
          cell = static_cast<uint8_t>(clampLevel(cell + s.below[r][lane]) & mask);
        }
#endif
    }
#if defined(__SSE2__)
    // The window's last eight cells, x = width - 3 .. width + 4.
    for (int r = 0; r < Below; ++r)
      _mm_storel_epi64(reinterpret_cast<__m128i*>(below[r] + width - 3), _mm_packus_epi16(window[r], zero));
#endif
    emit(y, out.data());
    win.advance(y);
  }
}

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
  const int bpp = header.biBitCount;
  // Each finished row of 0/1 bytes goes into the 1-bit image.
  auto emit = [&out](long y, const uint8_t* row) {
    kelvoPackNonZero(row, static_cast<size_t>(out.header.biWidth), out.GetBits(static_cast<unsigned>(y)));
  };
  std::vector<uint8_t> levels(static_cast<size_t>(width));
  std::vector<uint8_t> row(static_cast<size_t>(width));
  auto levelsOf = [&](long y) {
    kelvoRowToLevels(info.bits + static_cast<size_t>(info.effWidth) * static_cast<size_t>(y), bpp, width,
                     levels.data());
    return levels.data();
  };

  switch (method) {
    case 0:
      if (bpp == 8) {
        for (long y = 0; y < height; ++y)
          kelvoPackAbove128(info.bits + static_cast<size_t>(info.effWidth) * static_cast<size_t>(y),
                            static_cast<size_t>(width), out.GetBits(static_cast<unsigned>(y)));
        break;
      }
      for (long y = 0; y < height; ++y) {
        const uint8_t* l = levelsOf(y);
        for (long x = 0; x < width; ++x) row[x] = l[x] > 128 ? 1 : 0;
        emit(y, row.data());
      }
      break;

    case 1: {
      // d = level * 16 / 255, r = d mod 16, o = d / 16; the output is the
      // level table {0, 1} at o + 1 when M < r, else at o. Only level 255
      // has o = 1 (and r = 0), so it always gives 1.
      uint8_t rank[256];
      for (int level = 0; level < 256; ++level) rank[level] = static_cast<uint8_t>(level * 16 / 255 % 16);
      for (long y = 0; y < height; ++y) {
        const uint8_t* l = levelsOf(y);
        const int* m = kOrdered4x4[y & 3];
        for (long x = 0; x < width; ++x) row[x] = (l[x] == 255 || m[x & 3] < rank[l[x]]) ? 1 : 0;
        emit(y, row.data());
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
      for (long y = 0; y < height; ++y) {
        const uint8_t* l = levelsOf(y);
        const uint8_t* t = table + 4 * (y % 4);
        for (long x = 0; x < width; ++x) row[x] = (l[x] >> shift) > t[x % 4] ? 1 : 0;
        emit(y, row.data());
      }
      break;
    }

    case 10:
      // "Barcode and Text": image/palette_barcode.h.
      kelvoBarcodeTextHalftone(
          width, height,
          [&](long y, uint8_t* dst) {
            kelvoRowToLevels(info.bits + static_cast<size_t>(info.effWidth) * static_cast<size_t>(y), bpp, width, dst);
          },
          emit);
      break;

    default: {
      // Each share is truncated on its own, so a little of the error is
      // lost on every pixel; the printed texture depends on that.
      LevelWindow win(info.bits, info.effWidth, bpp, width, height);
      switch (method) {
        case 2: diffuse<1>(win, kBurkes, 32, width, height, emit); break;
        case 3: diffuse<2>(win, kStucki, 42, width, height, emit); break;
        case 4: diffuse<2>(win, kJarvis, 48, width, height, emit); break;
        case 5: diffuse<2>(win, kSierra, 32, width, height, emit); break;
        case 6: diffuse<3>(win, kStevensonArce, 200, width, height, emit); break;
        default: diffuse<1>(win, kFloydSteinberg, 16, width, height, emit); break;
      }
      break;
    }
  }

  out.SetPaletteColor(0, 0, 0, 0, 0);
  out.SetPaletteColor(1, 255, 255, 255, 0);
  Transfer(out);
  return true;
}
