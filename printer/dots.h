#pragma once
// A page as it prints: one bit a dot, a set bit prints. Row y starts at
// bits[y * rowBytes]; its first pixel is bit 7 of that byte, and the unused
// low bits of its last byte are 0.
#include <cstddef>
#include <cstdint>
#include <vector>

struct KelvoDots {
  unsigned width = 0;
  unsigned height = 0;
  size_t rowBytes = 0;
  std::vector<uint8_t> bits;

  // Makes the page `width` x `height`, every dot cleared.
  void reset(unsigned w, unsigned h) {
    width = w;
    height = h;
    rowBytes = (static_cast<size_t>(w) + 7) / 8;
    bits.assign(rowBytes * h, 0);
  }
  uint8_t* row(unsigned y) { return bits.data() + rowBytes * y; }
  const uint8_t* row(unsigned y) const { return bits.data() + rowBytes * y; }
  // The bits of a row's last byte that are pixels.
  uint8_t lastByteMask() const { return static_cast<uint8_t>(width % 8 == 0 ? 0xFF : 0xFF << (8 - width % 8)); }
};
