// The stencil kernels on AVX2, chosen at run time on CPUs that have it.
// Only AVX2 proper: no FMA, every multiply and add rounds on its own.
#include "stencil/jv_kernels.h"
#include "stencil/jv_run.h"

#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#define JVK_SSE2_TRANSPOSE 1
#define JVK_TARGET __attribute__((target("avx2")))
#include "stencil/jv_kernels_impl.h"

namespace {

struct VAvx2 {
  static constexpr int VW = 8;
  using F = __m256;   // a mask is a lane of all ones or all zeros
  using I = __m256i;  // int32 lanes
  JVK_TARGET static F zero() { return _mm256_setzero_ps(); }
  JVK_TARGET static F ones() { return _mm256_castsi256_ps(_mm256_set1_epi32(-1)); }
  JVK_TARGET static F set1(float v) { return _mm256_set1_ps(v); }
  JVK_TARGET static F load(const float* p) { return _mm256_loadu_ps(p); }
  JVK_TARGET static void store(float* p, F v) { _mm256_storeu_ps(p, v); }
  JVK_TARGET static F add(F a, F b) { return _mm256_add_ps(a, b); }
  JVK_TARGET static F mul(F a, F b) { return _mm256_mul_ps(a, b); }
  JVK_TARGET static F and_(F a, F b) { return _mm256_and_ps(a, b); }
  JVK_TARGET static F andnot(F a, F b) { return _mm256_andnot_ps(a, b); }  // ~a & b
  JVK_TARGET static F or_(F a, F b) { return _mm256_or_ps(a, b); }
  JVK_TARGET static F cmpgt(F a, F b) { return _mm256_cmp_ps(a, b, _CMP_GT_OQ); }
  JVK_TARGET static F select(F m, F a, F b) { return _mm256_blendv_ps(b, a, m); }
  JVK_TARGET static I iset1(int32_t v) { return _mm256_set1_epi32(v); }
  JVK_TARGET static I iload(const int32_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
  JVK_TARGET static I iadd(I a, I b) { return _mm256_add_epi32(a, b); }
  JVK_TARGET static F igt(I a, I b) { return _mm256_castsi256_ps(_mm256_cmpgt_epi32(a, b)); }
  // Eight bytes as eight floats.
  JVK_TARGET static F bytes(const uint8_t* p) {
    return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p))));
  }
  // Eight masks as eight bytes 0xFF / 0x00.
  JVK_TARGET static void maskBytes(F m, uint8_t* p) {
    const __m256i v = _mm256_castps_si256(m);
    __m128i b = _mm_packs_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    b = _mm_packs_epi16(b, b);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(p), b);
  }
  // [c7, c0, ..., c6]
  JVK_TARGET static F rot(F c) { return _mm256_permutevar8x32_ps(c, _mm256_setr_epi32(7, 0, 1, 2, 3, 4, 5, 6)); }
  // [b0, a1, ..., a7]
  JVK_TARGET static F lane0From(F a, F b) { return _mm256_blend_ps(a, b, 1); }
  JVK_TARGET static float lane0(F c) { return _mm256_cvtss_f32(c); }
  // The truncating conversion: INT32_MIN for NaN and out-of-range values.
  JVK_TARGET static I trunc(F a) { return _mm256_cvttps_epi32(a); }
  JVK_TARGET static F fromInt(I a) { return _mm256_cvtepi32_ps(a); }
  JVK_TARGET static I iand(I a, I b) { return _mm256_and_si256(a, b); }
  // Bit i set where lane i of a equals lane i of b.
  JVK_TARGET static int eqBits(I a, I b) { return _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_cmpeq_epi32(a, b))); }
  JVK_TARGET static I ieq(I a, I b) { return _mm256_cmpeq_epi32(a, b); }
  JVK_TARGET static bool allOnes(I a) { return _mm256_movemask_ps(_mm256_castsi256_ps(a)) == 0xFF; }
  JVK_TARGET static void istore(int32_t* p, I v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }
  // Eight values clamped to 0..255 (saturating packs) as eight bytes.
  JVK_TARGET static void clampedBytes(I r, uint8_t* p) {
    const __m128i v = _mm_packs_epi32(_mm256_castsi256_si128(r), _mm256_extracti128_si256(r, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packus_epi16(v, v));
  }
};

