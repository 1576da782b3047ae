#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "stencil/jv_enhance.h"

namespace {

JVImage grayOf(int w, int h, std::vector<unsigned char> bytes) {
  return JVImage(w, h, JV_IMG_GRAY, bytes.data());
}

// Page with the given (level, count) runs, laid out row by row, width 10.
JVImage runs(std::initializer_list<std::pair<int, int>> parts) {
  std::vector<unsigned char> bytes;
  for (auto [level, count] : parts) bytes.insert(bytes.end(), count, static_cast<unsigned char>(level));
  return grayOf(10, static_cast<int>(bytes.size()) / 10, bytes);
}

std::vector<int> gammaTable(int pivot, float low, float high) {
  std::vector<unsigned char> ramp(256);
  for (int i = 0; i < 256; ++i) ramp[i] = static_cast<unsigned char>(i);
  JVImage img = grayOf(256, 1, ramp);
  if (pivot == 255) enh_piecewise_gamma_guarded(img, pivot, low, high);
  else enh_piecewise_gamma(img, pivot, low, high);
  return std::vector<int>(img.data, img.data + 256);
}

// The same curve through the platform's pow, as an independent reference.
int powEntry(int i, int pivot, float low, float high) {
  if (i < pivot) return static_cast<int>(std::pow(float(i) / float(pivot), low) * float(pivot));
  return static_cast<int>(std::pow((float(i) - float(pivot)) / float(255 - pivot), high) * float(255 - pivot) + float(pivot));
}

TEST(StencilFilters, GrayConversionByteOrder) {
  struct Case { JV_IMG_COLOR color; std::vector<unsigned char> px; int gray; };
  const Case cases[] = {
      {JV_IMG_BGR, {255, 0, 0}, 29},        {JV_IMG_RGB, {255, 0, 0}, 76},
      {JV_IMG_BGRA, {255, 0, 0, 9}, 29},    {JV_IMG_RGBA, {255, 0, 0, 9}, 76},
      {static_cast<JV_IMG_COLOR>(7), {255, 0, 0, 9}, 76}, {JV_IMG_GRAY, {201}, 201},
      // 10*0.114 + 200*0.587 + 30*0.299 = 127.51 by hand.
      {JV_IMG_BGR, {10, 200, 30}, 128},     {JV_IMG_RGB, {255, 255, 255}, 255},
  };
  for (const Case& c : cases) EXPECT_EQ(cvtGray(JVImage(1, 1, c.color, c.px.data())).data[0], c.gray) << c.color;
}

TEST(StencilFilters, MomentsThreshold) {
  struct Case { JVImage page; int expected; };
  Case cases[] = {{runs({{0, 50}, {255, 50}}), 255}, {runs({{30, 30}, {200, 70}}), 30},
                  {runs({{0, 99}, {255, 1}}), 255}};
  for (Case& c : cases) {
    EXPECT_EQ(thresh_global_moments(c.page), c.expected);
    EXPECT_EQ(thresh_global_moments_guarded(c.page), c.expected);
  }
  std::vector<unsigned char> noise(64 * 64);
  unsigned state = 12345;
  for (auto& b : noise) b = static_cast<unsigned char>((state = state * 1103515245u + 12345u) >> 23);
  int t = thresh_global_moments(grayOf(64, 64, noise));
  EXPECT_NEAR(t, 126, 6);
  EXPECT_EQ(thresh_global_moments_guarded(grayOf(64, 64, noise)), t);
  for (int level : {0, 77, 255})  // single level: the discriminant is 0/0
    EXPECT_EQ(thresh_global_moments_guarded(runs({{level, 100}})), 128) << level;
}

TEST(StencilFilters, GammaTableFigures) {
  std::vector<int> t = gammaTable(64, 0.85f, 0.7f);
  const std::vector<int> head = {0, 1, 3, 4, 6, 7, 8, 9, 10, 12};
  EXPECT_EQ(std::vector<int>(t.begin(), t.begin() + 10), head);
  EXPECT_EQ(t[63], 63);
  EXPECT_EQ(t[64], 64);
  EXPECT_EQ(t[65], 68);
  EXPECT_EQ(t[254], 254);
  EXPECT_EQ(t[255], 255);
  for (int i = 0; i < 256; ++i) EXPECT_EQ(t[i], powEntry(i, 64, 0.85f, 0.7f)) << i;
  std::vector<int> half = gammaTable(128, 0.5f, 1.5f);
  EXPECT_EQ(half[18], 47);  // pow gives 48 and 96
  EXPECT_EQ(half[72], 95);
  EXPECT_EQ(powEntry(18, 128, 0.5f, 1.5f), 48);
}

// Every pivot the threshold can hand over, both gamma pairs: this would
// hang if my_pow or my_ln failed to end on any base the chain builds.
TEST(StencilFilters, GammaTablesForEveryPivot) {
  const float pairs[2][2] = {{0.85f, 0.7f}, {0.5f, 1.5f}};
  for (auto& g : pairs) {
    for (int pivot = -1; pivot <= 255; ++pivot) {
      std::vector<int> t = gammaTable(pivot, g[0], g[1]);
      EXPECT_EQ(t[255], 255) << pivot;
      if (pivot >= 0) {
        EXPECT_EQ(t[pivot], pivot) << pivot;
      }
      for (int i = 0; i < 256; ++i) {
        if (i > 0) {
          EXPECT_GE(t[i], t[i - 1]) << pivot << " " << i;
        }
        if (i == 255 && pivot == 255) continue;
        int ref = powEntry(i, pivot, g[0], g[1]);
        EXPECT_NEAR(t[i], ref, 1) << pivot << " " << i << " " << ref;
      }
    }
  }
}

TEST(StencilFilters, GaussianTaps) {
  double taps[11];
  generateGaussianKernel1D(11, 3.0, taps);
  const double expected[6] = {0.035482941, 0.058501466, 0.086309584, 0.113945306, 0.134610473, 0.142300460};
  for (int i = 0; i < 6; ++i) {
    EXPECT_NEAR(taps[i], expected[i], 5e-10) << i;
    EXPECT_NEAR(taps[10 - i], expected[i], 5e-10) << i;
  }
  // The 2-D kernel is the outer product of the 1-D one (a Gaussian separates).
  std::vector<double> k2(12 * 12);
  generateGaussianKernel(11, 3.0, 3.0, k2.data());
  for (int y = 0; y < 11; ++y)
    for (int x = 0; x < 11; ++x) EXPECT_NEAR(k2[y * 11 + x], taps[y] * taps[x], 1e-8);
}

TEST(StencilFilters, BlurBordersAndWeighting) {
  double taps[11], one = 1.0;
  generateGaussianKernel1D(11, 3.0, taps);
  EXPECT_EQ(convolve1D(grayOf(1, 1, {93}), taps, 11, true).data[0], 93);
  EXPECT_EQ(convolve1D(grayOf(3, 1, {5, 6, 7}), &one, 1, false).data[2], 7);
  // The edge pixel repeats past the border: same as a row that really goes on.
  std::vector<unsigned char> shortRow(12, 0), longRow(17, 255);
  shortRow[11] = 255;
  std::fill(longRow.begin(), longRow.begin() + 11, 0);
  JVImage a = convolve1D(grayOf(12, 1, shortRow), taps, 11, true);
  JVImage b = convolve1D(grayOf(17, 1, longRow), taps, 11, true);
  for (int x = 0; x < 12; ++x) EXPECT_EQ(a.data[x], b.data[x]) << x;
  JVImage col = convolve1D(grayOf(1, 12, shortRow), taps, 11, false);
  EXPECT_EQ(std::vector<int>(col.data, col.data + 12), std::vector<int>(a.data, a.data + 12));

  // 4a - 3b, clamped: flat areas stay, edges overshoot.
  JVImage w = add_Weighted(grayOf(4, 1, {100, 200, 50, 100}), grayOf(4, 1, {100, 100, 150, 90}), 3.0f);
  EXPECT_EQ(std::vector<int>(w.data, w.data + 4), (std::vector<int>{100, 255, 0, 130}));
  JVImage flat = grayOf(9, 7, std::vector<unsigned char>(63, 140));
  EXPECT_EQ(enh_unsharp_mask(flat, 300.0f, 11).data[31], 140);
  EXPECT_EQ(enh_gaussian_filter(flat, 5, 2.0, 1.0).data[62], 140);
}

}  // namespace
