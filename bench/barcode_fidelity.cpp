// How near Barcode and Text comes to the nearest-dot drawing of symbols that
// an enlarging filter interpolated: random symbols (test_support/
// enlarged_symbol.h) at each scale, the halftone's dots against the drawing
// with every edge on its nearest dot, and the threshold (above 128 prints)
// beside it for comparison.
//
//   kelvo-bench-barcode-fidelity [pages per scale (200)] [scale...]
//     (scales 1.3 1.5 1.75 2 2.5 3 by default)
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "image/barcode_text.h"
#include "test_support/enlarged_symbol.h"

int main(int argc, char** argv) {
  const int pages = argc > 1 ? std::atoi(argv[1]) : 200;
  std::vector<double> scales;
  for (int i = 2; i < argc; ++i) scales.push_back(std::atof(argv[i]));
  if (scales.empty()) scales = {1.3, 1.5, 1.75, 2, 2.5, 3};
  std::printf("| scale | pages | exact, Barcode and Text | dots off a page | exact, threshold | dots off a page |\n");
  std::printf("|---:|---:|---:|---:|---:|---:|\n");
  for (double scale : scales) {
    int exact = 0, exactThreshold = 0;
    long off = 0, offThreshold = 0;
    for (int seed = 0; seed < pages; ++seed) {
      const EnlargedSymbol s = enlargedSymbol(scale, static_cast<unsigned>(seed));
      const size_t w = static_cast<size_t>(s.dots);
      long wrong = 0, wrongThreshold = 0;
      kelvoBarcodeTextHalftone(
          s.dots, s.dots, [&](long y, uint8_t* row) { std::copy_n(&s.levels[static_cast<size_t>(y) * w], w, row); },
          [&](long y, const uint8_t* dots) {
            for (size_t x = 0; x < w; ++x) {
              const size_t i = static_cast<size_t>(y) * w + x;
              wrong += dots[x] != s.nearest[i];
              wrongThreshold += (s.levels[i] > 128 ? 1 : 0) != s.nearest[i];
            }
          });
      exact += wrong == 0;
      exactThreshold += wrongThreshold == 0;
      off += wrong;
      offThreshold += wrongThreshold;
    }
    std::printf("| %.2f | %d | %d | %.1f | %d | %.1f |\n", scale, pages, exact, static_cast<double>(off) / pages,
                exactThreshold, static_cast<double>(offThreshold) / pages);
  }
}