// my_round of four floats, as in the SSE2 file.
JVK_TARGET inline __m128i roundFour(__m128 f) {
  const __m128 half = _mm_set1_ps(0.5f);
  const __m128 nonNegative = _mm_cmpge_ps(f, _mm_setzero_ps());
  return _mm_cvttps_epi32(_mm_blendv_ps(_mm_sub_ps(f, half), _mm_add_ps(f, half), nonNegative));
}

// The low bytes of four double sums, rounded as my_round((float)sum).
JVK_TARGET inline __m128i roundedLowBytes(__m256d s) {
  return _mm_and_si128(roundFour(_mm256_cvtpd_ps(s)), _mm_set1_epi32(0xFF));
}

JVK_TARGET inline void storeEight(__m128i a, __m128i b, uint8_t* out) {
  const __m128i v = _mm_packs_epi32(a, b);
  _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(v, v));
}

JVK_TARGET inline void storeSixteen(__m128i a, __m128i b, __m128i c, __m128i d, uint8_t* out) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, d)));
}

// Four bytes as four doubles.
JVK_TARGET inline __m256d fourDoubles(const uint8_t* p) {
  int32_t word;
  std::memcpy(&word, p, 4);
  return _mm256_cvtepi32_pd(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(word)));
}

// 32 pixels at a time in eight independent vectors, so that the adds of
// different pixels overlap; each pixel's sum runs over k in order.
JVK_TARGET void blurHorizontalAvx2(const double* p, const double* taps, int size, size_t width, uint8_t* out) {
  size_t x = 0;
  for (; x + 32 <= width; x += 32) {
    // Spelled out: the compilers keep an array of accumulators in memory.
    __m256d s0 = _mm256_setzero_pd(), s1 = s0, s2 = s0, s3 = s0, s4 = s0, s5 = s0, s6 = s0, s7 = s0;
    for (int k = 0; k < size; ++k) {
      const __m256d t = _mm256_set1_pd(taps[k]);
      const double* q = p + x + k;
      s0 = _mm256_add_pd(_mm256_mul_pd(_mm256_loadu_pd(q), t), s0);
      s1 = _mm256_add_pd(_mm256_mul_pd(_mm256_loadu_pd(q + 4), t), s1);
      s2 = _mm256_add_pd(_mm256_mul_pd(_mm256_loadu_pd(q + 8), t), s2);
      s3 = _mm256_add_pd(_mm256_mul_pd(_mm256_loadu_pd(q + 12), t), s3);
      s4 = _mm256_add_pd(_mm256_mul_pd(_mm256_loadu_pd(q + 16), t), s4);
      s5 = _mm256_add_pd(_mm256_mul_pd(_mm256_loadu_pd(q + 20), t), s5);
      s6 = _mm256_add_pd(_mm256_mul_pd(_mm256_loadu_pd(q + 24), t), s6);
      s7 = _mm256_add_pd(_mm256_mul_pd(_mm256_loadu_pd(q + 28), t), s7);
    }
    storeSixteen(roundedLowBytes(s0), roundedLowBytes(s1), roundedLowBytes(s2), roundedLowBytes(s3), out + x);
    storeSixteen(roundedLowBytes(s4), roundedLowBytes(s5), roundedLowBytes(s6), roundedLowBytes(s7), out + x + 16);
  }
  for (; x + 8 <= width; x += 8) {
    __m256d s0 = _mm256_setzero_pd(), s1 = _mm256_setzero_pd();
    for (int k = 0; k < size; ++k) {
      const __m256d t = _mm256_set1_pd(taps[k]);
      s0 = _mm256_add_pd(_mm256_mul_pd(_mm256_loadu_pd(p + x + k), t), s0);
      s1 = _mm256_add_pd(_mm256_mul_pd(_mm256_loadu_pd(p + x + k + 4), t), s1);
    }
    storeEight(roundedLowBytes(s0), roundedLowBytes(s1), out + x);
  }
  blurHorizontalScalar(p, taps, size, x, width, out);
}

