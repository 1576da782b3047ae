#include <atomic>
#include <cstdint>
#include <cstring>
#include <vector>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include "image/barcode_text.h"
#include "image/halftone.h"
#include "image/pixel_rows.h"

namespace {

struct KernelCell {
  int dx;
  int dy;
  int weight;
};

// Cells in the order their shares are added; the order matters because each
// share is clamped as soon as it is written.
constexpr KernelCell kBurkes[] = {{1, 0, 8},  {2, 0, 4},  {-2, 1, 2}, {-1, 1, 4},
                                  {0, 1, 8},  {1, 1, 4},  {2, 1, 2}};
constexpr KernelCell kStucki[] = {{1, 0, 8},  {2, 0, 4},  {-2, 1, 2}, {-1, 1, 4}, {0, 1, 8}, {1, 1, 4},
                                  {2, 1, 2},  {-2, 2, 1}, {-1, 2, 2}, {0, 2, 4},  {1, 2, 2}, {2, 2, 1}};
constexpr KernelCell kJarvis[] = {{1, 0, 7},  {2, 0, 5},  {-2, 1, 3}, {-1, 1, 5}, {0, 1, 7}, {1, 1, 5},
                                  {2, 1, 3},  {-2, 2, 1}, {-1, 2, 3}, {0, 2, 5},  {1, 2, 3}, {2, 2, 1}};
constexpr KernelCell kSierra[] = {{1, 0, 5},  {2, 0, 3},  {-2, 1, 2}, {-1, 1, 4}, {0, 1, 5},
                                  {1, 1, 4},  {2, 1, 2},  {-1, 2, 2}, {0, 2, 3},  {1, 2, 2}};
// The same-row neighbour gets nothing, as in the published kernel.
constexpr KernelCell kStevensonArce[] = {{2, 0, 32},  {-3, 1, 12}, {-1, 1, 26}, {1, 1, 30}, {3, 1, 16},
                                         {-2, 2, 12}, {0, 2, 26},  {2, 2, 12},  {-3, 3, 5}, {-1, 3, 12},
                                         {1, 3, 12},  {3, 3, 5}};

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
// past the last one and are never read back: a share that leaves the page
// is lost.
class LevelWindow {
 public:
  LevelWindow(const uint8_t* page, size_t stride, long width, long height)
      : page_(page), stride_(stride), width_(width), height_(height), rowSize_(width + 2 * kMargin),
        cells_(static_cast<size_t>(rowSize_) * kWindowRows) {
    for (long r = 0; r < kWindowRows; ++r) load(r);
  }
  // Row y + dy while row y is being dithered, at column 0.
  uint8_t* row(long y, long dy) { return &cells_[static_cast<size_t>((y + dy) % kWindowRows) * rowSize_ + kMargin]; }
  // Row y is finished: its slot takes row y + 4.
  void advance(long y) { load(y + kWindowRows); }

 private:
  void load(long y) {
    uint8_t* dst = &cells_[static_cast<size_t>(y % kWindowRows) * rowSize_];
    std::memset(dst, 0, static_cast<size_t>(rowSize_));
    if (y < height_) std::memcpy(dst + kMargin, page_ + stride_ * static_cast<size_t>(y), static_cast<size_t>(width_));
  }

