#include "stencil/jv_tattoo.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "stencil/jv_chain.h"
#include "stencil/jv_enhance.h"
#include "stencil/jv_kernels.h"

// The diffusion kernel itself (weights, the 0.1427 neighbour share and the
// frame rule) lives in jv_kernels_impl.h, where every vector path and the
// wide-page fallback in jv_chain.cpp take it from.

namespace {

enum class Variant { Tattoo, X8 };

// cvtGray, the moment threshold, the gamma table, the unsharp mask and the
// diffusion, as the separate stages compute them, but without their page-
// sized intermediate records: gamma is a table applied as the rows stream
// through the blur, and the diffusion runs in place on the sharpened page.
// `gray`: one byte a pixel, width * height pixels, which must be positive;
// `out` receives the stencil and may be `gray` itself.
void grayChainInto(const unsigned char* gray, int width, int height, Variant variant,
                   const JVRunOptions& options, unsigned char* out) {
  const int32_t n = static_cast<int32_t>(static_cast<uint32_t>(width) * static_cast<uint32_t>(height));
  // Measured before any enhancement (and before `out` may overwrite `gray`).
  const int t = jvk::momentsThreshold(gray, n);
  uint8_t table[256];
  if (variant == Variant::Tattoo)
    jvk::gammaTable(64, 0.85f, 0.7f, table);
  else
    jvk::gammaTable(t, 0.5f, 1.5f, table);

  jvUnsharpGrayInto(gray, width, height, table, 300.0f, 11, options, out);
  jvk::edfInPlace(out, width, height, t, jvk::kernelsFor(jvSimdLevelFor(options)),
                  jvDiffusionThreadsFor(options, static_cast<int64_t>(width) * height));
}

JVImage grayChain(const unsigned char* gray, int width, int height, Variant variant,
                  const JVRunOptions& options) {
  JVImage out(width, height, JV_IMG_GRAY);
  grayChainInto(gray, width, height, variant, options, out.data);
  return out;
}

JVImage tattooChain(JVImage& src, Variant variant, const JVRunOptions& options) {
  const int32_t n = static_cast<int32_t>(static_cast<uint32_t>(src.width) * static_cast<uint32_t>(src.height));
  if (n <= 0) return JVImage(src);
  // A one-byte gray record is its own gray page; others are converted.
  if (src.color == JV_IMG_GRAY && src.channels == 1)
    return grayChain(src.data, src.width, src.height, variant, options);
  const JVImage converted = cvtGray(src);
  return grayChain(converted.data, src.width, src.height, variant, options);
}

}  // namespace

JVImage edf_cus(const JVImage& src, int threshold) { return edf_cus(src, threshold, JVRunOptions()); }

JVImage edf_cus(const JVImage& src, int threshold, const JVRunOptions& options) {
  JVImage out(src.width, src.height, JV_IMG_GRAY);
  const int64_t w = src.width;
  const int64_t h = src.height;
  if (w <= 0 || h <= 0) {
    // Two negative sides still make a buffer; hand back paper, not garbage.
    if (out.byteCount() > 0) std::memset(out.data, 0, static_cast<size_t>(out.byteCount()));
    return out;
  }
  // One byte a pixel is read, whatever the record's layout.
  std::memcpy(out.data, src.data, static_cast<size_t>(w * h));
  jvk::edfInPlace(out.data, w, h, threshold, jvk::kernelsFor(jvSimdLevelFor(options)),
                  jvDiffusionThreadsFor(options, w * h));
  return out;
}

JVImage jvTattooDithering(JVImage& src) { return tattooChain(src, Variant::Tattoo, JVRunOptions()); }

JVImage jvTattooDitheringX8(JVImage& src) { return tattooChain(src, Variant::X8, JVRunOptions()); }

JVImage jvTattooDithering(JVImage& src, const JVRunOptions& options) {
  return tattooChain(src, Variant::Tattoo, options);
}

JVImage jvTattooDitheringX8(JVImage& src, const JVRunOptions& options) {
  return tattooChain(src, Variant::X8, options);
}

namespace {

bool chainTakes(int width, int height) {
  return width > 0 && height > 0 && static_cast<int64_t>(width) * height <= INT32_MAX;
}

}  // namespace

bool jvTattooStencilInPlace(unsigned char* gray, int width, int height, bool x8, const JVRunOptions& options) {
  if (!chainTakes(width, height)) return false;
  grayChainInto(gray, width, height, x8 ? Variant::X8 : Variant::Tattoo, options, gray);
  return true;
}
