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

// The brightness table with `levels` added to every level (the printer's
// brightness times 5).
void light(Page& page, int levels);
Page mirror(const Page& page);
void negative(Page& page, bool stencil);

// Halftone `method` (the number of its KelvoHalftone, 0 to 7 and 10 but
// Barcode and Text) on an 8-bit page of ink: 0/1 a pixel, padding 0.
// `levels` is changed, as the diffusion works in place.
Page ditherTo8(Page levels, long method);
// The same as rows of dots, (width + 7) / 8 bytes a row, first pixel in bit 7.
std::vector<uint8_t> ditherToDots(Page levels, long method);

struct Options {
  int type = 0;        // a KelvoHalftone's number
  int brightness = 0;  // the printer's -100..100 values
  bool mirror = false;
  bool negative = false;
};

// The page as it prints (no frame): 0 paper, any other value a dot.
Page processPage(const uint8_t* data, int stride, int width, int height, const Options& options);

// The hex graphic of the first `width` pixels of rows `stride` bytes apart
// (0 paper, any other value a dot), Kelvo dialect.
std::string zplGraphic(const uint8_t* bits, int stride, int width, int height, int copies);
// One encoded row; `prevAllDots` says whether the row before it was all dots
// and is updated for the next row.
std::string zplLine(const uint8_t* row, int n, bool& prevAllDots);
// Packs h rows of bpl bytes (0 paper) in place into rows of dots; returns
// the packed size.
int grayToMono(int bpl, int h, uint8_t* data);

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
