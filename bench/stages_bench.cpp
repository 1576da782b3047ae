// Per-stage speed of the page pipeline on the benchmark pages, reported as
// nanoseconds per page pixel ("ns_px"). Nothing here asserts a time.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <glob.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/pages.h"
#include "image/palette_dither.h"
#include "printer/zpl_printer.h"
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

class BenchPrinter : public ZplPrinter {
 public:
  BenchPrinter() {
    outputStreams_.clear();
    outputStreams_.push_back(devNull());
  }
  PaletteImage& work() { return workImage_; }
};

void BM_CreateFromArray(benchmark::State& state) {
  const InkPage& page = pageFor(static_cast<int>(state.range(0)));
  PaletteImage img;
  for (auto _ : state) {
    img.CreateFromArray(const_cast<unsigned char*>(page.ink.data()), page.width, page.height, 8, page.width, false);
    benchmark::DoNotOptimize(img.GetBits(0));
  }
  perPixel(state, page);
}
BENCHMARK(BM_CreateFromArray)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// Dither(method) followed by IncreaseBpp(8), as the pipeline runs them.
void BM_Dither(benchmark::State& state) {
  const InkPage& page = label();
  PaletteImage img;
  for (auto _ : state) {
    state.PauseTiming();
    img.CreateFromArray(const_cast<unsigned char*>(page.ink.data()), page.width, page.height, 8, page.width, false);
    state.ResumeTiming();
    img.Dither(state.range(0));
    img.IncreaseBpp(8);
    benchmark::DoNotOptimize(img.GetBits(0));
  }
  perPixel(state, page);
}
BENCHMARK(BM_Dither)->DenseRange(0, 8)->Unit(benchmark::kMillisecond);

// The error diffusions on each path: arguments method, path (-1 row by
// row, 0 wavefront in SSE2 lanes, 1 in AVX2 lanes where the CPU has them).
void BM_DitherPath(benchmark::State& state) {
  const InkPage& page = label();
  if (kelvoDitherSetPath(static_cast<int>(state.range(1))) != state.range(1)) {
    state.SkipWithError("path not on this CPU");
    return;
  }
  PaletteImage img;
  for (auto _ : state) {
    state.PauseTiming();
    img.CreateFromArray(const_cast<unsigned char*>(page.ink.data()), page.width, page.height, 8, page.width, false);
    state.ResumeTiming();
    img.Dither(state.range(0));
    benchmark::DoNotOptimize(img.GetBits(0));
  }
  kelvoDitherSetPath(1);
  perPixel(state, page);
}
BENCHMARK(BM_DitherPath)->ArgsProduct({{2, 3, 6, 8}, {-1, 0, 1}})->Unit(benchmark::kMillisecond);

void BM_Light(benchmark::State& state) {
  const InkPage& page = pageFor(static_cast<int>(state.range(0)));
  PaletteImage img;
  img.CreateFromArray(const_cast<unsigned char*>(page.ink.data()), page.width, page.height, 8, page.width, false);
  for (auto _ : state) {
    img.Light(35, -20);
    benchmark::DoNotOptimize(img.GetBits(0));
  }
  perPixel(state, page);
}
BENCHMARK(BM_Light)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_MirrorRotate(benchmark::State& state) {
  const InkPage& page = label();
  PaletteImage img;
  img.CreateFromArray(const_cast<unsigned char*>(page.ink.data()), page.width, page.height, 8, page.width, false);
  for (auto _ : state) {
    if (state.range(0) == 0)
      img.Mirror();
    else
      img.Rotate180(nullptr);
    benchmark::DoNotOptimize(img.GetBits(0));
  }
  perPixel(state, page);
}
BENCHMARK(BM_MirrorRotate)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

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
  for (auto _ : state) benchmark::DoNotOptimize(thresh_global_moments_guarded(photoGray()));
  perPixel(state, photo());
}
BENCHMARK(BM_StencilThreshold)->Unit(benchmark::kMillisecond);

void BM_StencilGamma(benchmark::State& state) {
  JVImage img(photoGray());
  for (auto _ : state) {
    enh_piecewise_gamma_guarded(img, 64, 0.85f, 0.7f);
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
  const int t = thresh_global_moments_guarded(photoGray());
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
    JVImage out = state.range(0) == 0 ? jvTattooDitheringGuarded(src, o) : jvTattooDitheringX8Guarded(src, o);
    benchmark::DoNotOptimize(out.data);
  }
  perPixel(state, photo());
}
BENCHMARK(BM_StencilChain)
    ->Args({0, 1})->Args({1, 1})->Args({0, 2})->Args({1, 2})
    ->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);

