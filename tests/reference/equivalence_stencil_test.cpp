// The stencil stages against the plain definitions, on every vector path
// this CPU has: each path must give the same bytes as the plain loops.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "stencil/jv_enhance.h"
#include "stencil/jv_tattoo.h"
#include "tests/reference/random_pages.h"
#include "tests/reference/reference.h"

namespace {

bool same(const JVImage& a, const JVImage& b) {
  if (a.width != b.width || a.height != b.height || a.channels != b.channels || a.color != b.color) return false;
  const long n = static_cast<long>(a.width) * a.height * a.channels;
  return n <= 0 || std::equal(a.data, a.data + n, b.data);
}

JVImage randomGray(std::mt19937& rng, int w, int h) {
  const std::vector<uint8_t> px = kref::randomPage(w, h, w, rng());
  return JVImage(w, h, JV_IMG_GRAY, px.data());
}

// Runs `check` once per vector path the machine offers, then restores the
// best one.
template <typename F>
void onEveryPath(F check) {
  for (int level = 0; level <= 1; ++level) {
    if (jvSetSimdLevel(level) != level) continue;
    SCOPED_TRACE("vector path " + std::to_string(level));
    check();
  }
  jvSetSimdLevel(1);
}

TEST(StencilEquivalence, BlurPassesEverySizeAndTapCount) {
  onEveryPath([] {
    std::mt19937 rng(606);
    for (int w = 1; w <= 70; ++w) {
      for (int size : {1, 3, 5, 11, 13}) {
        const int h = 1 + static_cast<int>(rng() % 14);
        const JVImage src = randomGray(rng, w, h);
        std::vector<double> taps(static_cast<size_t>(size));
        double sum = 0;
        for (double& t : taps) sum += (t = 0.05 + (rng() % 1000) / 997.0);
        for (double& t : taps) t /= sum;
        for (bool horizontal : {true, false})
          ASSERT_TRUE(same(convolve1D(src, taps.data(), size, horizontal), kref::convolve1D(src, taps.data(), size, horizontal)))
              << w << "x" << h << ", " << size << " taps, " << (horizontal ? "horizontal" : "vertical");
      }
    }
    for (const int w : {257, 1001, 2480}) {
      const JVImage src = randomGray(rng, w, 23);
      ASSERT_TRUE(same(enh_gaussian_filter_fast(src, 11, 3.0), kref::gaussianFast(src, 11, 3.0))) << w;
    }
  });
}

TEST(StencilEquivalence, WeightedSum) {
  onEveryPath([] {
    std::mt19937 rng(17);
    const float weights[] = {3.0f, 0.5f, -0.25f, 1.7f, 0.0f, 12.5f};
    for (int w = 1; w <= 70; ++w) {
      const int h = 1 + static_cast<int>(rng() % 5);
      const JVImage a = randomGray(rng, w, h), b = randomGray(rng, w, h);
      const float weight = weights[rng() % 6];
      ASSERT_TRUE(same(add_Weighted(a, b, weight), kref::addWeighted(a, b, weight))) << w << "x" << h << " " << weight;
    }
  });
}

TEST(StencilEquivalence, DiffusionEveryThreshold) {
  std::mt19937 rng(23);
  for (int w = 1; w <= 70; ++w) {
    const int h = 1 + static_cast<int>(rng() % 9);
    const JVImage src = randomGray(rng, w, h);
    for (int t : {-1, 0, 64, 127, 128, 200, 255, 300})
      ASSERT_TRUE(same(edf_cus(src, t), kref::edfCus(src, t))) << w << "x" << h << ", threshold " << t;
  }
  const JVImage big = randomGray(rng, 1500, 40);
  EXPECT_TRUE(same(edf_cus(big, 120), kref::edfCus(big, 120)));
}

TEST(StencilEquivalence, GrayAndThreshold) {
  std::mt19937 rng(3);
  for (JV_IMG_COLOR c : {JV_IMG_GRAY, JV_IMG_BGR, JV_IMG_RGB, JV_IMG_BGRA, JV_IMG_RGBA}) {
    for (int w = 1; w <= 40; ++w) {
      const int h = 1 + static_cast<int>(rng() % 5);
      std::vector<uint8_t> px(static_cast<size_t>(w) * h * 4);
      for (auto& v : px) v = static_cast<uint8_t>(rng());
      const JVImage src(w, h, c, px.data());
      const JVImage gray = cvtGray(src);
      ASSERT_TRUE(same(gray, kref::cvtGray(src))) << "layout " << c << ", width " << w;
      EXPECT_EQ(thresh_global_moments_guarded(gray), kref::thresholdGuarded(gray));
    }
  }
}

TEST(StencilEquivalence, BothChainsOnRandomPages) {
  onEveryPath([] {
    std::mt19937 rng(808);
    for (int w = 1; w <= 70; w += (w < 20 ? 1 : 7)) {
      const int h = 1 + static_cast<int>(rng() % 30);
      JVImage src = randomGray(rng, w, h);
      ASSERT_TRUE(same(jvTattooDitheringGuarded(src), kref::tattoo(src, false))) << w << "x" << h;
      ASSERT_TRUE(same(jvTattooDitheringX8Guarded(src), kref::tattoo(src, true))) << w << "x" << h;
    }
    // Pages the unguarded chains never finish: one gray level, two levels.
    for (int v : {0, 255, 77}) {
      const std::vector<uint8_t> flat(12 * 7, static_cast<uint8_t>(v));
      JVImage src(12, 7, JV_IMG_GRAY, flat.data());
      ASSERT_TRUE(same(jvTattooDitheringGuarded(src), kref::tattoo(src, false))) << "flat " << v;
      ASSERT_TRUE(same(jvTattooDitheringX8Guarded(src), kref::tattoo(src, true))) << "flat " << v;
    }
  });
}

}  // namespace
