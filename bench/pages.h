#pragma once
// Deterministic test pages for the benchmarks and the comparison script:
// the same bytes on every machine and every run.
#include <cstdint>
#include <vector>

namespace kelvobench {

// One 8-bit page of ink amounts, rows packed (stride == width); 0 = no ink.
struct InkPage {
  int width = 0;
  int height = 0;
  std::vector<unsigned char> ink;
};

// A 4 x 6 inch shipping label: a frame, lines of text-like strokes with soft
// edges, a barcode, a gray gradient and flat gray boxes.
InkPage makeLabelPage(int dpi);

// A photo-like A4 page: smooth shading, round shapes, grain.
InkPage makePhotoPage(int dpi);

// Small xorshift generator; std::mt19937 would do, but its distributions are
// not the same on every standard library.
class Rng {
 public:
  explicit Rng(uint32_t seed) : state_(seed ? seed : 0x9E3779B9u) {}
  uint32_t next() {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 17;
    state_ ^= state_ << 5;
    return state_;
  }
  int below(int n) { return static_cast<int>(next() % static_cast<uint32_t>(n)); }

 private:
  uint32_t state_;
};

}  // namespace kelvobench