// --- output: 1-bit packing with the row encoder, and the debug images ---

// A halftoned page of 0/1 bytes, as the pipeline hands it to the printer.
std::vector<unsigned char> halftoned(const InkPage& page) {
  PaletteImage img;
  img.CreateFromArray(const_cast<unsigned char*>(page.ink.data()), page.width, page.height, 8, page.width, false);
  img.Dither(1);
  img.IncreaseBpp(8);
  std::vector<unsigned char> out(static_cast<size_t>(page.width) * page.height);
  for (int y = 0; y < page.height; ++y)
    for (int x = 0; x < page.width; ++x) out[static_cast<size_t>(y) * page.width + x] = img.GetPixelIndex(x, y);
  return out;
}

void BM_GrayToMono(benchmark::State& state) {
  const InkPage& page = pageFor(static_cast<int>(state.range(0)));
  const std::vector<unsigned char> src = halftoned(page);
  std::vector<unsigned char> buf;
  BenchPrinter printer;
  for (auto _ : state) {
    state.PauseTiming();
    buf = src;
    state.ResumeTiming();
    benchmark::DoNotOptimize(printer.GrayToMono(page.width, page.height, buf.data()));
  }
  perPixel(state, page);
}
BENCHMARK(BM_GrayToMono)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// The whole graphic: packing plus the row encoder through the print
// primitives, to /dev/null; second argument 0 the Kelvo dialect, 1 Standard.
void BM_ZplGraphic(benchmark::State& state) {
  const InkPage& page = pageFor(static_cast<int>(state.range(0)));
  const std::vector<unsigned char> src = halftoned(page);
  BenchPrinter printer;
  printer.setDialect(state.range(1) != 0 ? kDialectStandard : kDialectKelvo);
  cups_page_header2_t header{};
  header.NumCopies = 1;
  printer.setPageHeader(&header);
  for (auto _ : state) printer.doPrintImage(src.data(), page.width, page.height, page.width);
  perPixel(state, page);
}
BENCHMARK(BM_ZplGraphic)->ArgsProduct({{0, 1}, {0, 1}})->Unit(benchmark::kMillisecond);

void BM_SaveImage(benchmark::State& state) {
  const InkPage& page = pageFor(static_cast<int>(state.range(0)));
  BenchPrinter printer;
  printer.setDebugImages(true, scratchDir(), "bench");
  for (auto _ : state) {
    printer.saveImage(page.ink.data(), page.width, page.height, page.width, 8, "origin");
    state.PauseTiming();
    // Every file of the scratch folder is the benchmark's own.
    const std::string clean = "rm -f " + scratchDir() + "/kelvozpl-debug-*.bmp";
    if (std::system(clean.c_str()) != 0) state.SkipWithError("cannot clean the scratch folder");
    state.ResumeTiming();
  }
  perPixel(state, page);
}
BENCHMARK(BM_SaveImage)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// --- the whole page through printImage: label with None and with an
// error diffusion (type 2 runs Burkes), A4 with both stencil chains ---

struct PageCase {
  int page;
  DitherType type;
};
const PageCase kPageCases[] = {{0, None}, {0, Ordered}, {1, Tattoo}, {1, Tattoo_X8}};

void BM_WholePage(benchmark::State& state) {
  const PageCase& c = kPageCases[state.range(0)];
  const InkPage& page = pageFor(c.page);
  BenchPrinter printer;
  cups_page_header2_t header{};
  header.NumCopies = 1;
  printer.setPageHeader(&header);
  printer.setHalftoneType(c.type);
  // Debug pictures are off, as in the shipped PPDs. printImage may work in
  // the page it is given, so each round gets a fresh copy (not timed), as
  // each page of a job is read afresh.
  std::vector<unsigned char> scratch(page.ink.size());
  for (auto _ : state) {
    state.PauseTiming();
    std::memcpy(scratch.data(), page.ink.data(), scratch.size());
    state.ResumeTiming();
    printer.printImage(scratch.data(), page.width, page.height, page.width);
  }
  perPixel(state, page);
}
BENCHMARK(BM_WholePage)->DenseRange(0, 3)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);

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
