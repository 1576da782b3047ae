// 8 x 8 byte blocks for the vector paths of the dithers (image/) and the
// stencil kernels (stencil/). Included once per instruction set, inside the
// includer's namespace, with BLOCK_TARGET defined (empty, or that set's
// target attribute) and BLOCK_SSE2 defined where SSE2 may be used. No
// include guard; the includer brings <cstdint>, <cstring> and the intrinsics.

// dst[c * 8 + r] = src[r][c] for r, c < 8.
BLOCK_TARGET inline void transpose8x8(const uint8_t* const src[8], uint8_t* dst) {
#if defined(BLOCK_SSE2)
  const __m128i b0 = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(src[0])),
                                       _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src[1])));
  const __m128i b1 = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(src[2])),
                                       _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src[3])));
  const __m128i b2 = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(src[4])),
                                       _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src[5])));
  const __m128i b3 = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(src[6])),
                                       _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src[7])));
  const __m128i c0 = _mm_unpacklo_epi16(b0, b1);  // columns 0-3 of rows 0-3
  const __m128i c1 = _mm_unpackhi_epi16(b0, b1);  // columns 4-7 of rows 0-3
  const __m128i c2 = _mm_unpacklo_epi16(b2, b3);
  const __m128i c3 = _mm_unpackhi_epi16(b2, b3);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm_unpacklo_epi32(c0, c2));       // columns 0, 1
  _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 16), _mm_unpackhi_epi32(c0, c2));  // columns 2, 3
  _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 32), _mm_unpacklo_epi32(c1, c3));  // columns 4, 5
  _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 48), _mm_unpackhi_epi32(c1, c3));  // columns 6, 7
#else
  for (int r = 0; r < 8; ++r)
    for (int c = 0; c < 8; ++c) dst[c * 8 + r] = src[r][c];
#endif
}

// Eight bytes of `row` from x0 on, zeros where they fall outside 0..width-1
// or when there is no row.
BLOCK_TARGET inline const uint8_t* clippedEight(const uint8_t* row, int64_t x0, int64_t width, uint8_t* scratch) {
  if (row != nullptr && x0 >= 0 && x0 + 8 <= width) return row + x0;
  for (int i = 0; i < 8; ++i) {
    const int64_t x = x0 + i;
    scratch[i] = (row != nullptr && x >= 0 && x < width) ? row[x] : 0;
  }
  return scratch;
}

// Stores the eight bytes of `src` at x0 .. x0 + 7 of `row`, only those
// inside 0..width-1.
BLOCK_TARGET inline void storeClippedEight(uint8_t* row, int64_t x0, int64_t width, const uint8_t* src) {
  if (row == nullptr) return;
  if (x0 >= 0 && x0 + 8 <= width) {
    std::memcpy(row + x0, src, 8);
    return;
  }
  for (int i = 0; i < 8; ++i) {
    const int64_t x = x0 + i;
    if (x >= 0 && x < width) row[x] = src[i];
  }
}