  const uint8_t* page_;
  size_t stride_;
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
template <int Below, typename Emit>
void diffuse(LevelWindow& win, const KernelCell* cells, int count, int64_t divisor, long width, long height,
             Emit emit) {
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
    for (int k = 0; k < count; ++k) {
      const KernelCell& c = cells[k];
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
    __m128i window[Below];
    for (int r = 0; r < Below; ++r)
      window[r] = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(below[r] - 3)), zero);
#endif
    for (long x = 0; x < width; ++x) {
      const int level = here;
      out[static_cast<size_t>(x)] = level > 128 ? 1 : 0;
      const Shares& s = table[static_cast<size_t>(level)];
      here = clampLevel(next + s.right1);
      next = clampLevel(cur[x + 2] + s.right2);
#if defined(__SSE2__)
      for (int r = 0; r < Below; ++r) {
        __m128i w = _mm_add_epi16(window[r], s.below[r]);
        w = _mm_max_epi16(_mm_min_epi16(w, top), zero);
        below[r][x - 3] = static_cast<uint8_t>(_mm_cvtsi128_si32(w));
        window[r] = _mm_insert_epi16(_mm_srli_si128(w, 2), below[r][x + 5], 7);
      }
#else
      for (int r = 0; r < Below; ++r)
        for (int lane = 0; lane < 8; ++lane) {
          uint8_t& cell = below[r][x - 3 + lane];
          cell = static_cast<uint8_t>(clampLevel(cell + s.below[r][lane]));
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

// ---- the kernels as a wavefront of rows ----
//
// diffuse() above walks the page row by row; each pixel waits for the one
// before it. Here a band of rows runs at once, one row per 16-bit lane of a
// vector, row j of the band `lag` pixels behind row j - 1, and every
// share is still added to its cell and clamped exactly when the
// plain scan adds it relative to the other shares of that cell:
//
// - The cells live in a skewed buffer: column c, lane j holds the cell of
//   pixel x = c - lag * j of row y0 + j. At step t every lane does the
//   pixel of column t, so a share to (x + dx, y + dy) goes to column
//   t + dx + lag * dy, lane j + dy: one vector add, shifted by dy lanes.
// - A cell receives its shares at steps c - dx - lag * dy. The plain scan
//   adds them row by row from the top (dy down), and left to right within
//   a row (dx down); with lag > (largest dx) - (smallest dx) the steps come
//   in exactly that order, and no two shares reach the same cell in one
//   step. With lag > -dx for every dy >= 1 cell, a pixel's cell is complete
//   before its step. (lag >= 5 also keeps the two cells to the right, held
//   in registers, free of shares from the rows above while they are held.)
// - Lanes past the band's last row (`below` of them) hold the next rows,
//   which receive shares from the band's rows; their cells go back to the
//   row buffer (`carry`) for the next band, which adds its own shares after
//   them, as the plain scan does.
// - Pixels off the page, and lanes whose row is not running at a step, get
//   an error of 0: their shares are 0, and adding 0 to a cell (clamped
//   already) leaves it as it is.
// The shares are computed per lane, error * weight / divisor truncated
// toward zero as the integer division of the plain loop, by a multiply and
// shift checked against that division for every numerator (Divider).

// q = floor(n * magic / 2^(16 + shift)) + (n < 0) == n / divisor (C++
// truncation) for every n in -4096..4096, which holds every error (-127 to
// 128) times every weight (at most 32).
struct Divider {
  int16_t magic;
  int shift;
  bool ok;
};

Divider findDivider(int64_t divisor) {
  for (int s = 0; s < 16; ++s) {
    const int64_t m = (int64_t{1} << (16 + s)) / divisor + 1;
    if (m > 32767) break;
    bool ok = true;
    for (int64_t n = -4096; n <= 4096 && ok; ++n) {
      const int64_t high = (n * m) >> 16;  // what the 16-bit high multiply gives
      ok = (high >> s) + (n < 0 ? 1 : 0) == n / divisor;
    }
    if (ok) return {static_cast<int16_t>(m), s, true};
  }
  return {0, 0, false};
}

template <int Divisor>
const Divider& dividerFor() {
  static const Divider d = findDivider(Divisor);
  return d;
}

template <const KernelCell* Cells, int N>
struct KernelShape {
  static constexpr int below() {
    int b = 0;
    for (int k = 0; k < N; ++k) b = Cells[k].dy > b ? Cells[k].dy : b;
    return b;
  }
  static constexpr int reach() {
    int r = 0;
    for (int k = 0; k < N; ++k) {
      const int a = Cells[k].dx < 0 ? -Cells[k].dx : Cells[k].dx;
      r = a > r ? a : r;
    }
    return r;
  }
  static constexpr int lag() { return 2 * reach() + 1 < 5 ? 5 : 2 * reach() + 1; }
  // Same-row shares go only to the next two pixels (held in registers).
  static constexpr bool sameRowOk() {
    for (int k = 0; k < N; ++k)
      if (Cells[k].dy == 0 && Cells[k].dx != 1 && Cells[k].dx != 2) return false;
    return true;
  }
};

#if defined(__x86_64__) || defined(__i386__)

// The wavefront on SSE2 (eight lanes) and on AVX2 (sixteen lanes, chosen at
// run time on CPUs that have it): the same code, built twice.
namespace waveSse2 {
struct Lanes {
  static constexpr int N = 8;
  using V = __m128i;
  static V zero() { return _mm_setzero_si128(); }
  static V set1(int16_t v) { return _mm_set1_epi16(v); }
  static V load(const int16_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
  static void store(int16_t* p, V v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }
  static V add(V a, V b) { return _mm_add_epi16(a, b); }
  static V sub(V a, V b) { return _mm_sub_epi16(a, b); }
  static V and_(V a, V b) { return _mm_and_si128(a, b); }
  static V max(V a, V b) { return _mm_max_epi16(a, b); }
  static V min(V a, V b) { return _mm_min_epi16(a, b); }
  static V cmpgt(V a, V b) { return _mm_cmpgt_epi16(a, b); }
  static V mullo(V a, V b) { return _mm_mullo_epi16(a, b); }
  static V mulhi(V a, V b) { return _mm_mulhi_epi16(a, b); }
  static V sra(V a, __m128i count) { return _mm_sra_epi16(a, count); }
  static V sign(V a) { return _mm_srai_epi16(a, 15); }
  // Lane j to lane j + Dy, zeros below.
  template <int Dy>
  static V shiftUp(V v) {
    if constexpr (Dy == 0)
      return v;
    else
      return _mm_slli_si128(v, 2 * Dy);
  }
  // Column i of a block of transposed bytes ([group][column][8 lanes]).
  static V column(const uint8_t* block, int i) {
    return _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(block + 8 * i)), _mm_setzero_si128());
  }
  // One byte a lane: 1 where the mask is set.
  static void storeBits(V mask, uint8_t* p) {
    _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_and_si128(_mm_packs_epi16(mask, mask), _mm_set1_epi8(1)));
  }
};
#define KD_TARGET
#include "image/dither_wavefront.h"
#undef KD_TARGET
}  // namespace waveSse2

namespace waveAvx2 {
#define KD_TARGET __attribute__((target("avx2")))
struct Lanes {
  static constexpr int N = 16;
  using V = __m256i;
  KD_TARGET static V zero() { return _mm256_setzero_si256(); }
  KD_TARGET static V set1(int16_t v) { return _mm256_set1_epi16(v); }
  KD_TARGET static V load(const int16_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
  KD_TARGET static void store(int16_t* p, V v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }
  KD_TARGET static V add(V a, V b) { return _mm256_add_epi16(a, b); }
  KD_TARGET static V sub(V a, V b) { return _mm256_sub_epi16(a, b); }
  KD_TARGET static V and_(V a, V b) { return _mm256_and_si256(a, b); }
  KD_TARGET static V max(V a, V b) { return _mm256_max_epi16(a, b); }
  KD_TARGET static V min(V a, V b) { return _mm256_min_epi16(a, b); }
  KD_TARGET static V cmpgt(V a, V b) { return _mm256_cmpgt_epi16(a, b); }
  KD_TARGET static V mullo(V a, V b) { return _mm256_mullo_epi16(a, b); }
  KD_TARGET static V mulhi(V a, V b) { return _mm256_mulhi_epi16(a, b); }
  KD_TARGET static V sra(V a, __m128i count) { return _mm256_sra_epi16(a, count); }
  KD_TARGET static V sign(V a) { return _mm256_srai_epi16(a, 15); }
  // Lane j to lane j + Dy across the two halves, zeros below.
  template <int Dy>
  KD_TARGET static V shiftUp(V v) {
    if constexpr (Dy == 0)
      return v;
    else
      return _mm256_alignr_epi8(v, _mm256_permute2x128_si256(v, v, 0x08), 16 - 2 * Dy);
  }
  KD_TARGET static V column(const uint8_t* block, int i) {
    const __m128i b = _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(block + 8 * i)),
                                         _mm_loadl_epi64(reinterpret_cast<const __m128i*>(block + 64 + 8 * i)));
    return _mm256_cvtepu8_epi16(b);
  }
  KD_TARGET static void storeBits(V mask, uint8_t* p) {
    const __m128i b = _mm_packs_epi16(_mm256_castsi256_si128(mask), _mm256_extracti128_si256(mask, 1));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm_and_si128(b, _mm_set1_epi8(1)));
  }
};
#include "image/dither_wavefront.h"
#undef KD_TARGET
}  // namespace waveAvx2

