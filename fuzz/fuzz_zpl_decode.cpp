// The ZPL preview's decoder on arbitrary bytes. Whatever it accepts must be
// consistent, and every graphic it reads must come back unchanged after a
// round through the filter's own row encoder, in either dialect.
#include <string>
#include <vector>

#include "fuzz_util.h"
#include "printer/zpl_graphic.h"
#include "test_support/memory_sink.h"
#include "tools/zpl_decode.h"

namespace {

// The graphic as a page of its own through the filter's graphic writer.
std::string encode(ZplDialect dialect, const ZplGraphic& g) {
  KelvoDots dots;
  dots.reset(static_cast<unsigned>(g.bytesPerRow * 8), static_cast<unsigned>(g.height));
  dots.bits = g.rows;
  KelvoJobSettings settings;
  settings.dialect = dialect;
  MemorySink sink;
  kelvoWriteGraphic(sink, settings, dots);
  return sink.take();
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

  for (const ZplGraphic& g : graphics)
    for (const ZplDialect dialect : {ZplDialect::kKelvo, ZplDialect::kStandard}) {
      const std::string job = encode(dialect, g);
      std::vector<ZplGraphic> again;
      if (!kelvoZplDecode(reinterpret_cast<const unsigned char*>(job.data()), job.size(), again, error))
        kfuzz::fail("the encoder's own job does not decode: %s", error.c_str());
      if (again.size() != 1 || again[0].rows != g.rows || again[0].bytesPerRow != g.bytesPerRow)
        kfuzz::fail("a graphic of %zu x %zu bytes changed in a round through the encoder (dialect %d)",
                    g.bytesPerRow, g.height, static_cast<int>(dialect));
    }
  return 0;
}
