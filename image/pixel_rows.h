#pragma once
// Row helpers shared by the halftones and the printer: whole rows at a time
// instead of one pixel call per pixel.
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

// Bit order of a packed byte is most significant first; this turns a
// little-endian mask of 8 pixels into that order.
struct KelvoBitReverse {
  uint8_t table[256];
  constexpr KelvoBitReverse() : table() {
    for (int i = 0; i < 256; ++i) {
      int r = 0;
      for (int b = 0; b < 8; ++b)
        if (i & (1 << b)) r |= 0x80 >> b;
      table[i] = static_cast<uint8_t>(r);
    }
  }
};
inline constexpr KelvoBitReverse kKelvoBitReverse{};

// The eight 0/1 bytes of one packed byte, in memory order, as one word.
struct KelvoBitSpread {
  uint64_t table[256];
  constexpr KelvoBitSpread() : table() {
    for (int i = 0; i < 256; ++i) {
      uint64_t w = 0;
      for (int b = 0; b < 8; ++b)
        if (i & (0x80 >> b)) w |= uint64_t{1} << (8 * b);
      table[i] = w;
    }
  }
};
inline constexpr KelvoBitSpread kKelvoBitSpread{};

// Packs one bit per byte whose value is above 128: the fixed threshold.
inline void kelvoPackAbove128(const uint8_t* src, size_t n, uint8_t* dst) {
  size_t x = 0;
#if defined(__SSE2__)
  // v > 128 exactly when v - 128, read as a signed byte, is above 0.
  const __m128i bias = _mm_set1_epi8(static_cast<char>(0x80));
  const __m128i zero = _mm_setzero_si128();
  for (; x + 16 <= n; x += 16) {
    const __m128i v = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + x)), bias);
    const unsigned set = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpgt_epi8(v, zero)));
    dst[x / 8] = kKelvoBitReverse.table[set & 0xFF];
    dst[x / 8 + 1] = kKelvoBitReverse.table[set >> 8];
  }
#endif
  for (; x < n; x += 8) {
    uint8_t acc = 0;
    const size_t end = n - x < 8 ? n - x : 8;
    for (size_t b = 0; b < end; ++b)
      if (src[x + b] > 128) acc |= static_cast<uint8_t>(0x80u >> b);
    dst[x / 8] = acc;
  }
}

// Packs n bytes into ceil(n / 8) bytes, one bit per byte that is non-zero,
// the first byte in bit 7; the unused low bits of the last byte are 0.
// dst may equal src: a packed byte never lands past the bytes already read.
inline void kelvoPackNonZero(const uint8_t* src, size_t n, uint8_t* dst) {
  size_t x = 0;
#if defined(__SSE2__)
  const __m128i zero = _mm_setzero_si128();
  for (; x + 16 <= n; x += 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + x));
    const unsigned set = ~static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, zero))) & 0xFFFFu;
    dst[x / 8] = kKelvoBitReverse.table[set & 0xFF];
    dst[x / 8 + 1] = kKelvoBitReverse.table[set >> 8];
  }
#endif
  for (; x < n; x += 8) {
    uint8_t acc = 0;
    const size_t end = n - x < 8 ? n - x : 8;
    for (size_t b = 0; b < end; ++b)
      if (src[x + b] != 0) acc |= static_cast<uint8_t>(0x80u >> b);
    dst[x / 8] = acc;
  }
}

// One row of dots (one bit a pixel, the first in bit 7) as one byte a
// pixel: 1 for a dot, 0 for paper.
inline void kelvoUnpackBits(const uint8_t* row, long width, uint8_t* dst) {
  long x = 0;
  for (; x + 8 <= width; x += 8) std::memcpy(dst + x, &kKelvoBitSpread.table[row[x >> 3]], 8);
  for (; x < width; ++x) dst[x] = (row[x >> 3] >> (7 - (x & 7))) & 0x01;
}