int bestPath() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") ? 1 : 0;
}

#else
int bestPath() { return -1; }
#endif

const int kBestPath = bestPath();

// Which way the diffusion kernels run: -1 row by row (diffuse), 0 as a
// wavefront of rows in SSE2 lanes, 1 in AVX2 lanes. Only the tests change
// it; every path gives the same bytes.
std::atomic<int> gDiffusionPath{kBestPath};

// The page's diffusion with the kernel `Cells`; false when the wavefront
// cannot take it (then diffuse() runs).
template <const KernelCell* Cells, int N, int Divisor, typename Emit>
bool diffuseFast(const uint8_t* page, size_t stride, long width, long height, Emit emit) {
  const int path = gDiffusionPath.load(std::memory_order_relaxed);
  // Lane positions are 16-bit.
  if (path < 0 || width > 30000) return false;
  const Divider& div = dividerFor<Divisor>();
  if (!div.ok) return false;
#if defined(__x86_64__) || defined(__i386__)
  if (path >= 1)
    waveAvx2::diffuseWavefront<Cells, N>(page, stride, width, height, div.magic, div.shift, emit);
  else
    waveSse2::diffuseWavefront<Cells, N>(page, stride, width, height, div.magic, div.shift, emit);
  return true;
#else
  (void)page, (void)stride, (void)height, (void)emit;
  return false;
#endif
}

