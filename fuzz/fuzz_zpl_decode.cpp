// The ZPL preview's decoder on arbitrary bytes. Whatever it accepts must be
// consistent, and every graphic it reads must come back unchanged after a
// round through the filter's own row encoder, in either dialect.
#include <string>
#include <vector>

#include "fuzz_util.h"
#include "test_support/memory_printer.h"
#include "test_support/reference.h"
#include "tools/zpl_decode.h"

namespace {

// The graphic as a download of its own through the filter's row encoder.
std::string encode(MemoryPrinter& printer, const ZplGraphic& g) {
  printer.printFormat("~DGR:CUPS.GRF,%zu,%zu,\n", g.rows.size(), g.bytesPerRow);
  printer.startPage();
  for (size_t r = 0; r < g.height; ++r)
    printer.ZPLPrintLine(g.rows.data() + r * g.bytesPerRow, static_cast<int>(g.bytesPerRow));
  printer.printStr("^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n");
  return printer.take();
}

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

  MemoryPrinter printer;
  for (const ZplGraphic& g : graphics)
    for (const ZplDialect dialect : {kDialectKelvo, kDialectStandard}) {
      printer.setDialect(dialect);
      const std::string job = encode(printer, g);
      std::vector<ZplGraphic> again;
      if (!kelvoZplDecode(reinterpret_cast<const unsigned char*>(job.data()), job.size(), again, error))
        kfuzz::fail("the encoder's own job does not decode: %s", error.c_str());
      if (again.size() != 1 || again[0].rows != g.rows || again[0].bytesPerRow != g.bytesPerRow)
        kfuzz::fail("a graphic of %zu x %zu bytes changed in a round through the encoder (dialect %d)",
                    g.bytesPerRow, g.height, static_cast<int>(dialect));
    }
  return 0;
}
