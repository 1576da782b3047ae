// The stencil kernels in portable C++: the only path off x86, and a third
// path the equivalence tests check on x86. The diffusion still runs eight
// rows at once (eight independent chains for the processor to overlap),
// with selects on bit masks rather than branches.
#include <cstring>

#include "stencil/jv_kernels.h"
#include "stencil/jv_run.h"

#define JVK_TARGET
#include "stencil/jv_kernels_impl.h"

namespace {

struct VScalar {
  static constexpr int VW = 1;
  using F = float;  // a mask is a float whose bits are all ones or all zeros
  using I = int32_t;
  static uint32_t bits(F a) {
    uint32_t u;
    std::memcpy(&u, &a, 4);
    return u;
  }
  static F fromBits(uint32_t u) {
    F f;
    std::memcpy(&f, &u, 4);
    return f;
  }
  static uint32_t maskOf(bool b) { return 0u - static_cast<uint32_t>(b); }
  static F zero() { return 0.0f; }
  static F ones() { return fromBits(0xFFFFFFFFu); }
  static F set1(float v) { return v; }
  static F load(const float* p) { return *p; }
  static void store(float* p, F v) { *p = v; }
  static F add(F a, F b) { return a + b; }
  static F mul(F a, F b) { return a * b; }
  static F and_(F a, F b) { return fromBits(bits(a) & bits(b)); }
  static F andnot(F a, F b) { return fromBits(~bits(a) & bits(b)); }
  static F or_(F a, F b) { return fromBits(bits(a) | bits(b)); }
  static F cmpgt(F a, F b) { return fromBits(maskOf(a > b)); }
  static F select(F m, F a, F b) { return fromBits((bits(m) & bits(a)) | (~bits(m) & bits(b))); }
  static I iset1(int32_t v) { return v; }
  static I iload(const int32_t* p) { return *p; }
  static I iadd(I a, I b) { return a + b; }
  static F igt(I a, I b) { return fromBits(maskOf(a > b)); }
  static F bytes(const uint8_t* p) { return static_cast<float>(p[0]); }
  static void maskBytes(F m, uint8_t* p) { p[0] = static_cast<uint8_t>(bits(m)); }
  // One lane: the lane below takes the value whole.
  static F rot(F c) { return c; }
  static F lane0From(F, F b) { return b; }
  static float lane0(F c) { return c; }
  static I trunc(F a) { return kTrunc(a); }
  static F fromInt(I a) { return static_cast<float>(a); }
  static I iand(I a, I b) { return a & b; }
  static int eqBits(I a, I b) { return a == b ? 1 : 0; }
  static I ieq(I a, I b) { return a == b ? -1 : 0; }
  static bool allOnes(I a) { return a == -1; }
  static void istore(int32_t* p, I v) { *p = v; }
  static void clampedBytes(I r, uint8_t* p) { p[0] = static_cast<uint8_t>(r < 0 ? 0 : (r > 255 ? 255 : r)); }
};

void blurHorizontal(const double* p, const double* taps, int size, size_t width, uint8_t* out) {
  blurHorizontalScalar(p, taps, size, 0, width, out);
}

void blurVertical(const uint8_t* const* rows, const double* taps, int size, size_t width, uint8_t* out) {
  blurVerticalScalar(rows, taps, size, 0, width, out);
}

void blurRowFloats(const float* p, const jvk::BlurTaps& taps, size_t width, float* out) {
  blurRowFloatsT<VScalar>(p, taps, width, out);
}

void blurColumnWeighted(const float* const* rows, const jvk::BlurTaps& taps, const float* levels, float alpha,
                        float beta, float gamma, size_t width, uint8_t* out) {
  blurColumnWeightedT<VScalar>(rows, taps, levels, alpha, beta, gamma, width, out);
}


void weighted(const uint8_t* a, const uint8_t* b, float alpha, float beta, float gamma, size_t n, uint8_t* out) {
  weightedScalar(a, b, alpha, beta, gamma, 0, n, out);
}

void edfBandScalar(const jvk::EdfBand& band) { edfBand<VScalar, 8>(band); }

const jvk::Kernels kScalar = {
    kJvSimdScalar, 8, edfBandScalar, blurHorizontal, blurVertical, blurRowFloats, blurColumnWeighted, weighted};

}  // namespace

const jvk::Kernels& jvk::kernelsScalar() { return kScalar; }