template <const KernelCell* Cells, int N, int Divisor, int Below, typename Emit>
void diffusion(const uint8_t* page, size_t stride, long width, long height, Emit emit) {
  if (diffuseFast<Cells, N, Divisor>(page, stride, width, height, emit)) return;
  LevelWindow win(page, stride, width, height);
  diffuse<Below>(win, Cells, N, Divisor, width, height, emit);
}

// Bayer's ordered dither of order 4: the level against the first 16
// entries of a table built by interleaving the bits of x and y.
struct BayerTable {
  uint8_t entry[16];
  constexpr BayerTable() : entry() {
    const int order = 4;
    for (int i = 0; i < 16; ++i) {
      int a = i / order;
      int b = i % order;
      int t = 0;
      for (int k = 0; k < order; ++k) {
        t = (((t << 1) | ((a & 1) ^ (b & 1))) << 1) | (b & 1);
        a >>= 1;
        b >>= 1;
      }
      entry[i] = static_cast<uint8_t>(t);
    }
  }
};
constexpr BayerTable kBayer{};

}  // namespace

int kelvoDitherSetPath(int path) {
  const int p = path < 0 ? -1 : (path > kBestPath ? kBestPath : path);
  gDiffusionPath.store(p, std::memory_order_relaxed);
  return p;
}

bool kelvoHalftone(KelvoHalftone method, const uint8_t* page, size_t stride, long width, long height, uint8_t* dots,
                   size_t rowBytes) {
  if (kelvoIsStencil(method)) return false;
  // Each finished row of 0/1 bytes is packed into its row of dots.
  auto emit = [dots, rowBytes, width](long y, const uint8_t* row) {
    kelvoPackNonZero(row, static_cast<size_t>(width), dots + rowBytes * static_cast<size_t>(y));
  };
  auto rowOf = [page, stride](long y) { return page + stride * static_cast<size_t>(y); };
  std::vector<uint8_t> row(static_cast<size_t>(width));
  switch (method) {
    case KelvoHalftone::kThreshold:
      for (long y = 0; y < height; ++y)
        kelvoPackAbove128(rowOf(y), static_cast<size_t>(width), dots + rowBytes * static_cast<size_t>(y));
      break;
    case KelvoHalftone::kOrdered4x4: {
      // d = level * 16 / 255, r = d mod 16, o = d / 16; the output is the
      // level table {0, 1} at o + 1 when M < r, else at o. Only level 255
      // has o = 1 (and r = 0), so it always gives 1.
      uint8_t rank[256];
      for (int level = 0; level < 256; ++level) rank[level] = static_cast<uint8_t>(level * 16 / 255 % 16);
      for (long y = 0; y < height; ++y) {
        const uint8_t* l = rowOf(y);
        const int* m = kOrdered4x4[y & 3];
        for (long x = 0; x < width; ++x) row[x] = (l[x] == 255 || m[x & 3] < rank[l[x]]) ? 1 : 0;
        emit(y, row.data());
      }
      break;
    }
    case KelvoHalftone::kBayer:
      for (long y = 0; y < height; ++y) {
        const uint8_t* l = rowOf(y);
        const uint8_t* t = kBayer.entry + 4 * (y % 4);
        for (long x = 0; x < width; ++x) row[x] = l[x] > t[x % 4] ? 1 : 0;
        emit(y, row.data());
      }
      break;
    case KelvoHalftone::kBarcodeText:
      // "Barcode and Text": image/barcode_text.h.
      kelvoBarcodeTextHalftone(
          width, height, [&](long y, uint8_t* dst) { std::memcpy(dst, rowOf(y), static_cast<size_t>(width)); }, emit);
      break;
    // Each share is truncated on its own, so a little of the error is lost
    // on every pixel; the printed texture depends on that.
    case KelvoHalftone::kBurkes: diffusion<kBurkes, 7, 32, 1>(page, stride, width, height, emit); break;
    case KelvoHalftone::kStucki: diffusion<kStucki, 12, 42, 2>(page, stride, width, height, emit); break;
    case KelvoHalftone::kJarvisJudiceNinke: diffusion<kJarvis, 12, 48, 2>(page, stride, width, height, emit); break;
    case KelvoHalftone::kSierra: diffusion<kSierra, 10, 32, 2>(page, stride, width, height, emit); break;
    case KelvoHalftone::kStevensonArce:
      diffusion<kStevensonArce, 12, 200, 3>(page, stride, width, height, emit);
      break;
    case KelvoHalftone::kTattoo:
    case KelvoHalftone::kTattooX8:
      return false;
  }
  return true;
}
