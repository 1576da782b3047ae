#include "stencil/jv_enhance.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

#include "stencil/jv_chain.h"
#include "stencil/jv_kernels.h"
#include "stencil/jv_math.h"

namespace {

// Pixel count as the 32-bit product the histogram and the chain use.
int32_t pixelCount32(const JVImage& img) {
  return static_cast<int32_t>(static_cast<uint32_t>(img.width) * static_cast<uint32_t>(img.height));
}

int64_t pixelCount(const JVImage& img) {
  int64_t n = static_cast<int64_t>(img.width) * img.height;
  return n > 0 ? n : 0;
}

void applyTable(JVImage& img, const unsigned char table[256]) {
  const int64_t n = pixelCount(img);
  for (int64_t i = 0; i < n; ++i) img.data[i] = table[img.data[i]];
}

// A record shaped like `src` for a pass that writes its first
// width * height bytes: uninitialised when that is all of it, otherwise a
// copy, so that the bytes past them stay the source's.
JVImage grayResultFor(const JVImage& src) {
  if (src.channels == 1 && jvChannelsOf(src.color) == 1) return JVImage(src.width, src.height, src.color);
  return JVImage(src);
}

// The taps of enh_gaussian_filter_fast: 2 * (size / 2) + 1 of them, as the
// generator writes one past `size` when it is even.
std::vector<double> gaussianTaps(int size, double sigma) {
  if (size < 0) throw std::bad_alloc();
  std::vector<double> taps(static_cast<size_t>(size / 2) * 2 + 1);
  generateGaussianKernel1D(size, sigma, taps.data());
  return taps;
}

}  // namespace

JVImage cvtGray(const JVImage& src) {
  JVImage out(src.width, src.height, JV_IMG_GRAY);
  const int64_t n = pixelCount(src);
  const unsigned char* s = src.data;
  const int64_t step = src.channels;
  if (src.color == JV_IMG_GRAY && step == 1) {
    if (n > 0) std::memcpy(out.data, s, static_cast<size_t>(n));
    return out;
  }
  int64_t j = 0;
  for (int64_t i = 0; i < n; ++i, j += step) {
    switch (src.color) {
      case JV_IMG_GRAY:
        out.data[i] = s[j];
        break;
      case JV_IMG_BGR:
      case JV_IMG_BGRA:
        out.data[i] = static_cast<unsigned char>(
            my_round((0.114f * s[j] + 0.587f * s[j + 1]) + 0.299f * s[j + 2]));
        break;
      default:
        out.data[i] = static_cast<unsigned char>(
            my_round((0.299f * s[j] + 0.587f * s[j + 1]) + 0.114f * s[j + 2]));
        break;
    }
  }
  return out;
}

int thresh_global_moments(const JVImage& gray) {
  return jvk::momentsThreshold(gray.data, pixelCount32(gray));
}

void enh_piecewise_gamma(JVImage& img, int pivot, float gammaLow, float gammaHigh) {
  unsigned char table[256];
  jvk::gammaTable(pivot, gammaLow, gammaHigh, table);
  applyTable(img, table);
}

void generateGaussianKernel1D(int size, double sigma, double* taps) {
  const int half = size / 2;
  // sqrt(2 pi) from the float constant through my_sqrt, the rest in double.
  const double scale = 1.0 / (static_cast<double>(my_sqrt(6.2831855f)) * sigma);
  for (int i = -half; i <= half; ++i) {
    const double sq = static_cast<double>(static_cast<int64_t>(i) * i);
    const float e = static_cast<float>((-0.5 * sq) / (sigma * sigma));
    taps[i + half] = scale * static_cast<double>(my_exp(e));
  }
  double sum = 0.0;
  for (int j = 0; j < size; ++j) sum = taps[j] + sum;
  for (int j = 0; j < size; ++j) taps[j] = taps[j] / sum;
}

JVImage convolve1D(const JVImage& src, const double* taps, int size, bool horizontal) {
  return convolve1D(src, taps, size, horizontal, JVRunOptions());
}

