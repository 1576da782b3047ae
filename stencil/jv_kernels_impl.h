// The stencil kernels, written once over a vector type `V` (see the traits
// in jv_kernels_scalar.cpp, jv_kernels_sse2.cpp and jv_kernels_avx2.cpp).
// Each of those files defines JVK_TARGET (empty, or the target attribute of
// its instruction set), includes this file and then defines its traits; no
// include guard, everything has internal linkage. The attribute is spelled
// on every function rather than given as a compiler option, so that
// builds which compile these sources with their own options (the fuzz
// targets) get the same code.
//
// Exactness. Every output is computed with the float or double operations
// of the plain definitions in test_support/, in the same order, with no
// fused multiply-add (the project builds with -ffp-contract=off and the
// intrinsics used here are separate multiplies and adds). A vector holds
// several independent outputs, one per lane, each lane doing exactly the
// scalar sequence. IEEE arithmetic gives the same result for the same
// operands in the same order whatever the lane, so all paths agree. The
// one exception, the unsharp mask's blur sums, keeps the bytes by proof
// instead: see BlurTaps in jv_kernels.h.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "stencil/jv_kernels.h"

#ifndef JVK_TARGET
#error "define JVK_TARGET before including jv_kernels_impl.h"
#endif

// The step functions of the diffusion are small and called with constant
// arguments; inlining them lets the compiler keep the lanes' state in
// registers.
#define JVK_INLINE inline __attribute__((always_inline))
// Loops over a few vectors, unrolled so that the vectors stay in registers.
#define JVK_UNROLL _Pragma("GCC unroll 8")

