// Plain stencil stages: every pixel through the stated float and double
// steps, borders clamped per tap. The math routines themselves are shared
// with production; they run per table entry, not per pixel.
#include <algorithm>
#include <cmath>

#include "stencil/jv_math.h"
#include "test_support/reference.h"

namespace {

int myClamp(int value, int low, int high) { return value < low ? low : value > high ? high : value; }

bool isWithinBounds(int x, int y, int width, int height) { return x >= 0 && x < width && y >= 0 && y < height; }

}  // namespace

namespace kref {

JVImage convolve1D(const JVImage& src, const double* taps, int size, bool horizontal) {
  const int half = size / 2;
  JVImage out(src);
  const long w = src.width, h = src.height;
  for (long y = 0; y < h; ++y)
    for (long x = 0; x < w; ++x) {
      double sum = 0.0;
      for (int k = -half; k <= half; ++k) {
        const unsigned char v = horizontal ? src.data[y * w + std::min(std::max(x + k, 0L), w - 1)]
                                           : src.data[std::min(std::max(y + k, 0L), h - 1) * w + x];
        sum = static_cast<double>(v) * taps[k + half] + sum;
      }
      out.data[y * w + x] = static_cast<unsigned char>(my_round(static_cast<float>(sum)));
    }
  return out;
}

JVImage gaussianFast(const JVImage& src, int size, double sigma) {
  std::vector<double> taps(static_cast<size_t>(size / 2) * 2 + 1);
  const int half = size / 2;
  const double scale = 1.0 / (static_cast<double>(my_sqrt(6.2831855f)) * sigma);
  for (int i = -half; i <= half; ++i)
    taps[i + half] = scale * static_cast<double>(my_exp(static_cast<float>((-0.5 * (i * i)) / (sigma * sigma))));
  double sum = 0.0;
  for (int j = 0; j < size; ++j) sum = taps[j] + sum;
  for (int j = 0; j < size; ++j) taps[j] = taps[j] / sum;
  return convolve1D(convolve1D(src, taps.data(), size, true), taps.data(), size, false);
}

JVImage addWeighted(const JVImage& a, const JVImage& b, float weight) {
  const float alpha = 1.0f + weight, beta = -weight, gamma = 0.0f;
  JVImage out(a);
  for (long i = 0; i < static_cast<long>(a.width) * a.height; ++i)
    out.data[i] = static_cast<unsigned char>(
        myClamp(my_round((static_cast<float>(a.data[i]) * alpha + static_cast<float>(b.data[i]) * beta) + gamma), 0, 255));
  return out;
}

JVImage cvtGray(const JVImage& src) {
  JVImage out(src.width, src.height, JV_IMG_GRAY);
  const unsigned char* s = src.data;
  for (long i = 0, j = 0; i < static_cast<long>(src.width) * src.height; ++i, j += src.channels) {
    if (src.color == JV_IMG_GRAY)
      out.data[i] = s[j];
    else if (src.color == JV_IMG_BGR || src.color == JV_IMG_BGRA)
      out.data[i] = static_cast<unsigned char>(my_round((0.114f * s[j] + 0.587f * s[j + 1]) + 0.299f * s[j + 2]));
    else
      out.data[i] = static_cast<unsigned char>(my_round((0.299f * s[j] + 0.587f * s[j + 1]) + 0.114f * s[j + 2]));
  }
  return out;
}

int thresholdGuarded(const JVImage& gray) {
  const int n = gray.width * gray.height;
  unsigned hist[256] = {0};
  for (int i = 0; i < n; ++i) ++hist[gray.data[i]];
  float p[256];
  for (int k = 0; k < 256; ++k) p[k] = static_cast<float>(hist[k]) / static_cast<float>(n);
  float m0 = 1.0f, m1 = 0.0f, m2 = 0.0f, m3 = 0.0f;
  for (int k = 0; k < 256; ++k) {
    m1 = static_cast<float>(k) * p[k] + m1;
    m2 = static_cast<float>(k * k) * p[k] + m2;
    m3 = static_cast<float>(k * k * k) * p[k] + m3;
  }
  const float cd = m0 * m2 + (-(m1 * m1));
  const float c0 = ((-m2) * m2 + m1 * m3) / cd;
  const float c1 = (m0 * (-m3) + m2 * m1) / cd;
  const float disc = static_cast<float>(static_cast<double>(c0) * -4.0 + static_cast<double>(c1 * c1));
  if (0 > disc) return 128;
  float root = 0.0f;
  if (!std::isfinite(disc) || !my_sqrt_bounded(disc, 200, &root)) return 128;
  const float z0 = 0.5f * ((-c1) - root), z1 = 0.5f * ((-c1) + root);
  const float p0 = (z1 - m1) / (z1 - z0);
  float s = 0.0f;
  for (int k = 0; k < 256; ++k) {
    s = p[k] + s;
    if (s > p0) return k;
  }
  return -1;
}

void gammaGuarded(JVImage& img, int pivot, float low, float high) {
  unsigned char table[256];
  const float fp = static_cast<float>(pivot), span = static_cast<float>(255 - pivot);
  for (int i = 0; i < 256; ++i) {
    const float fi = static_cast<float>(i);
    const float v = i < pivot ? my_pow(fi / fp, low) * fp
                    : pivot == 255 ? 255.0f
                                   : my_pow((fi - fp) / span, high) * span + fp;
    table[i] = static_cast<unsigned char>(jv_trunc_i32(v));
  }
  for (long i = 0; i < static_cast<long>(img.width) * img.height; ++i) img.data[i] = table[img.data[i]];
}

JVImage edfCus(const JVImage& src, int threshold, std::vector<float>* values) {
  static const int dx[6] = {1, 2, -2, -1, 0, 1}, dy[6] = {0, 0, 1, 1, 1, 1};
  static const float wt[6] = {0.505786f, -0.052926f, 0.226194f, 0.128835f, 0.243191f, -0.111078f};
  const int w = src.width, h = src.height;
  JVImage out(w, h, JV_IMG_GRAY);
  std::vector<float> err(static_cast<size_t>(w) * h, 0.0f);
  if (values != nullptr) values->assign(static_cast<size_t>(w) * h, 0.0f);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const int i = y * w + x;
      const float v = err[i] + static_cast<float>(src.data[i]);
      if (values != nullptr) (*values)[static_cast<size_t>(i)] = v;
      float e;
      if (v > static_cast<float>(threshold)) {
        out.data[i] = 255;
        if (y >= 1 && x >= 1 && y < h - 1 && x < w - 1) {
          float s = 0.0f;
          if (out.data[i - 1] == 0) s = 0.1427f + s;
          if (out.data[i - w] == 0) s = 0.1427f + s;
          e = (1.0f - s) * -255.0f + v;
        } else {
          e = v - 255.0f;
        }
      } else {
        out.data[i] = 0;
        e = v;
      }
      float part[6];
      for (int k = 0; k < 6; ++k) part[k] = e * wt[k];
      for (int k = 0; k < 6; ++k)
        if (isWithinBounds(x + dx[k], y + dy[k], w, h)) {
          float& cell = err[static_cast<size_t>(y + dy[k]) * w + x + dx[k]];
          cell = part[k] + cell;
        }
    }
  return out;
}

JVImage tattoo(const JVImage& src, bool x8) {
  if (static_cast<int32_t>(static_cast<uint32_t>(src.width) * static_cast<uint32_t>(src.height)) <= 0) return src;
  JVImage gray = cvtGray(src);
  const int t = thresholdGuarded(gray);
  if (x8)
    gammaGuarded(gray, t, 0.5f, 1.5f);
  else
    gammaGuarded(gray, 64, 0.85f, 0.7f);
  const JVImage sharp = addWeighted(gray, gaussianFast(gray, 11, 3.0), 300.0f / 100.0f);
  return edfCus(sharp, t);
}

}  // namespace kref
