// The stencil kernels on SSE2, the x86-64 baseline.
#include "stencil/jv_kernels.h"
#include "stencil/jv_run.h"

#if defined(__x86_64__) || defined(__i386__)

#include <emmintrin.h>

#define JVK_SSE2_TRANSPOSE 1
#define JVK_TARGET
#include "stencil/jv_kernels_impl.h"

namespace {

struct VSse2 {
  static constexpr int VW = 4;
  using F = __m128;   // a mask is a lane of all ones or all zeros
  using I = __m128i;  // int32 lanes
  static F zero() { return _mm_setzero_ps(); }
  static F ones() { return _mm_castsi128_ps(_mm_set1_epi32(-1)); }
  static F set1(float v) { return _mm_set1_ps(v); }
  static F load(const float* p) { return _mm_loadu_ps(p); }
  static void store(float* p, F v) { _mm_storeu_ps(p, v); }
  static F add(F a, F b) { return _mm_add_ps(a, b); }
  static F mul(F a, F b) { return _mm_mul_ps(a, b); }
  static F and_(F a, F b) { return _mm_and_ps(a, b); }
  static F andnot(F a, F b) { return _mm_andnot_ps(a, b); }  // ~a & b
  static F or_(F a, F b) { return _mm_or_ps(a, b); }
  static F cmpgt(F a, F b) { return _mm_cmpgt_ps(a, b); }
  static F select(F m, F a, F b) { return _mm_or_ps(_mm_and_ps(m, a), _mm_andnot_ps(m, b)); }
  static I iset1(int32_t v) { return _mm_set1_epi32(v); }
  static I iload(const int32_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
  static I iadd(I a, I b) { return _mm_add_epi32(a, b); }
  static F igt(I a, I b) { return _mm_castsi128_ps(_mm_cmpgt_epi32(a, b)); }
  // Four bytes as four floats.
  static F bytes(const uint8_t* p) {
    int32_t word;
    std::memcpy(&word, p, 4);
    const __m128i z = _mm_setzero_si128();
    return _mm_cvtepi32_ps(_mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_cvtsi32_si128(word), z), z));
  }
  // Four masks as four bytes 0xFF / 0x00.
  static void maskBytes(F m, uint8_t* p) {
    __m128i v = _mm_castps_si128(m);
    v = _mm_packs_epi32(v, v);
    v = _mm_packs_epi16(v, v);
    const int32_t word = _mm_cvtsi128_si32(v);
    std::memcpy(p, &word, 4);
  }
  // [c3, c0, c1, c2]
  static F rot(F c) { return _mm_shuffle_ps(c, c, _MM_SHUFFLE(2, 1, 0, 3)); }
  // [b0, a1, a2, a3]
  static F lane0From(F a, F b) { return _mm_move_ss(a, b); }
  static float lane0(F c) { return _mm_cvtss_f32(c); }
  // The truncating conversion: INT32_MIN for NaN and out-of-range values.
  static I trunc(F a) { return _mm_cvttps_epi32(a); }
  static F fromInt(I a) { return _mm_cvtepi32_ps(a); }
  static I iand(I a, I b) { return _mm_and_si128(a, b); }
  // Bit i set where lane i of a equals lane i of b.
  static int eqBits(I a, I b) { return _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(a, b))); }
  static I ieq(I a, I b) { return _mm_cmpeq_epi32(a, b); }
  static bool allOnes(I a) { return _mm_movemask_ps(_mm_castsi128_ps(a)) == 0xF; }
  static void istore(int32_t* p, I v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }
  // Four values clamped to 0..255 (saturating packs) as four bytes.
  static void clampedBytes(I r, uint8_t* p) {
    r = _mm_packs_epi32(r, r);
    r = _mm_packus_epi16(r, r);
    const int32_t word = _mm_cvtsi128_si32(r);
    std::memcpy(p, &word, 4);
  }
};

// my_round of four floats: x + 0.5f when x >= 0, else x - 0.5f, then the
// truncating conversion, which gives INT32_MIN for NaN and out-of-range
// values just like jv_trunc_i32.
inline __m128i roundFour(__m128 f) {
  const __m128 half = _mm_set1_ps(0.5f);
  const __m128 nonNegative = _mm_cmpge_ps(f, _mm_setzero_ps());
  const __m128 r =
      _mm_or_ps(_mm_and_ps(nonNegative, _mm_add_ps(f, half)), _mm_andnot_ps(nonNegative, _mm_sub_ps(f, half)));
  return _mm_cvttps_epi32(r);
}