namespace {

// ---- scalar steps, as in stencil/jv_math.h ----
// (Repeated here rather than included, so that no inline function with
// external linkage is ever compiled with a wider target.)

JVK_TARGET inline int32_t kTrunc(float x) {
  if (!(x >= -2147483648.0f && x < 2147483648.0f)) return INT32_MIN;
  return static_cast<int32_t>(x);
}

JVK_TARGET inline int32_t kRound(float x) {
  if (static_cast<double>(x) >= 0.0) return kTrunc(x + 0.5f);
  return kTrunc(x - 0.5f);
}

JVK_TARGET inline uint8_t kRoundToByte(double sum) { return static_cast<uint8_t>(kRound(static_cast<float>(sum))); }

JVK_TARGET inline void blurHorizontalScalar(const double* p, const double* taps, int size, size_t from, size_t to,
                                            uint8_t* out) {
  for (size_t x = from; x < to; ++x) {
    double sum = 0.0;
    for (int k = 0; k < size; ++k) sum = p[x + static_cast<size_t>(k)] * taps[k] + sum;
    out[x] = kRoundToByte(sum);
  }
}

JVK_TARGET inline void blurVerticalScalar(const uint8_t* const* rows, const double* taps, int size, size_t from,
                                          size_t to, uint8_t* out) {
  for (size_t x = from; x < to; ++x) {
    double sum = 0.0;
    for (int k = 0; k < size; ++k) sum = static_cast<double>(rows[k][x]) * taps[k] + sum;
    out[x] = kRoundToByte(sum);
  }
}

JVK_TARGET inline void weightedScalar(const uint8_t* a, const uint8_t* b, float alpha, float beta, float gamma,
                                      size_t from, size_t to, uint8_t* out) {
  for (size_t i = from; i < to; ++i) {
    const int32_t r = kRound((static_cast<float>(a[i]) * alpha + static_cast<float>(b[i]) * beta) + gamma);
    out[i] = static_cast<uint8_t>(r < 0 ? 0 : (r > 255 ? 255 : r));
  }
}

// ---- the unsharp mask's passes over float rows (BlurTaps, jv_kernels.h) ----
//
// A vector holds neighbouring pixels of one row. The fast path's float sums
// only decide which pixels are certain (see BlurTaps); a pixel that is not
// gets the plain double sum, plainBlurByte.

// Both passes read term k of pixel x at rows[k][x]: the vertical pass from
// taps2 rows, the horizontal one from the padded row shifted by k.

// The plain sum of one pixel.
JVK_TARGET inline uint8_t plainBlurByte(const jvk::BlurTaps& t, const float* const* rows, size_t x) {
  double sum = 0.0;
  for (int k = 0; k < t.size; ++k) sum = static_cast<double>(rows[k][x]) * t.taps[k] + sum;
  return kRoundToByte(sum);
}

// The bytes of U vectors of pixels from x on. The float sums add the middle
// term first, then each pair of equal taps, in the order blurTapsFor
// bounds; a lane whose rounding they do not decide is summed plainly.
// Half: t.half when known at compile time (the loop over the taps is then
// unrolled), 0 otherwise.
template <class V, int U, int Half>
JVK_TARGET JVK_INLINE void blurBytes(const jvk::BlurTaps& t, const float* const* rows, size_t x,
                                     typename V::I (&bytes)[U]) {
  constexpr int W = V::VW;
  const int half = Half > 0 ? Half : t.half;
  typename V::F s[U];
  const typename V::F middle = V::set1(t.paired[half]);
  JVK_UNROLL for (int u = 0; u < U; ++u) s[u] = V::mul(V::load(rows[half] + x + u * W), middle);
  JVK_UNROLL for (int k = 0; k < half; ++k) {
    const typename V::F tap = V::set1(t.paired[k]);
    const float* a = rows[k] + x;
    const float* b = rows[2 * half - k] + x;
    JVK_UNROLL for (int u = 0; u < U; ++u)
      s[u] = V::add(V::mul(V::add(V::load(a + u * W), V::load(b + u * W)), tap), s[u]);
  }
  const typename V::F low = V::set1(t.low), high = V::set1(t.high);
  typename V::I agree = V::iset1(-1);
  typename V::I lo[U];
  JVK_UNROLL for (int u = 0; u < U; ++u) {
    lo[u] = V::trunc(V::add(s[u], low));
    bytes[u] = V::trunc(V::add(s[u], high));
    agree = V::iand(agree, V::ieq(lo[u], bytes[u]));
  }
  if (V::allOnes(agree)) {
    JVK_UNROLL for (int u = 0; u < U; ++u) bytes[u] = V::iand(bytes[u], V::iset1(0xFF));
    return;
  }
  for (int u = 0; u < U; ++u) {
    int unsure = ~V::eqBits(lo[u], bytes[u]) & ((1 << W) - 1);
    bytes[u] = V::iand(bytes[u], V::iset1(0xFF));
    if (unsure == 0) continue;
    alignas(32) int32_t lanes[W];
    V::istore(lanes, bytes[u]);
    for (; unsure != 0; unsure &= unsure - 1) {
      const int i = __builtin_ctz(static_cast<unsigned>(unsure));
      lanes[i] = plainBlurByte(t, rows, x + static_cast<size_t>(u * W + i));
    }
    bytes[u] = V::iload(lanes);
  }
}

// The chain's blur has 11 taps; its passes get their own copy of the loops.
constexpr int kChainHalf = 5;

// A pass over whole vectors, each vector of bytes handed to sink(bytes, x);
// returns where the vectors end.
template <class V, int Half, class Sink>
JVK_TARGET JVK_INLINE size_t blurVectors(const jvk::BlurTaps& t, const float* const* rows, size_t width,
                                         const Sink& sink) {
  constexpr int W = V::VW;
  constexpr int U = 4;
  size_t x = 0;
  for (; x + U * W <= width; x += U * W) {
    typename V::I bytes[U];
    blurBytes<V, U, Half>(t, rows, x, bytes);
    JVK_UNROLL for (int u = 0; u < U; ++u) sink(bytes[u], x + u * W);
  }
  for (; x + W <= width; x += W) {
    typename V::I bytes[1];
    blurBytes<V, 1, Half>(t, rows, x, bytes);
    sink(bytes[0], x);
  }
  return x;
}

template <class V, class Sink>
JVK_TARGET JVK_INLINE size_t blurVectors(const jvk::BlurTaps& t, const float* const* rows, size_t width,
                                         const Sink& sink) {
  if (!t.fast) return 0;
  return t.half == kChainHalf ? blurVectors<V, kChainHalf>(t, rows, width, sink)
                              : blurVectors<V, 0>(t, rows, width, sink);
}

// The horizontal pass keeps its bytes as floats for the vertical one.
template <class V>
struct FloatSink {
  float* out;
  JVK_TARGET JVK_INLINE void operator()(typename V::I bytes, size_t x) const { V::store(out + x, V::fromInt(bytes)); }
};

template <class V>
JVK_TARGET void blurRowFloatsT(const float* p, const jvk::BlurTaps& t, size_t width, float* out) {
  const float* shifted[2 * jvk::kMaxBlurHalf + 1];
  for (int k = 0; k < t.size && k <= 2 * jvk::kMaxBlurHalf; ++k) shifted[k] = p + k;
  size_t x = blurVectors<V>(t, shifted, width, FloatSink<V>{out});
  for (; x < width; ++x) {
    double sum = 0.0;
    for (int k = 0; k < t.size; ++k) sum = static_cast<double>(p[x + static_cast<size_t>(k)]) * t.taps[k] + sum;
    out[x] = kRoundToByte(sum);
  }
}

// The vertical pass weights its bytes v with the levels g:
// out = clamp(my_round((g * alpha + v * beta) + gamma)), as weightedScalar;
// my_round's x - 0.5f below zero is x + -0.5f, and NaN gives INT32_MIN
// either way.
template <class V>
struct WeightedSink {
  typename V::F alpha, beta, gamma, zero, plusHalf, minusHalf;
  const float* levels;
  uint8_t* out;
  JVK_TARGET JVK_INLINE void operator()(typename V::I bytes, size_t x) const {
    const typename V::F g = V::load(levels + x);
    const typename V::F sum = V::add(V::add(V::mul(g, alpha), V::mul(V::fromInt(bytes), beta)), gamma);
    const typename V::F below = V::cmpgt(zero, sum);
    V::clampedBytes(V::trunc(V::add(sum, V::select(below, minusHalf, plusHalf))), out + x);
  }
};

template <class V>
JVK_TARGET void blurColumnWeightedT(const float* const* rows, const jvk::BlurTaps& t, const float* levels,
                                    float alpha, float beta, float gamma, size_t width, uint8_t* out) {
  const WeightedSink<V> sink{V::set1(alpha), V::set1(beta),  V::set1(gamma), V::zero(),
                             V::set1(0.5f),  V::set1(-0.5f), levels,         out};
  size_t x = blurVectors<V>(t, rows, width, sink);
  for (; x < width; ++x) {
    const uint8_t v = plainBlurByte(t, rows, x);
    const int32_t r = kRound((levels[x] * alpha + static_cast<float>(v) * beta) + gamma);
    out[x] = static_cast<uint8_t>(r < 0 ? 0 : (r > 255 ? 255 : r));
  }
}

// ---- 8 x 8 byte blocks ----

// The x86 files define JVK_SSE2_TRANSPOSE after including <emmintrin.h> or
// <immintrin.h>.
#define BLOCK_TARGET JVK_TARGET
#if defined(JVK_SSE2_TRANSPOSE)
#define BLOCK_SSE2 1
#endif
#include "support/byte_blocks_impl.h"
#undef BLOCK_SSE2
#undef BLOCK_TARGET

// ---- the diffusion band ----
//
// The plain scan (test_support/, kref::edfCus) visits the pixels row by
// row; pixel (x, y) reads its error cell, quantises v = cell + level
// against the threshold, and adds share k = e * w[k] to six cells: (x+1, y)
// and (x+2, y) [k = 0, 1], and (x-2, y+1) .. (x+1, y+1) [k = 2 .. 5], each
// as `cell = share + cell`. So the cell (x, y) receives, in this order, the
// shares 5, 4, 3, 2 of (x-1, y-1), (x, y-1), (x+1, y-1), (x+2, y-1), then
// share 1 of (x-2, y) and share 0 of (x-1, y). Every lane adds exactly those
// shares in exactly that order:
//   acc0..acc2  the cells x+1, x, x-1 of the row below, partly summed; at
//               pixel x the cell x-2 is completed (`done`) and passed to the
//               lane below. That lane, 4 pixels behind at x-4, adds share 1
//               of its pixel x-4 to it at once (r1), share 0 of x-3 at the
//               next step (`here`), and does the pixel x-2 the step after.
//   r1          share 1 of x-1 plus the completed upper part of the cell x+1;
//   here        the whole cell of the current pixel.
// The dot of the pixel above is passed down the same way and used 4 steps
// later. Lane 0 takes both from the band above: the completed cells of its
// row (the handoff row) and that band's last row of dots in the image.
//
// A share that falls off the page is dropped in the plain scan. Here the
// lanes run on past the edges with e forced to 0, so such shares land in
// cells that are never read, and the cells that are read receive zeros,
// which only differ from an absent term in the sign of a zero sum. A zero
// of either sign gives the same v once the level (>= +0) is added, so the
// quantised bytes and every later share are identical.
//
// Outputs: 255 where v > threshold. The frame of the page (first and last
// row and column) always subtracts 255; inside, a dot next to a 0 on the
// left or above subtracts less (0.1427 * 255 per such neighbour), picked by
// selects rather than branches.

struct EdfWeights {
  float w[6];
  float adjust[3];
};

// The kernel's constants, built exactly as the plain loop builds them.
// The weights (of the cells x+1 and x+2 of the row, then x-2 .. x+1 of the
// row below) sum to 0.940002 on purpose: about 6 % of every error is
// dropped, and the stencils printed so far rely on it, so never
// renormalise. Two weights are negative. An interior 255 beside 0s is
// quantised against 255 * (1 - 0.1427 k), k the number of its left and
// upper neighbours that came out 0; adjust[k] is what such a dot adds to v,
// the share built up as the plain loop builds it.
JVK_TARGET inline EdfWeights edfWeights() {
  EdfWeights k;
  const float weights[6] = {0.505786f, -0.052926f, 0.226194f, 0.128835f, 0.243191f, -0.111078f};
  for (int i = 0; i < 6; ++i) k.w[i] = weights[i];
  const float share = 0.1427f;
  const float one = share + 0.0f;
  k.adjust[0] = (1.0f - 0.0f) * -255.0f;
  k.adjust[1] = (1.0f - one) * -255.0f;
  k.adjust[2] = (1.0f - (share + one)) * -255.0f;
  return k;
}

// The state of one vector of lanes.
template <class V>
struct EdfRegs {
  typename V::F here;     // the whole error cell of the pixel about to be done
  typename V::F r1;       // share 1 of x-1 plus the completed upper cell of x+1
  typename V::F acc0;     // cell x+1 of the row below (share 5 so far)
  typename V::F acc1;     // cell x of the row below (shares 5, 4)
  typename V::F acc2;     // cell x-1 of the row below (shares 5, 4, 3)
  typename V::F dotPrev;  // the dot of x-1
  typename V::F up[4];    // "the pixel above is 0", by step mod 4
  typename V::F valid;    // the lane's row exists
  typename V::F inner;    // the lane's row is neither the first nor the last
  typename V::I x;        // the lane's position at the start of the block
  // Results of the current step, passed down to the next vector.
  typename V::F done, notDot, share1;
};

template <class V>
struct EdfConsts {
  typename V::F limit, w0, w1, w2, w3, w4, w5, adj0, adj1, adj2, zero, ones;
  typename V::I minusOne, iZero, iWidth, iWidthLess1;
};

// One step of one vector of lanes, up to what it hands on.
template <class V, int VW, int R, int Step, bool Body, bool Capture>
JVK_TARGET JVK_INLINE void edfStepRegs(EdfRegs<V>& g, const EdfConsts<V>& c, const uint8_t* levels, uint8_t* dots,
                                       float* captured, int lane) {
  using F = typename V::F;
  F active = g.valid;
  F inside = g.inner;
  if constexpr (!Body) {
    const typename V::I x = V::iadd(g.x, V::iset1(Step));
    active = V::and_(V::and_(V::igt(x, c.minusOne), V::igt(c.iWidth, x)), active);
    inside = V::and_(V::and_(V::igt(x, c.iZero), V::igt(c.iWidthLess1, x)), inside);
  }
  const int at = (lane / 8) * 64 + Step * 8 + lane % 8;
  const F v = V::add(g.here, V::bytes(levels + at));
  if constexpr (Capture) V::store(captured + Step * R + lane, v);
  const F dot = V::cmpgt(v, c.limit);
  const F leftZero = V::andnot(g.dotPrev, inside);
  const F upperZero = V::and_(g.up[Step % 4], inside);
  F adjust = V::select(V::or_(leftZero, upperZero), c.adj1, c.adj0);
  adjust = V::select(V::and_(leftZero, upperZero), c.adj2, adjust);
  const F e = V::and_(V::add(v, V::and_(dot, adjust)), active);
  V::maskBytes(dot, dots + at);
  g.dotPrev = dot;
  g.notDot = V::andnot(dot, c.ones);
  const F p0 = V::mul(e, c.w0), p1 = V::mul(e, c.w1), p2 = V::mul(e, c.w2);
  const F p3 = V::mul(e, c.w3), p4 = V::mul(e, c.w4), p5 = V::mul(e, c.w5);
  g.done = V::add(p2, g.acc2);
  g.acc2 = V::add(p3, g.acc1);
  g.acc1 = V::add(p4, g.acc0);
  g.acc0 = V::add(p5, c.zero);
  g.here = V::add(p0, g.r1);
  g.share1 = p1;
}

// Every vector of lanes, k = 0 .. K-1, spelled out by recursion so that
// the state stays in registers.
template <class V, int K, int k, int Step, bool Body, bool Capture>
JVK_TARGET JVK_INLINE void edfStepAll(EdfRegs<V> (&g)[K], const EdfConsts<V>& c, const uint8_t* levels, uint8_t* dots,
                                      float* captured) {
  edfStepRegs<V, V::VW, V::VW * K, Step, Body, Capture>(g[k], c, levels, dots, captured, k * V::VW);
  if constexpr (k + 1 < K) edfStepAll<V, K, k + 1, Step, Body, Capture>(g, c, levels, dots, captured);
}

// Each lane passes its completed cell and its dot to the lane below; lane 0
// of vector 0 takes them from the band above.
template <class V, int K, int k, int Step>
JVK_TARGET JVK_INLINE void edfPassDown(EdfRegs<V> (&g)[K], typename V::F cellIn, typename V::F zeroIn) {
  const typename V::F cellFromAbove =
      V::lane0From(V::rot(g[k].done), k == 0 ? cellIn : V::rot(g[k == 0 ? 0 : k - 1].done));
  g[k].r1 = V::add(g[k].share1, cellFromAbove);
  g[k].up[Step % 4] = V::lane0From(V::rot(g[k].notDot), k == 0 ? zeroIn : V::rot(g[k == 0 ? 0 : k - 1].notDot));
  if constexpr (k + 1 < K) edfPassDown<V, K, k + 1, Step>(g, cellIn, zeroIn);
}

struct EdfBlockIo {
  const float* handIn;
  float* handOut;
  const uint8_t* above;
  int64_t width;
  int64_t outLag;
};

// Linked: the band has a band above and one below, and every position the
// block hands over lies on the page, so none of them is checked.
template <class V, int K, int Step, bool Body, bool Capture, bool Linked>
JVK_TARGET JVK_INLINE void edfSteps(EdfRegs<V> (&g)[K], const EdfConsts<V>& c, const EdfBlockIo& io, int64_t t0,
                                    const uint8_t* levels, uint8_t* dots, float* captured) {
  const int64_t t = t0 + Step;
  const int64_t w = io.width;
  // What lane 0 takes from the band above: its completed cell x + 2, and
  // whether its pixel x + 4 (used 4 steps from now) is 0.
  const int64_t cellPos = t + 2;
  const int64_t dotPos = t + jvk::kEdfLag;
  float cellIn;
  bool zeroAbove;
  if constexpr (Linked) {
    cellIn = io.handIn[cellPos];
    zeroAbove = io.above[dotPos] == 0;
  } else {
    cellIn = (io.handIn != nullptr && cellPos >= 0 && cellPos < w) ? io.handIn[cellPos] : 0.0f;
    zeroAbove = io.above != nullptr && dotPos >= 0 && dotPos < w && io.above[dotPos] == 0;
  }
  // As a mask by arithmetic: a `? :` here became a branch on the pixel.
  const uint32_t zeroBits = 0u - static_cast<uint32_t>(zeroAbove);
  float zeroMask;
  std::memcpy(&zeroMask, &zeroBits, 4);
  edfStepAll<V, K, 0, Step, Body, Capture>(g, c, levels, dots, captured);
  edfPassDown<V, K, 0, Step>(g, V::set1(cellIn), V::set1(zeroMask));
  const int64_t outPos = t - io.outLag;
  if (Linked || (io.handOut != nullptr && outPos >= 0 && outPos < w))
    io.handOut[outPos] = V::lane0(V::rot(g[K - 1].done));
  if constexpr (Step + 1 < jvk::kEdfBlock)
    edfSteps<V, K, Step + 1, Body, Capture, Linked>(g, c, io, t0, levels, dots, captured);
}

template <class V, int K, bool Capture>
JVK_TARGET void edfBandKernel(const jvk::EdfBand& a) {
  constexpr int VW = V::VW;
  constexpr int R = VW * K;  // rows in the band, one per lane
  constexpr int G = R / 8;   // groups of eight lanes for the byte transposes
  constexpr int L = jvk::kEdfLag;
  constexpr int B = jvk::kEdfBlock;
  static_assert(R % 8 == 0 && B == 8 && L == 4, "the block transposes handle 8 x 8 bytes; the cell timing needs lag 4");

  const int64_t w = a.width;
  const int64_t h = a.height;
  const int64_t y0 = a.y0;

  uint8_t* rows[R];
  alignas(64) float validBits[R];
  alignas(64) float innerBits[R];
  alignas(64) int32_t xStart[R];
  bool fullBand = true;
  for (int j = 0; j < R; ++j) {
    const int64_t y = y0 + j;
    rows[j] = y < h ? a.image + y * w : nullptr;
    fullBand = fullBand && y < h;
    const uint32_t valid = y < h ? 0xFFFFFFFFu : 0u;
    const uint32_t inner = (y >= 1 && y < h - 1) ? 0xFFFFFFFFu : 0u;
    std::memcpy(&validBits[j], &valid, 4);
    std::memcpy(&innerBits[j], &inner, 4);
    xStart[j] = static_cast<int32_t>(jvk::kEdfFirstStep - int64_t{L} * j);
  }

  const EdfWeights kw = edfWeights();
  EdfConsts<V> c;
  c.limit = V::set1(a.limit);
  c.w0 = V::set1(kw.w[0]);
  c.w1 = V::set1(kw.w[1]);
  c.w2 = V::set1(kw.w[2]);
  c.w3 = V::set1(kw.w[3]);
  c.w4 = V::set1(kw.w[4]);
  c.w5 = V::set1(kw.w[5]);
  c.adj0 = V::set1(kw.adjust[0]);
  c.adj1 = V::set1(kw.adjust[1]);
  c.adj2 = V::set1(kw.adjust[2]);
  c.zero = V::zero();
  c.ones = V::ones();
  // Positions: lanes x > -1 and x < width are on the page; x > 0 and
  // x < width - 1 are inside the frame. Widths here fit 31 bits.
  c.minusOne = V::iset1(-1);
  c.iZero = V::iset1(0);
  c.iWidth = V::iset1(static_cast<int32_t>(w));
  c.iWidthLess1 = V::iset1(static_cast<int32_t>(w - 1));

  EdfRegs<V> g[K];
  for (int k = 0; k < K; ++k) {
    g[k].valid = V::load(validBits + k * VW);
    g[k].inner = V::load(innerBits + k * VW);
    g[k].x = V::iload(xStart + k * VW);
    g[k].here = g[k].r1 = g[k].acc0 = g[k].acc1 = g[k].acc2 = g[k].dotPrev = c.zero;
    g[k].done = g[k].notDot = g[k].share1 = c.zero;
    for (int i = 0; i < 4; ++i) g[k].up[i] = c.zero;
  }

  // Lane R-1 completes the cell x - 2 of the row below the band.
  const EdfBlockIo io{a.handoffIn, a.handoffOut, y0 > 0 ? a.image + (y0 - 1) * w : nullptr, w,
                      int64_t{L} * (R - 1) + 2};
  const int64_t tEnd = jvk::edfEndStep(w, R);

  alignas(64) uint8_t levels[G * 64];  // [group][step][lane in group]
  alignas(64) uint8_t dots[G * 64];
  alignas(64) uint8_t byLane[64];
  alignas(16) uint8_t scratch[8][8];
  alignas(64) float captured[Capture ? B * R : 1];  // v of the block, [step][lane]

  for (int64_t t0 = jvk::kEdfFirstStep; t0 < tEnd; t0 += B) {
    if (a.sync != nullptr) a.sync->waitAbove(jvk::edfStepsNeeded(t0, R));
    // All lanes inside the frame for the whole block, on rows that exist:
    // no position masks and no clipping.
    const bool body = fullBand && t0 - int64_t{L} * (R - 1) >= 1 && t0 + B - 1 <= w - 2;

    // Lane j reads and writes the eight pixels from x0 = t0 - L * j on.
    for (int gr = 0; gr < G; ++gr) {
      const uint8_t* src[8];
      if (body) {
        JVK_UNROLL for (int l = 0; l < 8; ++l) src[l] = rows[gr * 8 + l] + (t0 - int64_t{L} * (gr * 8 + l));
      } else {
        for (int l = 0; l < 8; ++l)
          src[l] = clippedEight(rows[gr * 8 + l], t0 - int64_t{L} * (gr * 8 + l), w, scratch[l]);
      }
      transpose8x8(src, levels + gr * 64);
    }

    const bool linked = body && io.handIn != nullptr && io.above != nullptr && io.handOut != nullptr && t0 + 2 >= 0 &&
                        t0 + B - 1 + L < w && t0 - io.outLag >= 0 && t0 + B - 1 - io.outLag < w;
    if (linked)
      edfSteps<V, K, 0, true, Capture, true>(g, c, io, t0, levels, dots, captured);
    else if (body)
      edfSteps<V, K, 0, true, Capture, false>(g, c, io, t0, levels, dots, captured);
    else
      edfSteps<V, K, 0, false, Capture, false>(g, c, io, t0, levels, dots, captured);

    for (int gr = 0; gr < G; ++gr) {
      const uint8_t* src[8];
      JVK_UNROLL for (int s = 0; s < 8; ++s) src[s] = dots + gr * 64 + s * 8;
      transpose8x8(src, byLane);
      if (body) {
        JVK_UNROLL for (int l = 0; l < 8; ++l)
          std::memcpy(rows[gr * 8 + l] + (t0 - int64_t{L} * (gr * 8 + l)), byLane + l * 8, 8);
      } else {
        for (int l = 0; l < 8; ++l)
          storeClippedEight(rows[gr * 8 + l], t0 - int64_t{L} * (gr * 8 + l), w, byLane + l * 8);
      }
    }
    if constexpr (Capture) {
      for (int j = 0; j < R; ++j)
        for (int i = 0; i < B; ++i) {
          const int64_t x = t0 + i - int64_t{L} * j;
          if (rows[j] != nullptr && x >= 0 && x < w) a.values[(y0 + j) * w + x] = captured[i * R + j];
        }
    }
    for (int k = 0; k < K; ++k) g[k].x = V::iadd(g[k].x, V::iset1(B));
    if (a.sync != nullptr) a.sync->publish(t0 + B);
  }
}

template <class V, int K>
JVK_TARGET void edfBand(const jvk::EdfBand& band) {
  if (band.values != nullptr)
    edfBandKernel<V, K, true>(band);
  else
    edfBandKernel<V, K, false>(band);
}

}  // namespace
