// The stencil stages against the plain definitions, on every vector path
// this CPU has and on one and several threads: each must give the same
// bytes as the plain loops run on one core.
#include <gtest/gtest.h>

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
#include "tests/reference/random_pages.h"
#include "tests/reference/reference.h"

namespace {

bool same(const JVImage& a, const JVImage& b) {
  if (a.width != b.width || a.height != b.height || a.channels != b.channels || a.color != b.color) return false;
  const long n = static_cast<long>(a.width) * a.height * a.channels;
  return n <= 0 || std::equal(a.data, a.data + n, b.data);
}

// Where two pages first differ, for the failure message.
std::string firstDifference(const JVImage& a, const JVImage& b) {
  if (a.width != b.width || a.height != b.height) return "sizes differ";
  for (long i = 0; i < static_cast<long>(a.width) * a.height; ++i)
    if (a.data[i] != b.data[i])
      return "first difference at x " + std::to_string(i % a.width) + ", y " + std::to_string(i / a.width) + ": " +
             std::to_string(a.data[i]) + " against " + std::to_string(b.data[i]);
  return "same pixels";
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

std::string label(int level, int threads) {
  return "vector path " + std::to_string(level) + ", " + std::to_string(threads) + " thread(s)";
}

// Runs `check` once per vector path the machine offers with the process
// default switched to it, then restores the best one.
template <typename F>
void onEveryPath(F check) {
  for (int level : paths()) {
    ASSERT_EQ(jvSetSimdLevel(level), level);
    SCOPED_TRACE("vector path " + std::to_string(level));
    check();
  }
  jvSetSimdLevel(kJvSimdAvx2);
}

// Page shapes with every width up to 70, single rows and columns, and
// heights around the diffusion's bands of 8 and 16 rows.
struct Shape {
  int w, h;
};
std::vector<Shape> oddShapes(std::mt19937& rng) {
  std::vector<Shape> s;
  for (int w = 1; w <= 70; ++w) s.push_back({w, 1 + static_cast<int>(rng() % 40)});
  for (int n : {1, 2, 3, 5, 7, 8, 9, 15, 16, 17, 31, 33, 64, 100, 257}) {
    s.push_back({n, 1});
    s.push_back({1, n});
  }
  for (int h : {2, 7, 8, 9, 15, 16, 17, 23, 24, 25, 32, 33, 47, 48, 49})
    s.push_back({3 + static_cast<int>(rng() % 90), h});
  return s;
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
          ASSERT_TRUE(same(convolve1D(src, taps.data(), size, horizontal),
                           kref::convolve1D(src, taps.data(), size, horizontal)))
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

// The streamed unsharp mask (both blur passes and the weighting, row by
// row on several threads) against the plain stages one after the other.
TEST(StencilEquivalence, UnsharpMaskEveryPathAndThreadCount) {
  std::mt19937 rng(4711);
  const std::vector<Shape> shapes = oddShapes(rng);
  for (int level : paths())
    for (int threads : {1, 2, 3, 5}) {
      SCOPED_TRACE(label(level, threads));
      for (const Shape& s : shapes) {
        const JVImage src = randomGray(rng, s.w, s.h);
        const int size = threads == 1 ? 11 : static_cast<int>(1 + rng() % 14);
        const float amount = threads == 1 ? 300.0f : static_cast<float>(rng() % 500);
        const JVImage want = kref::addWeighted(src, kref::gaussianFast(src, size, 3.0), amount / 100.0f);
        const JVImage got = enh_unsharp_mask(src, amount, size, run(level, threads));
        ASSERT_TRUE(same(got, want)) << s.w << "x" << s.h << ", size " << size << ", amount " << amount << ": "
                                     << firstDifference(got, want);
      }
    }
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

// The wavefront: bands of rows in vector lanes, bands on threads.
TEST(StencilEquivalence, DiffusionEveryPathAndThreadCount) {
  std::mt19937 rng(2024);
  const std::vector<Shape> shapes = oddShapes(rng);
  const int thresholds[] = {-1, 0, 64, 100, 127, 128, 160, 200, 255, 300};
  for (int level : paths())
    for (int threads : {1, 2, 3, 4, 7}) {
      SCOPED_TRACE(label(level, threads));
      for (const Shape& s : shapes) {
        const JVImage src = randomGray(rng, s.w, s.h);
        const int t = thresholds[rng() % 10];
        const JVImage want = kref::edfCus(src, t);
        const JVImage got = edf_cus(src, t, run(level, threads));
        ASSERT_TRUE(same(got, want)) << s.w << "x" << s.h << ", threshold " << t << ": " << firstDifference(got, want);
      }
    }
}

// The float steps themselves: every pixel's v (error cell plus level, the
// value that is quantised) bit for bit as the plain scan computes it. The
// bytes alone would hardly ever show an addition made in another order, as
// a one-ulp difference seldom crosses the threshold.
TEST(StencilEquivalence, DiffusionFloatsBitForBit) {
  std::mt19937 rng(77);
  std::vector<Shape> shapes = oddShapes(rng);
  shapes.push_back({2480, 200});
  shapes.push_back({613, 301});
  auto check = [&](const std::string& what, auto diffuse) {
    for (const Shape& s : shapes) {
      const JVImage src = randomGray(rng, s.w, s.h);
      const int t = static_cast<int>(rng() % 256);
      std::vector<float> want;
      const JVImage bytes = kref::edfCus(src, t, &want);
      JVImage got(src);
      std::vector<float> values(want.size(), -1.0f);
      diffuse(got.data, s.w, s.h, t, values.data());
      ASSERT_TRUE(same(got, bytes)) << what << ", " << s.w << "x" << s.h << ": " << firstDifference(got, bytes);
      for (size_t i = 0; i < want.size(); ++i) {
        uint32_t a, b;
        std::memcpy(&a, &values[i], 4);
        std::memcpy(&b, &want[i], 4);
        ASSERT_EQ(a, b) << what << ", " << s.w << "x" << s.h << ", threshold " << t << ": v at x "
                        << i % static_cast<size_t>(s.w) << ", y " << i / static_cast<size_t>(s.w) << " is " << values[i]
                        << ", plain " << want[i];
      }
    }
  };
  for (int level : paths())
    for (int threads : {1, 2, 3})
      check(label(level, threads), [&](uint8_t* image, int w, int h, int t, float* values) {
        jvk::edfInPlace(image, w, h, t, jvk::kernelsFor(level), threads, values);
      });
  check("one pixel at a time",
        [](uint8_t* image, int w, int h, int t, float* values) { jvk::edfSerialInPlace(image, w, h, t, values); });
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

// Both chains on odd shapes, every path, one and several threads, and
// colour layouts (which go through cvtGray first).
TEST(StencilEquivalence, BothChainsEveryPathAndThreadCount) {
  std::mt19937 rng(99);
  const std::vector<Shape> shapes = oddShapes(rng);
  const JV_IMG_COLOR layouts[] = {JV_IMG_GRAY, JV_IMG_GRAY, JV_IMG_GRAY, JV_IMG_BGR, JV_IMG_RGBA};
  for (int level : paths())
    for (int threads : {1, 2, 3}) {
      SCOPED_TRACE(label(level, threads));
      for (size_t i = 0; i < shapes.size(); ++i) {
        const Shape& s = shapes[i];
        const JV_IMG_COLOR color = layouts[i % 5];
        const std::vector<uint8_t> px =
            kref::randomPage(s.w * jvChannelsOf(color), s.h, s.w * jvChannelsOf(color), rng());
        JVImage src(s.w, s.h, color, px.data());
        const bool x8 = i % 2 == 1;
        const JVImage want = kref::tattoo(src, x8);
        const JVImage got = x8 ? jvTattooDitheringX8Guarded(src, run(level, threads))
                               : jvTattooDitheringGuarded(src, run(level, threads));
        ASSERT_TRUE(same(got, want)) << s.w << "x" << s.h << " layout " << color << (x8 ? " X8" : " Tattoo") << ": "
                                     << firstDifference(got, want);
      }
    }
}

// Large pages, whose rows are longer than any block and whose bands keep
// the threads apart for long stretches, against the plain chain.
TEST(StencilEquivalence, BothChainsOnLargePages) {
  std::mt19937 rng(31);
  const Shape shapes[] = {{2480, 301}, {1203, 777}, {4001, 67}};
  for (size_t i = 0; i < 3; ++i) {
    const Shape& s = shapes[i];
    JVImage src = randomGray(rng, s.w, s.h);
    const bool x8 = i == 1;
    const JVImage want = kref::tattoo(src, x8);
    for (int level : paths())
      for (int threads : {1, 2, 4}) {
        const JVImage got = x8 ? jvTattooDitheringX8Guarded(src, run(level, threads))
                               : jvTattooDitheringGuarded(src, run(level, threads));
        ASSERT_TRUE(same(got, want)) << s.w << "x" << s.h << ", " << label(level, threads) << ": "
                                     << firstDifference(got, want);
      }
  }
}

// A whole A4 page at 300 dpi on every path and thread count, the fast
// paths against each other (one thread, portable path, as the yardstick).
TEST(StencilEquivalence, A4PageOneThreadAgainstSeveral) {
  std::mt19937 rng(300);
  JVImage src = randomGray(rng, 2480, 3507);
  for (bool x8 : {false, true}) {
    const JVImage want = x8 ? jvTattooDitheringX8Guarded(src, run(kJvSimdScalar, 1))
                            : jvTattooDitheringGuarded(src, run(kJvSimdScalar, 1));
    for (int level : paths())
      for (int threads : {1, 2, 3, 8}) {
        if (level == kJvSimdScalar && threads == 1) continue;
        const JVImage got = x8 ? jvTattooDitheringX8Guarded(src, run(level, threads))
                               : jvTattooDitheringGuarded(src, run(level, threads));
        ASSERT_TRUE(same(got, want)) << (x8 ? "X8, " : "Tattoo, ") << label(level, threads) << ": "
                                     << firstDifference(got, want);
      }
  }
}

// Several pages at once in one process, each on several threads, as a
// printer application runs them: nothing is shared between them.
TEST(StencilEquivalence, PagesRunningAtTheSameTime) {
  std::mt19937 rng(5150);
  std::vector<JVImage> pages;
  std::vector<JVImage> want;
  for (int i = 0; i < 4; ++i) {
    pages.push_back(randomGray(rng, 300 + 97 * i, 200 + 31 * i));
    want.push_back(i % 2 ? jvTattooDitheringX8Guarded(pages.back(), run(kJvSimdScalar, 1))
                         : jvTattooDitheringGuarded(pages.back(), run(kJvSimdScalar, 1)));
  }
  std::vector<JVImage> got(4, JVImage(0, 0, JV_IMG_GRAY));
  std::vector<std::thread> jobs;
  for (int i = 0; i < 4; ++i)
    jobs.emplace_back([&, i] {
      for (int round = 0; round < 3; ++round)
        got[static_cast<size_t>(i)] =
            i % 2 ? jvTattooDitheringX8Guarded(pages[static_cast<size_t>(i)], run(kJvSimdDefault, 2 + round))
                  : jvTattooDitheringGuarded(pages[static_cast<size_t>(i)], run(kJvSimdDefault, 2 + round));
    });
  for (std::thread& t : jobs) t.join();
  for (size_t i = 0; i < 4; ++i)
    EXPECT_TRUE(same(got[i], want[i])) << "page " << i << ": " << firstDifference(got[i], want[i]);
}

TEST(StencilEquivalence, ThreadCounts) {
  JVRunOptions o;
  o.threads = 3;
  EXPECT_EQ(jvThreadsFor(o, 10), 3);
  o.threads = 1000;
  EXPECT_EQ(jvThreadsFor(o, 10), 64);
  o.threads = 0;
  EXPECT_EQ(jvThreadsFor(o, 1000), 1);  // small pages stay on one thread
  EXPECT_GE(jvThreadsFor(o, 9000000), 1);
  EXPECT_LE(jvThreadsFor(o, 9000000), 64);
}

}  // namespace
