#include "stencil/jv_enhance.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

#include "stencil/jv_math.h"
#include "stencil/jv_rows.h"

namespace {

// Pixel count as the 32-bit product the histogram and the chain use.
int32_t pixelCount32(const JVImage& img) {
  return static_cast<int32_t>(static_cast<uint32_t>(img.width) * static_cast<uint32_t>(img.height));
}

int64_t pixelCount(const JVImage& img) {
  int64_t n = static_cast<int64_t>(img.width) * img.height;
  return n > 0 ? n : 0;
}

// An exhaustive run of my_sqrt over every positive finite float ended in at
// most 68 steps, except for the smallest subnormal, whose half rounds to 0
// and then runs through inf to NaN. A cap well above 68 therefore only ever
// stops runs that would never end, and changes no result.
const int kSqrtStepLimit = 200;

int momentsThreshold(const JVImage& gray, bool guarded) {
  int32_t n = pixelCount32(gray);
  // Four partial histograms keep successive equal pixels from waiting on
  // each other's count; the totals are the same integers.
  uint32_t part[4][256] = {};
  int32_t i = 0;
  for (; i + 4 <= n; i += 4) {
    ++part[0][gray.data[i]];
    ++part[1][gray.data[i + 1]];
    ++part[2][gray.data[i + 2]];
    ++part[3][gray.data[i + 3]];
  }
  for (; i < n; ++i) ++part[0][gray.data[i]];
  uint32_t hist[256];
  for (int k = 0; k < 256; ++k) hist[k] = part[0][k] + part[1][k] + part[2][k] + part[3][k];

  float p[256];
  for (int k = 0; k < 256; ++k) p[k] = static_cast<float>(hist[k]) / static_cast<float>(n);

  float m0 = 1.0f, m1 = 0.0f, m2 = 0.0f, m3 = 0.0f;
  for (int k = 0; k < 256; ++k) {
    m1 = static_cast<float>(k) * p[k] + m1;
    m2 = static_cast<float>(k * k) * p[k] + m2;
    m3 = static_cast<float>(k * k * k) * p[k] + m3;
  }

  float cd = m0 * m2 + (-(m1 * m1));
  float c0 = ((-m2) * m2 + m1 * m3) / cd;
  float c1 = (m0 * (-m3) + m2 * m1) / cd;
  float disc = static_cast<float>(static_cast<double>(c0) * -4.0 + static_cast<double>(c1 * c1));
  if (0 > disc) return 128;

  float root = 0.0f;
  if (guarded) {
    // A single gray level gives 0/0 here; nearly uniform pages can give NaN
    // or +inf. my_sqrt would never return on those.
    if (!std::isfinite(disc) || !my_sqrt_bounded(disc, kSqrtStepLimit, &root)) return 128;
  } else {
    root = my_sqrt(disc);
  }
  float z0 = 0.5f * ((-c1) - root);
  float z1 = 0.5f * ((-c1) + root);
  float p0 = (z1 - m1) / (z1 - z0);

  float s = 0.0f;
  for (int k = 0; k < 256; ++k) {
    s = p[k] + s;
    if (s > p0) return k;
  }
  return -1;
}

void gammaTable(int pivot, float gammaLow, float gammaHigh, bool guarded, unsigned char table[256]) {
  const float fpivot = static_cast<float>(pivot);
  const float span = static_cast<float>(255LL - pivot);
  for (int i = 0; i < 256; ++i) {
    const float fi = static_cast<float>(i);
    float v;
    if (i < pivot) {
      v = my_pow(fi / fpivot, gammaLow) * fpivot;
    } else if (guarded && pivot == 255) {
      // Only entry 255 gets here, where the base would be 0/0; the pivot
      // maps onto itself as in every other table.
      v = 255.0f;
    } else {
      v = my_pow((fi - fpivot) / span, gammaHigh) * span + fpivot;
    }
    table[i] = static_cast<unsigned char>(jv_trunc_i32(v));
  }
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

int thresh_global_moments(const JVImage& gray) { return momentsThreshold(gray, false); }

int thresh_global_moments_guarded(const JVImage& gray) { return momentsThreshold(gray, true); }

void enh_piecewise_gamma(JVImage& img, int pivot, float gammaLow, float gammaHigh) {
  unsigned char table[256];
  gammaTable(pivot, gammaLow, gammaHigh, false, table);
  applyTable(img, table);
}

void enh_piecewise_gamma_guarded(JVImage& img, int pivot, float gammaLow, float gammaHigh) {
  unsigned char table[256];
  gammaTable(pivot, gammaLow, gammaHigh, true, table);
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
      jvBlurRowHorizontal(padded.data(), taps, static_cast<int>(taps2), static_cast<size_t>(w), out.data + y * w);
    }
  } else {
    std::vector<const uint8_t*> rows(static_cast<size_t>(taps2));
    for (int64_t y = 0; y < h; ++y) {
      for (int64_t k = -half; k <= half; ++k)
        rows[static_cast<size_t>(k + half)] = s + std::min(std::max<int64_t>(y + k, 0), h - 1) * w;
      jvBlurRowVertical(rows.data(), taps, static_cast<int>(taps2), static_cast<size_t>(w), out.data + y * w);
    }
  }
  return out;
}

