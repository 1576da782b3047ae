// The error-diffusion kernels of kelvoHalftone as a wavefront of rows in
// vector lanes. Included by halftone.cpp once per instruction
// set, inside a namespace that defines `Lanes` (sixteen-bit lanes: N, V and
// the operations used below) and the macro KD_TARGET (empty, or that set's
// target attribute, spelled on every function here). No include guard.
//
// How the order of the plain scan is kept is explained at KernelShape in
// halftone.cpp.

struct WaveConsts {
  Lanes::V zero, top, half, full, magic;
  __m128i shift;
};

KD_TARGET inline Lanes::V clamp(Lanes::V v, const WaveConsts& c) { return Lanes::max(Lanes::min(v, c.top), c.zero); }

// trunc(error * Weight / divisor) in every lane (see Divider).
template <int Weight>
KD_TARGET inline Lanes::V share(Lanes::V error, const WaveConsts& c) {
  const Lanes::V n = Lanes::mullo(error, Lanes::set1(static_cast<int16_t>(Weight)));
  return Lanes::sub(Lanes::sra(Lanes::mulhi(n, c.magic), c.shift), Lanes::sign(n));
}

// The shares of one pixel in every lane, cell by cell: the two cells to the
// right are held in registers, the others are in the column buffer at
// column + dx + lag * dy, dy lanes further on.
template <const KernelCell* Cells, int N, int K, int Lag>
KD_TARGET inline void spread(Lanes::V error, Lanes::V& right1, Lanes::V& right2, int16_t* column, const WaveConsts& c) {
  constexpr KernelCell cell = Cells[K];
  const Lanes::V q = share<cell.weight>(error, c);
  if constexpr (cell.dy == 0 && cell.dx == 1) {
    right1 = clamp(Lanes::add(right1, q), c);
  } else if constexpr (cell.dy == 0) {
    right2 = clamp(Lanes::add(right2, q), c);
  } else {
    int16_t* p = column + (cell.dx + Lag * cell.dy) * Lanes::N;
    Lanes::store(p, clamp(Lanes::add(Lanes::load(p), Lanes::template shiftUp<cell.dy>(q)), c));
  }
  if constexpr (K + 1 < N) spread<Cells, N, K + 1, Lag>(error, right1, right2, column, c);
}

#define BLOCK_TARGET KD_TARGET
#define BLOCK_SSE2 1
#include "support/byte_blocks_impl.h"
#undef BLOCK_SSE2
#undef BLOCK_TARGET

