// Per-stage speed of the page pipeline on the benchmark pages, reported as
// nanoseconds per page pixel ("ns_px"). Nothing here asserts a time.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <glob.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/pages.h"
#include "image/halftone.h"
#include "printer/debug_pictures.h"
#include "printer/page_pipeline.h"
#include "printer/zpl_graphic.h"
#include "stencil/jv_enhance.h"
#include "stencil/jv_image.h"
#include "stencil/jv_tattoo.h"

namespace {

using kelvobench::InkPage;

const InkPage& label() {
  static const InkPage page = kelvobench::makeLabelPage(203);
  return page;
}

const InkPage& photo() {
  static const InkPage page = kelvobench::makePhotoPage(300);
  return page;
}

const InkPage& pageFor(int which) { return which == 0 ? label() : photo(); }

void perPixel(benchmark::State& state, const InkPage& page) {
  // Inverted iteration-invariant rate: seconds per (pixel x 1e-9) = ns a pixel.
  state.counters["ns_px"] = benchmark::Counter(static_cast<double>(page.width) * page.height * 1e-9,
                                               benchmark::Counter::kIsIterationInvariantRate |
                                                   benchmark::Counter::kInvert);
  state.SetLabel(std::to_string(page.width) + "x" + std::to_string(page.height));
}

FILE* devNull() {
  static FILE* f = std::fopen("/dev/null", "w");
  return f;
}

// Debug images of the benchmark go to a scratch folder, not the spooler's.
const std::string& scratchDir() {
  static const std::string dir = [] {
    char tmpl[] = "/tmp/kelvo-bench-XXXXXX";
    const char* made = mkdtemp(tmpl);
    return std::string(made != nullptr ? made : "/tmp");
  }();
  return dir;
}

// The label's dots by `method`.
KelvoDots dotsOf(const InkPage& page, KelvoHalftone method) {
  KelvoDots dots;
  dots.reset(static_cast<unsigned>(page.width), static_cast<unsigned>(page.height));
  kelvoHalftone(method, page.ink.data(), static_cast<size_t>(page.width), page.width, page.height, dots.bits.data(),
                dots.rowBytes);
  return dots;
}

// The halftone straight into rows of dots; the argument is its number.
void BM_Halftone(benchmark::State& state) {
  const InkPage& page = label();
  for (auto _ : state) benchmark::DoNotOptimize(dotsOf(page, static_cast<KelvoHalftone>(state.range(0))).bits.data());
  perPixel(state, page);
}
BENCHMARK(BM_Halftone)->DenseRange(0, 7)->Arg(10)->Unit(benchmark::kMillisecond);

// The error diffusions on each path: arguments halftone, path (-1 row by
// row, 0 wavefront in SSE2 lanes, 1 in AVX2 lanes where the CPU has them).
void BM_HalftonePath(benchmark::State& state) {
  const InkPage& page = label();
  if (kelvoDitherSetPath(static_cast<int>(state.range(1))) != state.range(1)) {
    state.SkipWithError("path not on this CPU");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(dotsOf(page, static_cast<KelvoHalftone>(state.range(0))).bits.data());
  kelvoDitherSetPath(1);
  perPixel(state, page);
}
BENCHMARK(BM_HalftonePath)->ArgsProduct({{2, 3, 6}, {-1, 0, 1}})->Unit(benchmark::kMillisecond);

// --- stencil stages, on the A4 photo ---

const JVImage& photoGray() {
  static const JVImage img(photo().width, photo().height, JV_IMG_GRAY, photo().ink.data());
  return img;
}

void BM_StencilGray(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(cvtGray(photoGray()).data);
  perPixel(state, photo());
}
BENCHMARK(BM_StencilGray)->Unit(benchmark::kMillisecond);

void BM_StencilThreshold(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(thresh_global_moments(photoGray()));
  perPixel(state, photo());
}
BENCHMARK(BM_StencilThreshold)->Unit(benchmark::kMillisecond);

void BM_StencilGamma(benchmark::State& state) {
  JVImage img(photoGray());
  for (auto _ : state) {
    enh_piecewise_gamma(img, 64, 0.85f, 0.7f);
    benchmark::DoNotOptimize(img.data);
  }
  perPixel(state, photo());
}
BENCHMARK(BM_StencilGamma)->Unit(benchmark::kMillisecond);

// The threaded stages take the thread count as their last argument. Their
// CPU column is the whole process's (every thread), the time column wall
// time.
JVRunOptions withThreads(int64_t threads, int64_t simd = kJvSimdDefault) {
  JVRunOptions o;
  o.threads = static_cast<int>(threads);
  o.simdLevel = static_cast<int>(simd);
  return o;
}

// Vector path as the argument: -1 portable, 0 SSE2, 1 AVX2.
void BM_StencilBlur(benchmark::State& state) {
  const JVRunOptions o = withThreads(1, state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(enh_gaussian_filter_fast(photoGray(), 11, 3.0, o).data);
  perPixel(state, photo());
}
BENCHMARK(BM_StencilBlur)->Arg(-1)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_StencilWeighted(benchmark::State& state) {
  const JVImage blurred = enh_gaussian_filter_fast(photoGray(), 11, 3.0);
  for (auto _ : state) benchmark::DoNotOptimize(add_Weighted(photoGray(), blurred, 3.0f).data);
  perPixel(state, photo());
}
BENCHMARK(BM_StencilWeighted)->Unit(benchmark::kMillisecond);

// The chain's unsharp stage: blur and weighting streamed by rows.
// Arguments: threads, vector path.
void BM_StencilUnsharp(benchmark::State& state) {
  const JVRunOptions o = withThreads(state.range(0), state.range(1));
  for (auto _ : state) benchmark::DoNotOptimize(enh_unsharp_mask(photoGray(), 300.0f, 11, o).data);
  perPixel(state, photo());
}
BENCHMARK(BM_StencilUnsharp)
    ->Args({1, -1})->Args({1, 0})->Args({1, 1})->Args({2, 1})
    ->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);

// Arguments: threads, vector path.
void BM_StencilDiffusion(benchmark::State& state) {
  const JVImage sharp = enh_unsharp_mask(photoGray(), 300.0f, 11);
  const int t = thresh_global_moments(photoGray());
  const JVRunOptions o = withThreads(state.range(0), state.range(1));
  for (auto _ : state) benchmark::DoNotOptimize(edf_cus(sharp, t, o).data);
  perPixel(state, photo());
}
BENCHMARK(BM_StencilDiffusion)
    ->Args({1, -1})->Args({1, 0})->Args({1, 1})->Args({2, 1})
    ->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);

// Arguments: 0 Tattoo / 1 Tattoo_X8, threads.
void BM_StencilChain(benchmark::State& state) {
  JVImage src(photoGray());
  const JVRunOptions o = withThreads(state.range(1));
  for (auto _ : state) {
    JVImage out = state.range(0) == 0 ? jvTattooDithering(src, o) : jvTattooDitheringX8(src, o);
    benchmark::DoNotOptimize(out.data);
  }
  perPixel(state, photo());
}
BENCHMARK(BM_StencilChain)
    ->Args({0, 1})->Args({1, 1})->Args({0, 2})->Args({1, 2})
    ->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);