JVImage enh_gaussian_filter_fast(const JVImage& src, int size, double sigma) {
  if (size < 0) throw std::bad_alloc();
  // 2 * (size / 2) + 1 taps: the generator writes one past `size` when it is even.
  std::vector<double> taps(static_cast<size_t>(size / 2) * 2 + 1);
  generateGaussianKernel1D(size, sigma, taps.data());
  JVImage tmp = convolve1D(src, taps.data(), size, true);
  return convolve1D(tmp, taps.data(), size, false);
}

void generateGaussianKernel(int size, double sigmaX, double sigmaY, double* kernel) {
  const int half = size / 2;
  const double scale = 1.0 / ((6.283185307179586 * sigmaX) * sigmaY);
  for (int ky = -half; ky <= half; ++ky) {
    for (int kx = -half; kx <= half; ++kx) {
      const double dx = static_cast<double>(-(static_cast<int64_t>(kx) * kx));
      const double dy = static_cast<double>(static_cast<int64_t>(ky) * ky);
      const float e = static_cast<float>(dx / ((2.0 * sigmaX) * sigmaX) - dy / ((2.0 * sigmaY) * sigmaY));
      kernel[static_cast<int64_t>(ky + half) * size + (kx + half)] = scale * static_cast<double>(my_exp(e));
    }
  }
  const int64_t n = static_cast<int64_t>(size) * size;
  double sum = 0.0;
  for (int64_t j = 0; j < n; ++j) sum = kernel[j] + sum;
  for (int64_t j = 0; j < n; ++j) kernel[j] = kernel[j] / sum;
}

JVImage enh_gaussian_filter(const JVImage& src, int size, double sigmaX, double sigmaY) {
  const int half = size / 2;
  JVImage out(src.width, src.height, JV_IMG_GRAY);
  // Zeroed and one row and column larger than size x size, so that even and
  // negative sizes neither overrun nor read garbage.
  const int64_t side = static_cast<int64_t>(size < 0 ? -static_cast<int64_t>(size) : size) + 1;
  if (side > 46341) throw std::bad_alloc();
  std::vector<double> kernel(static_cast<size_t>(side * side), 0.0);
  generateGaussianKernel(size, sigmaX, sigmaY, kernel.data());

  const int64_t w = src.width;
  const int64_t h = src.height;
  if (w <= 0 || h <= 0) return out;
  for (int64_t y = 0; y < h; ++y) {
    for (int64_t x = 0; x < w; ++x) {
      double sum = 0.0;
      for (int ky = -half; ky <= half; ++ky) {
        for (int kx = -half; kx <= half; ++kx) {
          const int64_t xi = myClamp<int64_t>(x + kx, 0, w - 1);
          const int64_t yi = myClamp<int64_t>(y + ky, 0, h - 1);
          sum = static_cast<double>(src.data[yi * w + xi]) *
                    kernel[static_cast<int64_t>(ky + half) * size + (kx + half)] +
                sum;
        }
      }
      out.data[y * w + x] = static_cast<unsigned char>(my_round(static_cast<float>(sum)));
    }
  }
  return out;
}

JVImage add_Weighted(const JVImage& a, const JVImage& b, float weight) {
  const float alpha = 1.0f + weight;
  const float beta = -weight;
  const float gamma = 0.0f;
  JVImage out = grayResultFor(a);
  const int64_t n = pixelCount(a);
  if (n > 0) jvWeightedRow(a.data, b.data, alpha, beta, gamma, static_cast<size_t>(n), out.data);
  return out;
}

JVImage enh_unsharp_mask(const JVImage& src, float amount, int size) {
  const float weight = amount / 100.0f;
  JVImage blurred = enh_gaussian_filter_fast(src, size, 3.0);
  return add_Weighted(src, blurred, weight);
}

int jvSetSimdLevel(int level) { return jvRowsSetLevel(level); }