JVImage convolve1D(const JVImage& src, const double* taps, int size, bool horizontal, const JVRunOptions& options) {
  const jvk::Kernels& kernels = jvk::kernelsFor(jvSimdLevelFor(options));
  const int half = size / 2;
  const int64_t w = src.width;
  const int64_t h = src.height;
  // The result starts as a copy of the source; for a one-byte-a-pixel record
  // every byte of that copy is overwritten, so it need not be made.
  JVImage out = grayResultFor(src);
  if (w <= 0 || h <= 0) return out;
  const int64_t taps2 = 2 * static_cast<int64_t>(half) + 1;
  const unsigned char* s = src.data;
  if (horizontal) {
    // Each row as doubles with its edge pixels repeated half a kernel past
    // both ends: the clamped index of every tap, looked up once.
    std::vector<double> padded(static_cast<size_t>(w + taps2));
    for (int64_t y = 0; y < h; ++y) {
      const unsigned char* row = s + y * w;
      for (int64_t i = 0; i < w + taps2 - 1; ++i)
        padded[static_cast<size_t>(i)] = static_cast<double>(row[std::min(std::max<int64_t>(i - half, 0), w - 1)]);
      kernels.blurHorizontal(padded.data(), taps, static_cast<int>(taps2), static_cast<size_t>(w), out.data + y * w);
    }
  } else {
    std::vector<const uint8_t*> rows(static_cast<size_t>(taps2));
    for (int64_t y = 0; y < h; ++y) {
      for (int64_t k = -half; k <= half; ++k)
        rows[static_cast<size_t>(k + half)] = s + std::min(std::max<int64_t>(y + k, 0), h - 1) * w;
      kernels.blurVertical(rows.data(), taps, static_cast<int>(taps2), static_cast<size_t>(w), out.data + y * w);
    }
  }
  return out;
}

JVImage enh_gaussian_filter_fast(const JVImage& src, int size, double sigma) {
  return enh_gaussian_filter_fast(src, size, sigma, JVRunOptions());
}

JVImage enh_gaussian_filter_fast(const JVImage& src, int size, double sigma, const JVRunOptions& options) {
  const std::vector<double> taps = gaussianTaps(size, sigma);
  JVImage tmp = convolve1D(src, taps.data(), size, true, options);
  return convolve1D(tmp, taps.data(), size, false, options);
}

JVImage add_Weighted(const JVImage& a, const JVImage& b, float weight) {
  return add_Weighted(a, b, weight, JVRunOptions());
}

JVImage add_Weighted(const JVImage& a, const JVImage& b, float weight, const JVRunOptions& options) {
  const float alpha = 1.0f + weight;
  const float beta = -weight;
  const float gamma = 0.0f;
  JVImage out = grayResultFor(a);
  const int64_t n = pixelCount(a);
  if (n > 0)
    jvk::kernelsFor(jvSimdLevelFor(options))
        .weighted(a.data, b.data, alpha, beta, gamma, static_cast<size_t>(n), out.data);
  return out;
}

JVImage enh_unsharp_mask(const JVImage& src, float amount, int size) {
  return enh_unsharp_mask(src, amount, size, JVRunOptions());
}

JVImage enh_unsharp_mask(const JVImage& src, float amount, int size, const JVRunOptions& options) {
  const float weight = amount / 100.0f;
  if (src.channels != 1 || jvChannelsOf(src.color) != 1 || src.width <= 0 || src.height <= 0) {
    // Records of several bytes a pixel keep the bytes past the first
    // width * height through both passes: the plain composition.
    JVImage blurred = enh_gaussian_filter_fast(src, size, 3.0, options);
    return add_Weighted(src, blurred, weight, options);
  }
  return jvUnsharpGray(src.data, src.width, src.height, nullptr, amount, size, options);
}

JVImage jvUnsharpGray(const unsigned char* gray, int width, int height, const unsigned char* table, float amount,
                      int size, const JVRunOptions& options) {
  JVImage out(width, height, JV_IMG_GRAY);
  jvUnsharpGrayInto(gray, width, height, table, amount, size, options, out.data);
  return out;
}

void jvUnsharpGrayInto(const unsigned char* gray, int width, int height, const unsigned char* table, float amount,
                       int size, const JVRunOptions& options, unsigned char* out) {
  const std::vector<double> taps = gaussianTaps(size, 3.0);
  const int64_t n = static_cast<int64_t>(width) * height;
  if (width <= 0 || height <= 0) return;
  jvk::unsharpInto(gray, width, height, table, taps.data(), static_cast<int>(taps.size()), amount / 100.0f, out,
                   jvk::kernelsFor(jvSimdLevelFor(options)), jvThreadsFor(options, n));
}
