#include "stencil/jv_rows.h"

#include <cstring>

#include "stencil/jv_math.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define KELVO_X86 1
#endif

namespace {

inline uint8_t roundToByte(double sum) { return static_cast<uint8_t>(my_round(static_cast<float>(sum))); }

void horizontalScalar(const double* p, const double* taps, int size, size_t from, size_t to, uint8_t* out) {
  for (size_t x = from; x < to; ++x) {
    double sum = 0.0;
    for (int k = 0; k < size; ++k) sum = p[x + k] * taps[k] + sum;
    out[x] = roundToByte(sum);
  }
}

void verticalScalar(const uint8_t* const* rows, const double* taps, int size, size_t from, size_t to, uint8_t* out) {
  for (size_t x = from; x < to; ++x) {
    double sum = 0.0;
    for (int k = 0; k < size; ++k) sum = static_cast<double>(rows[k][x]) * taps[k] + sum;
    out[x] = roundToByte(sum);
  }
}

void weightedScalar(const uint8_t* a, const uint8_t* b, float alpha, float beta, float gamma, size_t from, size_t to,
                    uint8_t* out) {
  for (size_t i = from; i < to; ++i) {
    const int r = my_round((static_cast<float>(a[i]) * alpha + static_cast<float>(b[i]) * beta) + gamma);
    out[i] = static_cast<uint8_t>(myClamp(r, 0, 255));
  }
}

#ifdef KELVO_X86

// my_round of four floats: x + 0.5f when x >= 0, else x - 0.5f, then the
// truncating conversion, which gives INT32_MIN for NaN and out-of-range
// values just like jv_trunc_i32.
inline __m128i roundFour(__m128 f) {
  const __m128 half = _mm_set1_ps(0.5f);
  const __m128 nonNegative = _mm_cmpge_ps(f, _mm_setzero_ps());
  const __m128 r = _mm_or_ps(_mm_and_ps(nonNegative, _mm_add_ps(f, half)),
                             _mm_andnot_ps(nonNegative, _mm_sub_ps(f, half)));
  return _mm_cvttps_epi32(r);
}

// Stores the low bytes of four int32.
inline void storeLowBytes(__m128i v, uint8_t* out) {
  v = _mm_and_si128(v, _mm_set1_epi32(0xFF));
  v = _mm_packs_epi32(v, v);
  v = _mm_packus_epi16(v, v);
  const int32_t word = _mm_cvtsi128_si32(v);
  std::memcpy(out, &word, 4);
}

inline __m128i loadFourBytes(const uint8_t* p) {
  int32_t word;
  std::memcpy(&word, p, 4);
  return _mm_cvtsi32_si128(word);
}

void horizontalSse2(const double* p, const double* taps, int size, size_t width, uint8_t* out) {
  size_t x = 0;
  for (; x + 4 <= width; x += 4) {
    __m128d s0 = _mm_setzero_pd(), s1 = _mm_setzero_pd();
    for (int k = 0; k < size; ++k) {
      const __m128d t = _mm_set1_pd(taps[k]);
      s0 = _mm_add_pd(_mm_mul_pd(_mm_loadu_pd(p + x + k), t), s0);
      s1 = _mm_add_pd(_mm_mul_pd(_mm_loadu_pd(p + x + k + 2), t), s1);
    }
    storeLowBytes(roundFour(_mm_movelh_ps(_mm_cvtpd_ps(s0), _mm_cvtpd_ps(s1))), out + x);
  }
  horizontalScalar(p, taps, size, x, width, out);
}

void verticalSse2(const uint8_t* const* rows, const double* taps, int size, size_t width, uint8_t* out) {
  const __m128i zero = _mm_setzero_si128();
  size_t x = 0;
  for (; x + 4 <= width; x += 4) {
    __m128d s0 = _mm_setzero_pd(), s1 = _mm_setzero_pd();
    for (int k = 0; k < size; ++k) {
      const __m128d t = _mm_set1_pd(taps[k]);
      const __m128i v = _mm_unpacklo_epi16(_mm_unpacklo_epi8(loadFourBytes(rows[k] + x), zero), zero);
      s0 = _mm_add_pd(_mm_mul_pd(_mm_cvtepi32_pd(v), t), s0);
      s1 = _mm_add_pd(_mm_mul_pd(_mm_cvtepi32_pd(_mm_srli_si128(v, 8)), t), s1);
    }
    storeLowBytes(roundFour(_mm_movelh_ps(_mm_cvtpd_ps(s0), _mm_cvtpd_ps(s1))), out + x);
  }
  verticalScalar(rows, taps, size, x, width, out);
}

inline __m128 fourFloats(const uint8_t* p) {
  const __m128i zero = _mm_setzero_si128();
  return _mm_cvtepi32_ps(_mm_unpacklo_epi16(_mm_unpacklo_epi8(loadFourBytes(p), zero), zero));
}

void weightedSse2(const uint8_t* a, const uint8_t* b, float alpha, float beta, float gamma, size_t n, uint8_t* out) {
  const __m128 va = _mm_set1_ps(alpha), vb = _mm_set1_ps(beta), vg = _mm_set1_ps(gamma);
  size_t i = 0;
  for (; i + 4 <= n; i += 4) {
    const __m128 sum = _mm_add_ps(_mm_add_ps(_mm_mul_ps(fourFloats(a + i), va), _mm_mul_ps(fourFloats(b + i), vb)), vg);
    // Saturating packs clamp to 0..255 exactly as myClamp does.
    __m128i r = roundFour(sum);
    r = _mm_packs_epi32(r, r);
    r = _mm_packus_epi16(r, r);
    const int32_t word = _mm_cvtsi128_si32(r);
    std::memcpy(out + i, &word, 4);
  }
  weightedScalar(a, b, alpha, beta, gamma, i, n, out);
}

__attribute__((target("avx2"))) void horizontalAvx2(const double* p, const double* taps, int size, size_t width,
                                                     uint8_t* out) {
  size_t x = 0;
  for (; x + 8 <= width; x += 8) {
    __m256d s0 = _mm256_setzero_pd(), s1 = _mm256_setzero_pd();
    for (int k = 0; k < size; ++k) {
      const __m256d t = _mm256_set1_pd(taps[k]);
      s0 = _mm256_add_pd(_mm256_mul_pd(_mm256_loadu_pd(p + x + k), t), s0);
      s1 = _mm256_add_pd(_mm256_mul_pd(_mm256_loadu_pd(p + x + k + 4), t), s1);
    }
    storeLowBytes(roundFour(_mm256_cvtpd_ps(s0)), out + x);
    storeLowBytes(roundFour(_mm256_cvtpd_ps(s1)), out + x + 4);
  }
  horizontalScalar(p, taps, size, x, width, out);
}

__attribute__((target("avx2"))) void verticalAvx2(const uint8_t* const* rows, const double* taps, int size,
                                                   size_t width, uint8_t* out) {
  size_t x = 0;
  for (; x + 8 <= width; x += 8) {
    __m256d s0 = _mm256_setzero_pd(), s1 = _mm256_setzero_pd();
    for (int k = 0; k < size; ++k) {
      const __m256d t = _mm256_set1_pd(taps[k]);
      const __m128i v = _mm_cvtepu8_epi32(loadFourBytes(rows[k] + x));
      const __m128i w = _mm_cvtepu8_epi32(loadFourBytes(rows[k] + x + 4));
      s0 = _mm256_add_pd(_mm256_mul_pd(_mm256_cvtepi32_pd(v), t), s0);
      s1 = _mm256_add_pd(_mm256_mul_pd(_mm256_cvtepi32_pd(w), t), s1);
    }
    storeLowBytes(roundFour(_mm256_cvtpd_ps(s0)), out + x);
    storeLowBytes(roundFour(_mm256_cvtpd_ps(s1)), out + x + 4);
  }
  verticalScalar(rows, taps, size, x, width, out);
}

int detectLevel() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") ? 1 : 0;
}

