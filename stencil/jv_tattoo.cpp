#include "stencil/jv_tattoo.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "stencil/jv_enhance.h"
#include "stencil/jv_math.h"

namespace {

// Diffusion kernel. The weights sum to 0.940002 on purpose: about 6 % of
// every error is dropped, and the stencils printed so far rely on it, so
// never renormalise. Two weights are negative.
struct Tap {
  int dx, dy;
  float weight;
};
const Tap kTaps[6] = {
    {1, 0, 0.505786f},  {2, 0, -0.052926f}, {-2, 1, 0.226194f},
    {-1, 1, 0.128835f}, {0, 1, 0.243191f},  {1, 1, -0.111078f},
};

// An interior 255 beside 0s is quantised against 255 * (1 - 0.1427 k).
const float kNeighbourShare = 0.1427f;

enum class Variant { Tattoo, X8 };

JVImage tattooChain(JVImage& src, Variant variant, bool guarded) {
  const int32_t n = static_cast<int32_t>(static_cast<uint32_t>(src.width) * static_cast<uint32_t>(src.height));
  if (n <= 0) return JVImage(src);

  JVImage gray = cvtGray(src);
  // Measured before any enhancement.
  const int t = guarded ? thresh_global_moments_guarded(gray) : thresh_global_moments(gray);
  if (variant == Variant::Tattoo) {
    enh_piecewise_gamma(gray, 64, 0.85f, 0.7f);
  } else if (guarded) {
    enh_piecewise_gamma_guarded(gray, t, 0.5f, 1.5f);
  } else {
    enh_piecewise_gamma(gray, t, 0.5f, 1.5f);
  }
  JVImage sharp = enh_unsharp_mask(gray, 300.0f, 11);
  return edf_cus(sharp, t);
}

}  // namespace

JVImage edf_cus(const JVImage& src, int threshold) {
  JVImage out(src.width, src.height, JV_IMG_GRAY);
  const int w = src.width;
  const int h = src.height;
  if (w <= 0 || h <= 0) {
    // Two negative sides still make a buffer; hand back paper, not garbage.
    if (out.byteCount() > 0) std::memset(out.data, 0, static_cast<size_t>(out.byteCount()));
    return out;
  }
  std::vector<float> err(static_cast<size_t>(w) * static_cast<size_t>(h), 0.0f);
  const float limit = static_cast<float>(threshold);
  const unsigned char* s = src.data;
  unsigned char* o = out.data;

  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const int64_t i = static_cast<int64_t>(y) * w + x;
      const float v = err[i] + static_cast<float>(s[i]);
      float e;
      if (v > limit) {
        o[i] = 255;
        if (y >= 1 && x >= 1 && y < h - 1 && x < w - 1) {
          float share = 0.0f;
          if (o[i - 1] == 0) share = kNeighbourShare + share;
          if (o[i - w] == 0) share = kNeighbourShare + share;
          e = (1.0f - share) * -255.0f + v;
        } else {
          e = v - 255.0f;
        }
      } else {
        o[i] = 0;
        e = v;
      }
      float part[6];
      for (int k = 0; k < 6; ++k) part[k] = e * kTaps[k].weight;
      for (int k = 0; k < 6; ++k) {
        const int nx = x + kTaps[k].dx;
        const int ny = y + kTaps[k].dy;
        // Error past the page edge is dropped, not handed to other neighbours.
        if (!isWithinBounds(nx, ny, w, h)) continue;
        float& cell = err[static_cast<int64_t>(ny) * w + nx];
        cell = part[k] + cell;
      }
    }
  }
  return out;
}

JVImage jvTattooDithering(JVImage& src) { return tattooChain(src, Variant::Tattoo, false); }

JVImage jvTattooDitheringX8(JVImage& src) { return tattooChain(src, Variant::X8, false); }

JVImage jvTattooDitheringGuarded(JVImage& src) { return tattooChain(src, Variant::Tattoo, true); }

JVImage jvTattooDitheringX8Guarded(JVImage& src) { return tattooChain(src, Variant::X8, true); }
