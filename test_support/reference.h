#pragma once
// The plain, step-by-step definitions of the page pipeline's hot paths,
// kept beside the tests as the yardstick for the optimised production code:
// every optimised path must give exactly these bytes. Nothing here is tuned.
#include <cstdint>
#include <string>
#include <vector>

#include "stencil/jv_image.h"

namespace kref {

// An 8-bit palette page as the pipeline holds it: rows of `eff` bytes
// (the width rounded up to a multiple of 4), padding included.
struct Page {
  int width = 0;
  int height = 0;
  int eff = 0;
  std::vector<uint8_t> px;
  uint8_t& at(int x, int y) { return px[static_cast<size_t>(y) * eff + x]; }
};

// CreateFromArray(data, width, height, 8, stride, false): rows of
// min(eff, stride) bytes, the rest of each row zero.
Page fromArray(const uint8_t* data, int width, int height, int stride);

void light(Page& page, int brightness, int contrast);
Page rotate180(const Page& page);
Page mirror(const Page& page);
void negative(Page& page);

// Dither(method) then IncreaseBpp(8) on an 8-bit gray page: indices 0/1,
// padding 0. `levels` is changed, as the diffusion works in place.
Page ditherTo8(Page levels, long method);
// Dither(method) alone: 1-bit rows, most significant bit first, padding 0.
std::vector<uint8_t> ditherTo1(Page levels, long method);

// Dither(method) on a 4-bit page given as one level (0..15) a pixel; the
// diffusion stores each clamped value cut to 4 bits. Returns one 0/1 a pixel.
std::vector<uint8_t> dither4(std::vector<uint8_t> levels, int width, int height, long method);

struct Options {
  int type = 0;
  int brightness = 0;  // the printer's -100..100 values
  int contrast = 0;
  bool rotate = false;
  bool mirror = false;
  bool negative = false;
};

// PageProcess up to the processed image (no frame), for a page whose stride
// equals its width when a tattoo type is used.
Page processPage(const uint8_t* data, int stride, int width, int height, const Options& options);

// The graphic doPrintImage writes for the first `width` pixels of rows
// `stride` bytes apart, Kelvo dialect, hex encoding.
std::string zplGraphic(const uint8_t* bits, int stride, int width, int height, int copies, unsigned long skip);
// One encoded row; `prevAllDots` says whether the row before it was all dots
// and is updated for the next row.
std::string zplLine(const uint8_t* row, int n, bool& prevAllDots);
// GrayToMono(bpl, h, data) in place; returns the packed size.
int grayToMono(int bpl, int h, uint8_t* data, unsigned long skip);

// The stencil chain's image stages.
JVImage convolve1D(const JVImage& src, const double* taps, int size, bool horizontal);
JVImage gaussianFast(const JVImage& src, int size, double sigma);
JVImage addWeighted(const JVImage& a, const JVImage& b, float weight);
JVImage cvtGray(const JVImage& src);
int thresholdGuarded(const JVImage& gray);
void gammaGuarded(JVImage& img, int pivot, float low, float high);
// `values`, when given, receives each pixel's v (error cell plus level).
JVImage edfCus(const JVImage& src, int threshold, std::vector<float>* values = nullptr);
JVImage tattoo(const JVImage& src, bool x8);

}  // namespace kref
