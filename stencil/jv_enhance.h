#pragma once
// Image operations the stencil chain is assembled from. Except cvtGray they
// read one byte per pixel (byte y * width + x) whatever `channels` says; the
// chain only hands them the gray record from cvtGray.

#include "stencil/jv_image.h"
#include "stencil/jv_run.h"

JVImage cvtGray(const JVImage& src);

// Moment-preserving two-level threshold: 0..255, 128 for a negative
// discriminant, -1 when no level qualifies. Where the plain computation
// would never end (a discriminant that is not finite, e.g. a page of one
// single gray level, or a square root that never settles) the result is
// 128, the value of a negative discriminant.
int thresh_global_moments(const JVImage& gray);

// Two-segment gamma table applied in place: [0, pivot) with gammaLow,
// [pivot, 255] with gammaHigh. With pivot 255 entry 255 is 255 (the plain
// curve would divide 0 by 0 and never end).
void enh_piecewise_gamma(JVImage& img, int pivot, float gammaLow, float gammaHigh);

// Fills 2 * (size / 2) + 1 taps (one more than `size` for even sizes; only
// the first `size` are normalised).
void generateGaussianKernel1D(int size, double sigma, double* taps);

// Edge pixels are repeated past the border.
JVImage convolve1D(const JVImage& src, const double* taps, int size, bool horizontal);
JVImage convolve1D(const JVImage& src, const double* taps, int size, bool horizontal, const JVRunOptions& options);

// Separable blur: horizontal pass, then vertical pass on its rounded bytes.
JVImage enh_gaussian_filter_fast(const JVImage& src, int size, double sigma);
JVImage enh_gaussian_filter_fast(const JVImage& src, int size, double sigma, const JVRunOptions& options);

// clamp(round(a * (1 + weight) - b * weight)); b must hold at least
// a.width * a.height bytes.
JVImage add_Weighted(const JVImage& a, const JVImage& b, float weight);
JVImage add_Weighted(const JVImage& a, const JVImage& b, float weight, const JVRunOptions& options);

// Sharpens by `amount` percent against a Gaussian blur of `size` taps; the
// blur's sigma is always 3. One-byte gray records go through jvUnsharpGray.
JVImage enh_unsharp_mask(const JVImage& src, float amount, int size);
JVImage enh_unsharp_mask(const JVImage& src, float amount, int size, const JVRunOptions& options);

// enh_unsharp_mask of the gray record g = table[gray] (g = gray when table
// is null), computed row by row on options.threads threads without the
// intermediate images: the same bytes, much less memory.
JVImage jvUnsharpGray(const unsigned char* gray, int width, int height, const unsigned char* table, float amount,
                      int size, const JVRunOptions& options);
// The same into `out` (width * height bytes), which may be `gray` itself.
void jvUnsharpGrayInto(const unsigned char* gray, int width, int height, const unsigned char* table, float amount,
                       int size, const JVRunOptions& options, unsigned char* out);

// The default vector path of every stencil stage (jv_run.h): kJvSimdScalar
// (-1, portable C++), kJvSimdSse2 (0, the x86-64 baseline) or kJvSimdAvx2
// (1, where the CPU has it; the initial default then). Every path gives the
// same bytes. Returns the level in force afterwards.
int jvSetSimdLevel(int level);
