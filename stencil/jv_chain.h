#pragma once
// The stencil chain's stages over plain pixel buffers, as the chain and the
// public entries of jv_enhance.h and jv_tattoo.h run them.
#include <cstdint>

#include "stencil/jv_kernels.h"

namespace jvk {

// thresh_global_moments of `n` gray bytes (n as the chain's 32-bit
// pixel count).
int momentsThreshold(const uint8_t* gray, int32_t n);

// The gamma table of enh_piecewise_gamma.
void gammaTable(int pivot, float gammaLow, float gammaHigh, uint8_t table[256]);

// out = add_Weighted(g, enh_gaussian_filter_fast(g, size, sigma), weight)
// for g = table[gray], as taps2 = 2 * (size / 2) + 1 taps from
// generateGaussianKernel1D: one pass over the rows, each thread taking a
// run of whole rows, without the page-sized intermediate images. `table`
// may be null (g = gray). `out` may be `gray` itself (the page is then
// sharpened in place) but must not overlap it otherwise.
void unsharpInto(const uint8_t* gray, int64_t width, int64_t height, const uint8_t* table, const double* taps,
                 int taps2, float weight, uint8_t* out, const Kernels& kernels, int threads);

// edf_cus in place: the bytes are the levels on entry and the 0/255 page
// afterwards. `values` is for the tests: when not null it receives every
// pixel's v (its error cell plus its level) at y * width + x.
void edfInPlace(uint8_t* image, int64_t width, int64_t height, int threshold, const Kernels& kernels, int threads,
                float* values = nullptr);

// The same, one pixel at a time: the path for pages too wide for the band
// kernels (over 2^30 pixels a row). Exposed for the tests.
void edfSerialInPlace(uint8_t* image, int64_t width, int64_t height, int threshold, float* values = nullptr);

}  // namespace jvk
