#pragma once
// Inner loops of the stencil chain, one table of them per vector path
// (portable scalar, SSE2, AVX2), all built from jv_kernels_impl.h. Every
// path gives the same bytes: each output is computed with exactly the float
// and double operations of the plain definitions, in the same order, or, in
// the unsharp mask's blur passes, decided by a float sum only where its
// error bound proves the plain sum's byte (BlurTaps) and otherwise summed
// plainly; a vector only ever holds independent outputs (neighbouring
// pixels of a row, or pixels of different rows), never the terms of one sum.
#include <cstddef>
#include <cstdint>

namespace jvk {

// ---- error diffusion (edf_cus) as a wavefront over bands of rows ----
//
// A band is `rows` consecutive image rows, one per vector lane. The lanes
// run skewed: at step t lane j works on pixel x = t - kEdfLag * j of row
// y0 + j. A pixel needs its row's errors from the row above complete up to
// x + 2 and that row's dot at x; with a lag of 4 both were produced two or
// more steps earlier, so every error cell receives exactly the additions
// of the plain scan, in the same order (see jv_kernels_impl.h).
//
// Steps run in blocks of kEdfBlock from edfFirstStep() to edfEndStep().
// The first row of a band takes its errors from the band above through a
// handoff row, and its row above is already dots in the image.
constexpr int kEdfLag = 4;
constexpr int kEdfBlock = 8;
constexpr int64_t kEdfFirstStep = -kEdfLag;

// One past the last step of a band of `rows` rows on a page `width` wide:
// lane rows - 1 completes the handoff cell width - 1 at x = width + 1.
inline constexpr int64_t edfEndStep(int64_t width, int rows) {
  return kEdfFirstStep + (width + 2 + int64_t{kEdfLag} * rows + kEdfBlock - 1) / kEdfBlock * kEdfBlock;
}

// Steps of the band above that must be done before a band runs the block
// starting at step t0: its handoff cell x + 2 and its dot x + kEdfLag,
// for the block's last pixel x of lane 0.
inline constexpr int64_t edfStepsNeeded(int64_t t0, int rows) { return t0 + kEdfBlock + int64_t{kEdfLag} * rows; }

// How a band waits for the one above and tells the one below. Only the
// threaded driver provides one.
class BandSync {
 public:
  // Returns once the band above has done every step before `steps`.
  virtual void waitAbove(int64_t steps) = 0;
  // This band has done, and stored, every step before `steps`.
  virtual void publish(int64_t steps) = 0;

 protected:
  ~BandSync() = default;
};

struct EdfBand {
  uint8_t* image;  // width * height bytes: levels in, 0/255 out (rows y0 .. y0 + rows - 1)
  int64_t width;
  int64_t height;
  int64_t y0;
  float limit;
  const float* handoffIn;  // errors of row y0 from row y0 - 1; nullptr for row 0
  float* handoffOut;       // errors of row y0 + rows from this band; nullptr on the last band
  BandSync* sync;          // nullptr: no other band runs at the same time
  // For the tests: when not null, receives every pixel's v (error cell plus
  // level, before quantising) at y * width + x, so that they can compare
  // the float steps bit for bit, not just the bytes they decide.
  float* values;
};

// The taps of a blur pass, ready for the unsharp mask's kernels.
//
// Each output of a pass is the low byte of my_round((float)D), D the double
// sum of the plain definition. Where the taps allow it (`fast`: an odd
// count up to 2 * kMaxBlurHalf + 1, positive, the same on both sides of
// the middle) a kernel first sums in float, the two terms of equal taps
// added before they are multiplied: A, within `bound` of D for inputs of
// 0..255 (blurTapsFor adds up every rounding and the difference of the
// float taps from the double ones). It then rounds A + low and A + high,
// low and high being 0.5 -/+ that bound widened by the roundings of
// (float)D, of my_round's own + 0.5 and of these two additions. When both
// truncate to the same j, D + 0.5 lies at least those roundings away from
// either whole number around it, so my_round((float)D) is j as well; when
// they differ, which happens for a few pixels in ten thousand, the pixel
// is summed again as the plain definition sums it. Without `fast` every
// pixel is.
constexpr int kMaxBlurHalf = 15;
struct BlurTaps {
  const double* taps;  // all `size` of them
  int size;
  int half;                      // size / 2
  bool fast;
  float paired[kMaxBlurHalf + 1];  // (float)taps[k], k = 0 .. half
  float low, high;
  double bound;
};
BlurTaps blurTapsFor(const double* taps, int size);

struct Kernels {
  int level;    // kJvSimdScalar, kJvSimdSse2 or kJvSimdAvx2
  int edfRows;  // rows per diffusion band
  void (*edfBand)(const EdfBand& band);
  // out[x] = low byte of my_round((float)sum), sum over k = 0..size-1 of
  // sum = padded[x + k] * taps[k] + sum, from 0.0.
  void (*blurHorizontal)(const double* padded, const double* taps, int size, size_t width, uint8_t* out);
  // The same along a column: the k-th term reads rows[k][x].
  void (*blurVertical)(const uint8_t* const* rows, const double* taps, int size, size_t width, uint8_t* out);
  // The unsharp mask's two passes over float rows that hold whole numbers
  // 0..255 (levels, then horizontally blurred bytes), with the same bytes
  // as blurHorizontal and blurVertical; see BlurTaps for how.
  // out[x] = the byte blurHorizontal gives, as a float.
  void (*blurRowFloats)(const float* padded, const BlurTaps& taps, size_t width, float* out);
  // The byte v that blurVertical gives for rows[k][x], weighted with the
  // level levels[x] (a whole number 0..255) as `weighted` does.
  void (*blurColumnWeighted)(const float* const* rows, const BlurTaps& taps, const float* levels, float alpha,
                             float beta, float gamma, size_t width, uint8_t* out);
  // out[i] = clamp(my_round((a[i] * alpha + b[i] * beta) + gamma), 0, 255).
  void (*weighted)(const uint8_t* a, const uint8_t* b, float alpha, float beta, float gamma, size_t n, uint8_t* out);
};

const Kernels& kernelsScalar();
// Null where the path is not compiled in (off x86).
const Kernels* kernelsSse2();
const Kernels* kernelsAvx2();

// The table for a vector path (jv_run.h), falling back to what the CPU has.
const Kernels& kernelsFor(int level);

}  // namespace jvk
