// The ZPL preview's decoder on arbitrary bytes. Whatever it accepts must be
// consistent, and every graphic it reads must come back after a round
// through the filter's own row encoder as a printer would print it (all-dots
// rows after the first are sent as repeats).
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz_util.h"
#include "printer/zpl_printer.h"
#include "tools/zpl_decode.h"

namespace {

// Collects what the row encoder writes.
class EncodingPrinter : public ZplPrinter {
 public:
  std::string encode(const ZplGraphic& g) {
    char* text = nullptr;
    size_t length = 0;
    FILE* stream = open_memstream(&text, &length);
    if (stream == nullptr) kfuzz::fail("open_memstream failed");
    outputStreams_.clear();
    outputStreams_.push_back(stream);
    printFormat("~DGR:CUPS.GRF,%zu,%zu,\n", g.rows.size(), g.bytesPerRow);
    LastSet = 0;
    for (size_t r = 0; r < g.height; ++r)
      ZPLPrintLine(g.rows.data() + r * g.bytesPerRow, static_cast<int>(g.bytesPerRow));
    printStr("^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n");
    outputStreams_.clear();
    std::fclose(stream);
    std::string job(text, length);
    std::free(text);
    return job;
  }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kfuzz::quietStderr();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<ZplGraphic> graphics;
  std::string error;
  const bool ok = kelvoZplDecode(data, size, graphics, error);
  if (!ok && error.empty()) kfuzz::fail("decoder refused the input without saying why");
  if (ok && !error.empty()) kfuzz::fail("decoder accepted the input but set an error: %s", error.c_str());

  size_t total = 0;
  for (const ZplGraphic& g : graphics) {
    if (g.name.empty() || g.bytesPerRow == 0 || g.height == 0 || g.bytesPerRow > kZplMaxBytesPerRow)
      kfuzz::fail("graphic \"%s\" with %zu x %zu bytes", g.name.c_str(), g.bytesPerRow, g.height);
    if (g.rows.size() != g.height * g.bytesPerRow || g.rows.size() > kZplMaxGraphicBytes)
      kfuzz::fail("graphic holds %zu bytes for %zu rows of %zu", g.rows.size(), g.height, g.bytesPerRow);
    if (g.offset >= size) kfuzz::fail("graphic offset %zu past the input", g.offset);
    total += g.rows.size();
  }
  if (total > kZplMaxJobGraphicBytes) kfuzz::fail("graphics of %zu bytes together", total);

  EncodingPrinter printer;
  for (const ZplGraphic& g : graphics) {
    const std::string job = printer.encode(g);
    std::vector<ZplGraphic> again;
    if (!kelvoZplDecode(reinterpret_cast<const unsigned char*>(job.data()), job.size(), again, error))
      kfuzz::fail("the encoder's own job does not decode: %s", error.c_str());
    if (again.size() != 1 || again[0].rows != kfuzz::asPrinted(g.rows, g.bytesPerRow) ||
        again[0].bytesPerRow != g.bytesPerRow)
      kfuzz::fail("a graphic of %zu x %zu bytes changed in a round through the encoder", g.bytesPerRow, g.height);
  }
  return 0;
}