// The whole page, band after band; `emit` receives each finished row as
// one 0/1 byte a pixel. `carry` holds the rows below the last band as that
// band left them.
template <const KernelCell* Cells, int N, typename Emit>
KD_TARGET void diffuseWavefront(const uint8_t* page, size_t stride, long width, long height, int16_t magic, int shift,
                                Emit& emit) {
  using Shape = KernelShape<Cells, N>;
  constexpr int kLanes = Lanes::N;
  constexpr int kGroups = kLanes / 8;  // groups of eight lanes for the byte transposes
  constexpr int kBelow = Shape::below();
  constexpr int kRows = kLanes - kBelow;  // rows finished per band
  constexpr int kLag = Shape::lag();
  static_assert(kLanes % 8 == 0 && kBelow >= 1 && kRows >= 1 && Shape::sameRowOk(), "kernel shape");

  const long w = width;
  const long steps = w + kLag * (kRows - 1);
  // Columns: every lane's pixels plus the reach of the last shares, in
  // blocks of eight.
  const long columns = (w + kLag * kLanes + 8 + 7) / 8 * 8;
  std::vector<int16_t> cells(static_cast<size_t>(columns) * kLanes);
  std::vector<uint8_t> dots(static_cast<size_t>(columns) * kLanes);
  std::vector<uint8_t> carry(static_cast<size_t>(kBelow) * static_cast<size_t>(w));
  // The band's finished rows are put back together here.
  std::vector<uint8_t> rowBuffers(static_cast<size_t>(kLanes) * static_cast<size_t>(w));
  uint8_t* rowBuffer[kLanes];
  for (int j = 0; j < kLanes; ++j) rowBuffer[j] = &rowBuffers[static_cast<size_t>(j) * static_cast<size_t>(w)];

  WaveConsts c;
  c.zero = Lanes::zero();
  c.top = Lanes::set1(255);
  c.half = Lanes::set1(128);
  c.full = Lanes::set1(255);
  c.magic = Lanes::set1(magic);
  c.shift = _mm_cvtsi32_si128(shift);
  alignas(32) int16_t laneLag[kLanes];
  for (int j = 0; j < kLanes; ++j) laneLag[j] = static_cast<int16_t>(kLag * j);
  const Lanes::V lagOfLane = Lanes::load(laneLag);
  const Lanes::V minusOne = Lanes::set1(-1);
  const Lanes::V widthV = Lanes::set1(static_cast<int16_t>(w));
  alignas(32) uint8_t block[64 * kGroups];
  alignas(16) uint8_t scratch[8][8];

  for (long y0 = 0; y0 < height; y0 += kRows) {
    // Each lane's row of levels.
    const uint8_t* source[kLanes];
    alignas(32) int16_t realRows[kLanes];
    for (int j = 0; j < kLanes; ++j) {
      const long y = y0 + j;
      realRows[j] = (j < kRows && y < height) ? int16_t{-1} : int16_t{0};
      if (y >= height) {
        source[j] = nullptr;
      } else if (y0 > 0 && j < kBelow) {
        source[j] = &carry[static_cast<size_t>(j) * static_cast<size_t>(w)];
      } else {
        source[j] = page + stride * static_cast<size_t>(y);
      }
    }
    // Into their skewed lanes, eight columns at a time.
    for (long c0 = 0; c0 < columns; c0 += 8) {
      for (int g = 0; g < kGroups; ++g) {
        const uint8_t* src[8];
        for (int l = 0; l < 8; ++l) {
          const int j = 8 * g + l;
          src[l] = clippedEight(source[j], c0 - kLag * j, w, scratch[l]);
        }
        transpose8x8(src, block + 64 * g);
      }
      for (int i = 0; i < 8; ++i) Lanes::store(&cells[static_cast<size_t>(c0 + i) * kLanes], Lanes::column(block, i));
    }
    const Lanes::V running = Lanes::load(realRows);

    Lanes::V cur = Lanes::load(&cells[0]);
    Lanes::V right1 = Lanes::load(&cells[kLanes]);
    for (long t = 0; t < steps; ++t) {
      int16_t* column = &cells[static_cast<size_t>(t) * kLanes];
      Lanes::V right2 = Lanes::load(column + 2 * kLanes);
      const Lanes::V dot = Lanes::cmpgt(cur, c.half);
      Lanes::storeBits(dot, &dots[static_cast<size_t>(t) * kLanes]);
      // Lanes on a pixel of their row: 0 <= t - lag * j < width.
      const Lanes::V x = Lanes::sub(Lanes::set1(static_cast<int16_t>(t)), lagOfLane);
      const Lanes::V active = Lanes::and_(Lanes::and_(Lanes::cmpgt(x, minusOne), Lanes::cmpgt(widthV, x)), running);
      // error = level - 255 for a dot, else the level.
      const Lanes::V error = Lanes::and_(Lanes::sub(cur, Lanes::and_(dot, c.full)), active);
      spread<Cells, N, 0, kLag>(error, right1, right2, column, c);
      cur = right1;
      right1 = right2;
    }

    // The band's rows back in pixel order, eight columns at a time.
    const long lastRow = height - y0 < kRows ? height - y0 : kRows;
    for (long c0 = 0; c0 < steps; c0 += 8) {
      for (int g = 0; g < kGroups; ++g) {
        const uint8_t* src[8];
        for (int i = 0; i < 8; ++i) src[i] = &dots[static_cast<size_t>(c0 + i) * kLanes + 8 * g];
        transpose8x8(src, block + 64 * g);
      }
      for (int j = 0; j < lastRow; ++j)
        storeClippedEight(rowBuffer[j], c0 - kLag * j, w, block + 64 * (j / 8) + 8 * (j % 8));
    }
    for (int j = 0; j < lastRow; ++j) emit(y0 + j, rowBuffer[j]);
    // The rows below the band, as the band left them, for the next band.
    for (int j = kRows; j < kLanes && y0 + j < height; ++j) {
      const int16_t* src = &cells[static_cast<size_t>(kLag * j) * kLanes + static_cast<size_t>(j)];
      uint8_t* dst = &carry[static_cast<size_t>(j - kRows) * static_cast<size_t>(w)];
      for (long x = 0; x < w; ++x) dst[x] = static_cast<uint8_t>(src[static_cast<size_t>(x) * kLanes]);
    }
  }
}