JVK_TARGET void blurVerticalAvx2(const uint8_t* const* rows, const double* taps, int size, size_t width, uint8_t* out) {
  size_t x = 0;
  for (; x + 32 <= width; x += 32) {
    __m256d s0 = _mm256_setzero_pd(), s1 = s0, s2 = s0, s3 = s0, s4 = s0, s5 = s0, s6 = s0, s7 = s0;
    for (int k = 0; k < size; ++k) {
      const __m256d t = _mm256_set1_pd(taps[k]);
      const uint8_t* q = rows[k] + x;
      s0 = _mm256_add_pd(_mm256_mul_pd(fourDoubles(q), t), s0);
      s1 = _mm256_add_pd(_mm256_mul_pd(fourDoubles(q + 4), t), s1);
      s2 = _mm256_add_pd(_mm256_mul_pd(fourDoubles(q + 8), t), s2);
      s3 = _mm256_add_pd(_mm256_mul_pd(fourDoubles(q + 12), t), s3);
      s4 = _mm256_add_pd(_mm256_mul_pd(fourDoubles(q + 16), t), s4);
      s5 = _mm256_add_pd(_mm256_mul_pd(fourDoubles(q + 20), t), s5);
      s6 = _mm256_add_pd(_mm256_mul_pd(fourDoubles(q + 24), t), s6);
      s7 = _mm256_add_pd(_mm256_mul_pd(fourDoubles(q + 28), t), s7);
    }
    storeSixteen(roundedLowBytes(s0), roundedLowBytes(s1), roundedLowBytes(s2), roundedLowBytes(s3), out + x);
    storeSixteen(roundedLowBytes(s4), roundedLowBytes(s5), roundedLowBytes(s6), roundedLowBytes(s7), out + x + 16);
  }
  for (; x + 8 <= width; x += 8) {
    __m256d s0 = _mm256_setzero_pd(), s1 = _mm256_setzero_pd();
    for (int k = 0; k < size; ++k) {
      const __m256d t = _mm256_set1_pd(taps[k]);
      s0 = _mm256_add_pd(_mm256_mul_pd(fourDoubles(rows[k] + x), t), s0);
      s1 = _mm256_add_pd(_mm256_mul_pd(fourDoubles(rows[k] + x + 4), t), s1);
    }
    storeEight(roundedLowBytes(s0), roundedLowBytes(s1), out + x);
  }
  blurVerticalScalar(rows, taps, size, x, width, out);
}

JVK_TARGET void blurRowFloatsAvx2(const float* p, const jvk::BlurTaps& taps, size_t width, float* out) {
  blurRowFloatsT<VAvx2>(p, taps, width, out);
}

JVK_TARGET void blurColumnWeightedAvx2(const float* const* rows, const jvk::BlurTaps& taps, const float* levels,
                                       float alpha, float beta, float gamma, size_t width, uint8_t* out) {
  blurColumnWeightedT<VAvx2>(rows, taps, levels, alpha, beta, gamma, width, out);
}


// Eight bytes as eight floats.
JVK_TARGET inline __m256 eightFloats(const uint8_t* p) {
  return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p))));
}

JVK_TARGET void weightedAvx2(const uint8_t* a, const uint8_t* b, float alpha, float beta, float gamma, size_t n,
                             uint8_t* out) {
  const __m256 va = _mm256_set1_ps(alpha), vb = _mm256_set1_ps(beta), vg = _mm256_set1_ps(gamma);
  const __m256 half = _mm256_set1_ps(0.5f);
  size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m256 sum =
        _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(eightFloats(a + i), va), _mm256_mul_ps(eightFloats(b + i), vb)), vg);
    const __m256 nonNegative = _mm256_cmp_ps(sum, _mm256_setzero_ps(), _CMP_GE_OQ);
    const __m256i r =
        _mm256_cvttps_epi32(_mm256_blendv_ps(_mm256_sub_ps(sum, half), _mm256_add_ps(sum, half), nonNegative));
    // Saturating packs clamp to 0..255 exactly as the plain clamp does.
    storeEight(_mm256_castsi256_si128(r), _mm256_extracti128_si256(r, 1), out + i);
  }
  weightedScalar(a, b, alpha, beta, gamma, i, n, out);
}

JVK_TARGET void edfBandAvx2(const jvk::EdfBand& band) { edfBand<VAvx2, 2>(band); }

const jvk::Kernels kAvx2 = {kJvSimdAvx2,
                            16,
                            edfBandAvx2,
                            blurHorizontalAvx2,
                            blurVerticalAvx2,
                            blurRowFloatsAvx2,
                            blurColumnWeightedAvx2,
                            weightedAvx2};

}  // namespace

const jvk::Kernels* jvk::kernelsAvx2() { return &kAvx2; }

#else

const jvk::Kernels* jvk::kernelsAvx2() { return nullptr; }

#endif