// The low bytes of four sums of two doubles each, rounded as my_round((float)sum).
inline __m128i roundedLowBytes(__m128d lo, __m128d hi) {
  return _mm_and_si128(roundFour(_mm_movelh_ps(_mm_cvtpd_ps(lo), _mm_cvtpd_ps(hi))), _mm_set1_epi32(0xFF));
}

inline void storeFour(__m128i v, uint8_t* out) {
  v = _mm_packs_epi32(v, v);
  v = _mm_packus_epi16(v, v);
  const int32_t word = _mm_cvtsi128_si32(v);
  std::memcpy(out, &word, 4);
}

// Sixteen low bytes from four groups of four.
inline void storeSixteen(__m128i a, __m128i b, __m128i c, __m128i d, uint8_t* out) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, d)));
}

inline __m128i loadFourBytes(const uint8_t* p) {
  int32_t word;
  std::memcpy(&word, p, 4);
  return _mm_cvtsi32_si128(word);
}

// Sixteen pixels at a time in eight independent pairs, so that the adds of
// different pixels overlap; each pixel's sum runs over k in order. The
// accumulators are spelled out: compilers keep an array of them in memory.
void blurHorizontalSse2(const double* p, const double* taps, int size, size_t width, uint8_t* out) {
  size_t x = 0;
  for (; x + 16 <= width; x += 16) {
    __m128d s0 = _mm_setzero_pd(), s1 = s0, s2 = s0, s3 = s0, s4 = s0, s5 = s0, s6 = s0, s7 = s0;
    for (int k = 0; k < size; ++k) {
      const __m128d t = _mm_set1_pd(taps[k]);
      const double* q = p + x + k;
      s0 = _mm_add_pd(_mm_mul_pd(_mm_loadu_pd(q), t), s0);
      s1 = _mm_add_pd(_mm_mul_pd(_mm_loadu_pd(q + 2), t), s1);
      s2 = _mm_add_pd(_mm_mul_pd(_mm_loadu_pd(q + 4), t), s2);
      s3 = _mm_add_pd(_mm_mul_pd(_mm_loadu_pd(q + 6), t), s3);
      s4 = _mm_add_pd(_mm_mul_pd(_mm_loadu_pd(q + 8), t), s4);
      s5 = _mm_add_pd(_mm_mul_pd(_mm_loadu_pd(q + 10), t), s5);
      s6 = _mm_add_pd(_mm_mul_pd(_mm_loadu_pd(q + 12), t), s6);
      s7 = _mm_add_pd(_mm_mul_pd(_mm_loadu_pd(q + 14), t), s7);
    }
    storeSixteen(roundedLowBytes(s0, s1), roundedLowBytes(s2, s3), roundedLowBytes(s4, s5), roundedLowBytes(s6, s7),
                 out + x);
  }
  for (; x + 4 <= width; x += 4) {
    __m128d s0 = _mm_setzero_pd(), s1 = _mm_setzero_pd();
    for (int k = 0; k < size; ++k) {
      const __m128d t = _mm_set1_pd(taps[k]);
      s0 = _mm_add_pd(_mm_mul_pd(_mm_loadu_pd(p + x + k), t), s0);
      s1 = _mm_add_pd(_mm_mul_pd(_mm_loadu_pd(p + x + k + 2), t), s1);
    }
    storeFour(roundedLowBytes(s0, s1), out + x);
  }
  blurHorizontalScalar(p, taps, size, x, width, out);
}

