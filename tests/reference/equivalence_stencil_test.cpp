// The stencil stages against the plain definitions, on every vector path
// this CPU has and on one and several threads: each must give the same
// bytes as the plain loops run on one core.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "stencil/jv_chain.h"
#include "stencil/jv_enhance.h"
#include "stencil/jv_kernels.h"
#include "stencil/jv_run.h"
#include "stencil/jv_tattoo.h"
#include "test_support/random_pages.h"
#include "test_support/reference.h"

namespace {

// Empty when the pages are equal, else where they first differ.
std::string difference(const JVImage& a, const JVImage& b) {
  if (a.width != b.width || a.height != b.height || a.channels != b.channels || a.color != b.color)
    return "shapes differ";
  for (long i = 0; i < static_cast<long>(a.width) * a.height * a.channels; ++i)
    if (a.data[i] != b.data[i])
      return "first difference at byte " + std::to_string(i) + ": " + std::to_string(a.data[i]) + " against " +
             std::to_string(b.data[i]);
  return "";
}

JVImage randomGray(std::mt19937& rng, int w, int h) {
  const std::vector<uint8_t> px = kref::randomPage(w, h, w, rng());
  return JVImage(w, h, JV_IMG_GRAY, px.data());
}

// The vector paths this CPU has: portable C++, then SSE2 and AVX2 on x86.
std::vector<int> paths() {
  std::vector<int> levels;
  for (int level : {kJvSimdScalar, kJvSimdSse2, kJvSimdAvx2}) {
    JVRunOptions o;
    o.simdLevel = level;
    if (jvSimdLevelFor(o) == level) levels.push_back(level);
  }
  return levels;
}

JVRunOptions run(int level, int threads) {
  JVRunOptions o;
  o.simdLevel = level;
  o.threads = threads;
  return o;
}

// Every width up to 70, single rows and columns, heights around the
// diffusion's bands of 8 and 16 rows, and pages longer than any block.
struct Shape {
  int w, h;
};
std::vector<Shape> shapes(std::mt19937& rng) {
  std::vector<Shape> s;
  for (int w = 1; w <= 70; ++w) s.push_back({w, 1 + static_cast<int>(rng() % 40)});
  for (int n : {1, 2, 3, 7, 8, 9, 15, 16, 17, 33, 257}) {
    s.push_back({n, 1});
    s.push_back({1, n});
  }
  for (int h : {7, 8, 9, 15, 16, 17, 24, 25, 47, 48, 49}) s.push_back({3 + static_cast<int>(rng() % 90), h});
  return s;
}

TEST(StencilEquivalence, BlurPassesWithAnyTaps) {
  std::mt19937 rng(606);
  for (int level : paths())
    for (int w = 1; w <= 70; ++w)
      for (int size : {1, 5, 11, 13}) {
        const JVImage src = randomGray(rng, w, 1 + static_cast<int>(rng() % 14));
        std::vector<double> taps(static_cast<size_t>(size));
        double sum = 0;
        for (double& t : taps) sum += (t = 0.05 + (rng() % 1000) / 997.0);
        for (double& t : taps) t /= sum;
        for (bool horizontal : {true, false})
          ASSERT_EQ(difference(convolve1D(src, taps.data(), size, horizontal, run(level, 1)),
                               kref::convolve1D(src, taps.data(), size, horizontal)), "")
              << "path " << level << ", width " << w << ", " << size << " taps, horizontal " << horizontal;
      }
}

// The unsharp mask's passes sum in float and trust the rounding only where
// the sum lies clear of a half (jvk::BlurTaps). Windows whose plain double
// sum lies within the float sum's error bound of a half, where a wrong
// decision would show, one a column for the vertical pass (weighted so
// that out = v) and side by side in a row for the horizontal one, for the
// chain's taps and random symmetric ones.
TEST(StencilEquivalence, BlurFloatSumsNearHalves) {
  std::mt19937 rng(2718);
  std::vector<std::vector<double>> tapSets(1, std::vector<double>(11));
  generateGaussianKernel1D(11, 3.0, tapSets[0].data());
  for (int size : {5, 7, 15, 31}) {
    std::vector<double> taps(static_cast<size_t>(size));
    double sum = 0;
    for (int k = 0; k <= size / 2; ++k) taps[k] = taps[size - 1 - k] = 0.05 + (rng() % 1000) / 997.0;
    for (double t : taps) sum += t;
    for (double& t : taps) t /= sum;
    tapSets.push_back(taps);
  }
  for (const std::vector<double>& taps : tapSets) {
    const int size = static_cast<int>(taps.size());
    const jvk::BlurTaps t = jvk::blurTapsFor(taps.data(), size);
    ASSERT_TRUE(t.fast) << size << " taps";
    const int m = 200;
    JVImage columns(m, size, JV_IMG_GRAY);  // window j in column j
    std::vector<std::vector<float>> rows(static_cast<size_t>(size), std::vector<float>(m));
    std::vector<float> row(static_cast<size_t>(m * size + size - 1), 0.0f);  // window j from pixel j * size
    for (int j = 0; j < m;) {
      uint8_t b[31];
      double sum = 0.0;
      for (int k = 0; k < size; ++k) sum = static_cast<double>(b[k] = static_cast<uint8_t>(rng())) * taps[k] + sum;
      if (std::fabs(sum - std::floor(sum) - 0.5) >= t.bound) continue;
      for (int k = 0; k < size; ++k) {
        columns.data[k * m + j] = b[k];
        rows[static_cast<size_t>(k)][static_cast<size_t>(j)] = b[k];
        row[static_cast<size_t>(j * size + k)] = b[k];
      }
      ++j;
    }
    const JVImage want = kref::convolve1D(columns, taps.data(), size, false);  // row size / 2 holds the sums
    std::vector<const float*> rowPointers;
    for (const std::vector<float>& r : rows) rowPointers.push_back(r.data());
    const std::vector<float> zeros(m, 0.0f);
    for (int level : paths()) {
      const jvk::Kernels& kernels = jvk::kernelsFor(level);
      std::vector<uint8_t> vertical(m);
      kernels.blurColumnWeighted(rowPointers.data(), t, zeros.data(), 0.0f, 1.0f, 0.0f, m, vertical.data());
      std::vector<float> horizontal(static_cast<size_t>(m * size));
      kernels.blurRowFloats(row.data(), t, horizontal.size(), horizontal.data());
      for (int j = 0; j < m; ++j) {
        const int expected = want.data[size / 2 * m + j];
        ASSERT_EQ(vertical[j], expected) << "vertical, path " << level << ", " << size << " taps, window " << j;
        ASSERT_EQ(horizontal[static_cast<size_t>(j * size)], expected)
            << "horizontal, path " << level << ", " << size << " taps, window " << j;
      }
    }
  }
}

// The streamed unsharp mask (both blur passes and the weighting, row by
// row on several threads) against the plain stages one after the other.
TEST(StencilEquivalence, UnsharpMaskEveryPathAndThreadCount) {
  std::mt19937 rng(4711);
  for (int level : paths())
    for (int threads : {1, 2, 5})
      for (const Shape& s : shapes(rng)) {
        const JVImage src = randomGray(rng, s.w, s.h);
        const int size = static_cast<int>(1 + rng() % 14);
        const float amount = static_cast<float>(rng() % 500);
        const JVImage want = kref::addWeighted(src, kref::gaussianFast(src, size, 3.0), amount / 100.0f);
        ASSERT_EQ(difference(enh_unsharp_mask(src, amount, size, run(level, threads)), want), "")
            << "path " << level << ", " << threads << " threads, " << s.w << "x" << s.h << ", size " << size
            << ", amount " << amount;
      }
}

// The wavefront: bands of rows in vector lanes, bands on threads. Every
// pixel's v (error cell plus level, the value that is quantised) must be
// bit for bit the plain scan's: the bytes alone would hardly ever show an
// addition made in another order, as a one-ulp difference seldom crosses
// the threshold.
TEST(StencilEquivalence, DiffusionFloatsBitForBit) {
  std::mt19937 rng(77);
  std::vector<Shape> pages = shapes(rng);
  pages.push_back({2480, 200});
  pages.push_back({613, 301});
  const int thresholds[] = {-1, 0, 64, 127, 128, 200, 255, 300};
  auto check = [&](const std::string& what, auto diffuse) {
    for (const Shape& s : pages) {
      const JVImage src = randomGray(rng, s.w, s.h);
      const int t = thresholds[rng() % 8];
      std::vector<float> want;
      const JVImage bytes = kref::edfCus(src, t, &want);
      JVImage got(src);
      std::vector<float> values(want.size(), -1.0f);
      diffuse(got.data, s.w, s.h, t, values.data());
      ASSERT_EQ(difference(got, bytes), "") << what << ", " << s.w << "x" << s.h << ", threshold " << t;
      ASSERT_EQ(std::memcmp(values.data(), want.data(), want.size() * sizeof(float)), 0)
          << what << ", " << s.w << "x" << s.h << ", threshold " << t;
    }
  };
  for (int level : paths())
    for (int threads : {1, 2, 3})
      check("path " + std::to_string(level) + ", " + std::to_string(threads) + " threads",
            [&](uint8_t* image, int w, int h, int t, float* values) {
              jvk::edfInPlace(image, w, h, t, jvk::kernelsFor(level), threads, values);
            });
  check("one pixel at a time",
        [](uint8_t* image, int w, int h, int t, float* values) { jvk::edfSerialInPlace(image, w, h, t, values); });
  const JVImage src = randomGray(rng, 300, 40);
  EXPECT_EQ(difference(edf_cus(src, 120), kref::edfCus(src, 120)), "") << "the public entry";
}

TEST(StencilEquivalence, GrayAndThreshold) {
  std::mt19937 rng(3);
  for (JV_IMG_COLOR c : {JV_IMG_GRAY, JV_IMG_BGR, JV_IMG_RGB, JV_IMG_BGRA, JV_IMG_RGBA})
    for (int w = 1; w <= 40; ++w) {
      std::vector<uint8_t> px(static_cast<size_t>(w) * 5 * 4);
      for (auto& v : px) v = static_cast<uint8_t>(rng());
      const JVImage src(w, 1 + static_cast<int>(rng() % 5), c, px.data());
      const JVImage gray = cvtGray(src);
      ASSERT_EQ(difference(gray, kref::cvtGray(src)), "") << "layout " << c << ", width " << w;
      EXPECT_EQ(thresh_global_moments(gray), kref::thresholdGuarded(gray));
    }
}

// Both chains on every shape, path and thread count, colour layouts (which
// go through cvtGray first), flat pages the plain stages never finish,
// and large pages whose bands keep the threads apart for long stretches;
// gray pages also in place.
TEST(StencilEquivalence, BothChainsEveryPathAndThreadCount) {
  std::mt19937 rng(99);
  std::vector<Shape> pages = shapes(rng);
  pages.insert(pages.end(), {{2480, 301}, {1203, 777}, {4001, 67}});
  const JV_IMG_COLOR layouts[] = {JV_IMG_GRAY, JV_IMG_GRAY, JV_IMG_GRAY, JV_IMG_BGR, JV_IMG_RGBA};
  for (size_t i = 0; i < pages.size() + 3; ++i) {
    const bool flat = i >= pages.size();
    const Shape s = flat ? Shape{12, 7} : pages[i];
    const JV_IMG_COLOR color = flat ? JV_IMG_GRAY : layouts[i % 5];
    const int channels = jvChannelsOf(color);
    std::vector<uint8_t> px = kref::randomPage(s.w * channels, s.h, s.w * channels, rng());
    if (flat) px.assign(px.size(), static_cast<uint8_t>(i % 3 == 0 ? 0 : i % 3 == 1 ? 255 : 77));
    JVImage src(s.w, s.h, color, px.data());
    const bool x8 = i % 2 == 1;
    const JVImage want = kref::tattoo(src, x8);
    for (int level : paths())
      for (int threads : {1, 2, 3}) {
        const JVImage got = x8 ? jvTattooDitheringX8(src, run(level, threads))
                               : jvTattooDithering(src, run(level, threads));
        ASSERT_EQ(difference(got, want), "") << s.w << "x" << s.h << " layout " << color << (x8 ? " X8" : " Tattoo")
                                             << ", path " << level << ", " << threads << " threads";
        if (color != JV_IMG_GRAY) continue;
        // The page sharpened and diffused in place, each thread's share
        // reading the rows around it that its neighbours overwrite.
        JVImage page(src);
        ASSERT_TRUE(jvTattooStencilInPlace(page.data, s.w, s.h, x8, run(level, threads)));
        ASSERT_EQ(difference(page, want), "") << s.w << "x" << s.h << (x8 ? " X8" : " Tattoo") << " in place, path "
                                              << level << ", " << threads << " threads";
      }
  }
}

// Several pages at once in one process, each on several threads, as a
// printer application runs them: nothing is shared between them.
TEST(StencilEquivalence, PagesRunningAtTheSameTime) {
  std::mt19937 rng(5150);
  std::vector<JVImage> pages, want, got(4, JVImage(0, 0, JV_IMG_GRAY));
  for (int i = 0; i < 4; ++i) {
    pages.push_back(randomGray(rng, 300 + 97 * i, 200 + 31 * i));
    want.push_back(kref::tattoo(pages.back(), i % 2));
  }
  std::vector<std::thread> jobs;
  for (size_t i = 0; i < 4; ++i)
    jobs.emplace_back([&, i] {
      for (int round = 0; round < 3; ++round)
        got[i] = i % 2 ? jvTattooDitheringX8(pages[i], run(kJvSimdDefault, 2 + round))
                       : jvTattooDithering(pages[i], run(kJvSimdDefault, 2 + round));
    });
  for (std::thread& t : jobs) t.join();
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(difference(got[i], want[i]), "") << "page " << i;
}

TEST(StencilEquivalence, RunOptions) {
  // A path asked for is the path run (all give the same bytes, so nothing
  // else would show a wrong one); the process default follows jvSetSimdLevel.
  JVRunOptions o;
  for (int level : paths()) {
    o.simdLevel = level;
    EXPECT_EQ(jvSimdLevelFor(o), level);
    o.simdLevel = kJvSimdDefault;
    const int set = jvSetSimdLevel(level);
    EXPECT_EQ(jvSimdLevelFor(o), set);
  }
  jvSetSimdLevel(kJvSimdAvx2);
  const std::pair<int, long> cases[] = {{3, 10}, {1000, 10}, {0, 1000}};
  const int want[] = {3, 64, 1};  // asked for, capped, small pages on one thread
  for (int i = 0; i < 3; ++i) {
    o.threads = cases[i].first;
    EXPECT_EQ(jvThreadsFor(o, cases[i].second), want[i]) << cases[i].first;
  }
  // A large page's unsharp mask on every core there is, eight at most, its
  // diffusion on one, or both on as many as KELVO_THREADS says.
  o.threads = 0;
  const int cores = jvThreadsFor(o, 9000000);
  EXPECT_TRUE(cores >= 1 && cores <= 8) << cores;
  EXPECT_EQ(jvDiffusionThreadsFor(o, 9000000), 1);
  setenv("KELVO_THREADS", "5", 1);
  EXPECT_EQ(jvThreadsFor(o, 9000000), 5);
  EXPECT_EQ(jvDiffusionThreadsFor(o, 9000000), 5);
  EXPECT_EQ(jvDiffusionThreadsFor(o, 1000), 1);
  unsetenv("KELVO_THREADS");
  o.threads = 3;
  EXPECT_EQ(jvDiffusionThreadsFor(o, 1000), 3);
}

}  // namespace