#endif  // KELVO_X86

#ifdef KELVO_X86
const int kBestLevel = detectLevel();
#else
const int kBestLevel = 0;
#endif
int gLevel = kBestLevel;

}  // namespace

int jvRowsLevel() { return gLevel; }

int jvRowsSetLevel(int level) {
  gLevel = level < 0 ? 0 : (level > kBestLevel ? kBestLevel : level);
  return gLevel;
}

void jvBlurRowHorizontal(const double* padded, const double* taps, int size, size_t width, uint8_t* out) {
#ifdef KELVO_X86
  if (gLevel >= 1) return horizontalAvx2(padded, taps, size, width, out);
  return horizontalSse2(padded, taps, size, width, out);
#else
  horizontalScalar(padded, taps, size, 0, width, out);
#endif
}

void jvBlurRowVertical(const uint8_t* const* rows, const double* taps, int size, size_t width, uint8_t* out) {
#ifdef KELVO_X86
  if (gLevel >= 1) return verticalAvx2(rows, taps, size, width, out);
  return verticalSse2(rows, taps, size, width, out);
#else
  verticalScalar(rows, taps, size, 0, width, out);
#endif
}

void jvWeightedRow(const uint8_t* a, const uint8_t* b, float alpha, float beta, float gamma, size_t n, uint8_t* out) {
#ifdef KELVO_X86
  weightedSse2(a, b, alpha, beta, gamma, n, out);
#else
  weightedScalar(a, b, alpha, beta, gamma, 0, n, out);
#endif
}