// --- output: the row encoder, and the debug pictures ---

// The whole graphic of a page of ordered dots to /dev/null; second argument
// 0 the Kelvo dialect, 1 Standard.
void BM_ZplGraphic(benchmark::State& state) {
  const InkPage& page = pageFor(static_cast<int>(state.range(0)));
  const KelvoDots dots = dotsOf(page, KelvoHalftone::kOrdered4x4);
  KelvoSink sink(devNull());
  KelvoJobSettings settings;
  settings.dialect = state.range(1) != 0 ? ZplDialect::kStandard : ZplDialect::kKelvo;
  for (auto _ : state) kelvoWriteGraphic(sink, settings, dots);
  perPixel(state, page);
}
BENCHMARK(BM_ZplGraphic)->ArgsProduct({{0, 1}, {0, 1}})->Unit(benchmark::kMillisecond);

void BM_SaveImage(benchmark::State& state) {
  const InkPage& page = pageFor(static_cast<int>(state.range(0)));
  KelvoDebugPictures pictures(scratchDir(), "bench");
  for (auto _ : state) {
    pictures.saveReceived(page.ink.data(), page.width, page.height);
    state.PauseTiming();
    // Every file of the scratch folder is the benchmark's own.
    const std::string clean = "rm -f " + scratchDir() + "/kelvozpl-debug-*.bmp";
    if (std::system(clean.c_str()) != 0) state.SkipWithError("cannot clean the scratch folder");
    state.ResumeTiming();
  }
  perPixel(state, page);
}
BENCHMARK(BM_SaveImage)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// --- the whole page, as the engine prints it: the label with the threshold,
// Burkes' diffusion and Barcode and Text made darker and mirrored, A4 with
// both stencil chains ---

struct PageCase {
  int page;
  KelvoHalftone halftone;
  int brightness;
  bool mirror;
};
const PageCase kPageCases[] = {{0, KelvoHalftone::kThreshold, 0, false},
                               {0, KelvoHalftone::kBurkes, 0, false},
                               {0, KelvoHalftone::kBarcodeText, 20, true},
                               {1, KelvoHalftone::kTattoo, 0, false},
                               {1, KelvoHalftone::kTattooX8, 0, false}};

void BM_WholePage(benchmark::State& state) {
  const PageCase& c = kPageCases[state.range(0)];
  const InkPage& page = pageFor(c.page);
  KelvoSink sink(devNull());
  KelvoJobSettings settings;
  settings.halftone = c.halftone;
  settings.brightness = c.brightness;
  settings.mirror = c.mirror;
  const KelvoPageSize size{static_cast<unsigned>(page.width), static_cast<unsigned>(page.height), 300, 300};
  KelvoDots dots;
  // The engine works in the page it is given, so each round gets a fresh
  // copy (not timed), as each page of a job is read afresh. Debug pictures
  // are off, as in the shipped PPDs.
  std::vector<unsigned char> scratch(page.ink.size());
  for (auto _ : state) {
    state.PauseTiming();
    scratch = page.ink;
    state.ResumeTiming();
    kelvoRenderPage(scratch.data(), static_cast<size_t>(page.width), size, settings, dots, nullptr);
    kelvoWriteGraphic(sink, settings, dots);
  }
  perPixel(state, page);
}
BENCHMARK(BM_WholePage)->DenseRange(0, 4)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  // The pipeline's progress lines go to standard error; keep the report clean.
  const int null = open("/dev/null", O_WRONLY);
  if (null >= 0) dup2(null, 2);
  // Make the pages before timing anything: the photo takes a while.
  label();
  photo();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
