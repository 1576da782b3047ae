#include "stencil/jv_tattoo.h"

#include <algorithm>
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
  // Only two rows of errors are alive at a time: this row's and the next.
  // Two spare cells on each side take the shares that fall off the page,
  // which are dropped exactly as the bounds test drops them.
  const size_t span = static_cast<size_t>(w) + 4;
  std::vector<float> errors(2 * span, 0.0f);
  float* cur = errors.data() + 2;
  float* next = cur + span;
  const float limit = static_cast<float>(threshold);
  const float w0 = kTaps[0].weight, w1 = kTaps[1].weight, w2 = kTaps[2].weight;
  const float w3 = kTaps[3].weight, w4 = kTaps[4].weight, w5 = kTaps[5].weight;
  // What an output of 255 adds to v, by the number of its left and upper
  // neighbours that came out 0: (1 - share) * -255, share built up as the
  // plain loop builds it. With none it is -255, the same as on the frame.
  const float oneShare = kNeighbourShare + 0.0f;
  const float adjust[3] = {(1.0f - 0.0f) * -255.0f, (1.0f - oneShare) * -255.0f,
                           (1.0f - (kNeighbourShare + oneShare)) * -255.0f};

  for (int y = 0; y < h; ++y) {
    const unsigned char* s = src.data + static_cast<size_t>(y) * static_cast<size_t>(w);
    unsigned char* o = out.data + static_cast<size_t>(y) * static_cast<size_t>(w);
    const unsigned char* up = o - w;  // read only on interior rows
    const bool innerRow = y >= 1 && y < h - 1;
    // The errors of this pixel and the next one stay in registers.
    float here = cur[0];
    float right = cur[1];
    for (int x = 0; x < w; ++x) {
      const float v = here + static_cast<float>(s[x]);
      const bool dot = v > limit;
      int zeros = 0;
      if (innerRow && x >= 1 && x < w - 1) zeros = (o[x - 1] == 0) + (up[x] == 0);
      // v + adjust is the plain (1 - share) * -255 + v and v - 255 on the
      // frame; a sum with 0 leaves v itself, which is never -0.
      const float e = v + (dot ? adjust[zeros] : 0.0f);
      o[x] = dot ? 255 : 0;
      const float p0 = e * w0, p1 = e * w1, p2 = e * w2, p3 = e * w3, p4 = e * w4, p5 = e * w5;
      here = p0 + right;
      right = p1 + cur[x + 2];
      next[x - 2] = p2 + next[x - 2];
      next[x - 1] = p3 + next[x - 1];
      next[x] = p4 + next[x];
      next[x + 1] = p5 + next[x + 1];
    }
    std::swap(cur, next);
    std::fill(next - 2, next - 2 + span, 0.0f);
  }
  return out;
}

JVImage jvTattooDithering(JVImage& src) { return tattooChain(src, Variant::Tattoo, false); }

JVImage jvTattooDitheringX8(JVImage& src) { return tattooChain(src, Variant::X8, false); }

JVImage jvTattooDitheringGuarded(JVImage& src) { return tattooChain(src, Variant::Tattoo, true); }

JVImage jvTattooDitheringX8Guarded(JVImage& src) { return tattooChain(src, Variant::X8, true); }