void blurVerticalSse2(const uint8_t* const* rows, const double* taps, int size, size_t width, uint8_t* out) {
  const __m128i z = _mm_setzero_si128();
  size_t x = 0;
  for (; x + 16 <= width; x += 16) {
    __m128d s0 = _mm_setzero_pd(), s1 = s0, s2 = s0, s3 = s0, s4 = s0, s5 = s0, s6 = s0, s7 = s0;
    for (int k = 0; k < size; ++k) {
      const __m128d t = _mm_set1_pd(taps[k]);
      const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[k] + x));
      const __m128i lo = _mm_unpacklo_epi8(b, z), hi = _mm_unpackhi_epi8(b, z);
      const __m128i q0 = _mm_unpacklo_epi16(lo, z), q1 = _mm_unpackhi_epi16(lo, z);
      const __m128i q2 = _mm_unpacklo_epi16(hi, z), q3 = _mm_unpackhi_epi16(hi, z);
      s0 = _mm_add_pd(_mm_mul_pd(_mm_cvtepi32_pd(q0), t), s0);
      s1 = _mm_add_pd(_mm_mul_pd(_mm_cvtepi32_pd(_mm_srli_si128(q0, 8)), t), s1);
      s2 = _mm_add_pd(_mm_mul_pd(_mm_cvtepi32_pd(q1), t), s2);
      s3 = _mm_add_pd(_mm_mul_pd(_mm_cvtepi32_pd(_mm_srli_si128(q1, 8)), t), s3);
      s4 = _mm_add_pd(_mm_mul_pd(_mm_cvtepi32_pd(q2), t), s4);
      s5 = _mm_add_pd(_mm_mul_pd(_mm_cvtepi32_pd(_mm_srli_si128(q2, 8)), t), s5);
      s6 = _mm_add_pd(_mm_mul_pd(_mm_cvtepi32_pd(q3), t), s6);
      s7 = _mm_add_pd(_mm_mul_pd(_mm_cvtepi32_pd(_mm_srli_si128(q3, 8)), t), s7);
    }
    storeSixteen(roundedLowBytes(s0, s1), roundedLowBytes(s2, s3), roundedLowBytes(s4, s5), roundedLowBytes(s6, s7),
                 out + x);
  }
  for (; x + 4 <= width; x += 4) {
    __m128d s0 = _mm_setzero_pd(), s1 = _mm_setzero_pd();
    for (int k = 0; k < size; ++k) {
      const __m128d t = _mm_set1_pd(taps[k]);
      const __m128i v = _mm_unpacklo_epi16(_mm_unpacklo_epi8(loadFourBytes(rows[k] + x), z), z);
      s0 = _mm_add_pd(_mm_mul_pd(_mm_cvtepi32_pd(v), t), s0);
      s1 = _mm_add_pd(_mm_mul_pd(_mm_cvtepi32_pd(_mm_srli_si128(v, 8)), t), s1);
    }
    storeFour(roundedLowBytes(s0, s1), out + x);
  }
  blurVerticalScalar(rows, taps, size, x, width, out);
}

void blurRowFloatsSse2(const float* p, const jvk::BlurTaps& taps, size_t width, float* out) {
  blurRowFloatsT<VSse2>(p, taps, width, out);
}

void blurColumnWeightedSse2(const float* const* rows, const jvk::BlurTaps& taps, const float* levels, float alpha,
                            float beta, float gamma, size_t width, uint8_t* out) {
  blurColumnWeightedT<VSse2>(rows, taps, levels, alpha, beta, gamma, width, out);
}


inline __m128 fourFloats(const uint8_t* p) {
  const __m128i z = _mm_setzero_si128();
  return _mm_cvtepi32_ps(_mm_unpacklo_epi16(_mm_unpacklo_epi8(loadFourBytes(p), z), z));
}

void weightedSse2(const uint8_t* a, const uint8_t* b, float alpha, float beta, float gamma, size_t n, uint8_t* out) {
  const __m128 va = _mm_set1_ps(alpha), vb = _mm_set1_ps(beta), vg = _mm_set1_ps(gamma);
  size_t i = 0;
  for (; i + 4 <= n; i += 4) {
    const __m128 sum = _mm_add_ps(_mm_add_ps(_mm_mul_ps(fourFloats(a + i), va), _mm_mul_ps(fourFloats(b + i), vb)), vg);
    // Saturating packs clamp to 0..255 exactly as the plain clamp does.
    storeFour(roundFour(sum), out + i);
  }
  weightedScalar(a, b, alpha, beta, gamma, i, n, out);
}

void edfBandSse2(const jvk::EdfBand& band) { edfBand<VSse2, 2>(band); }

const jvk::Kernels kSse2 = {kJvSimdSse2,
                            8,
                            edfBandSse2,
                            blurHorizontalSse2,
                            blurVerticalSse2,
                            blurRowFloatsSse2,
                            blurColumnWeightedSse2,
                            weightedSse2};

}  // namespace

const jvk::Kernels* jvk::kernelsSse2() { return &kSse2; }

#else

const jvk::Kernels* jvk::kernelsSse2() { return nullptr; }

#endif
