#include "bench/pages.h"

#include <algorithm>
#include <cmath>

namespace kelvobench {
namespace {

void fillRect(InkPage& p, int x0, int y0, int w, int h, unsigned char v) {
  const int x1 = std::min(p.width, x0 + w);
  const int y1 = std::min(p.height, y0 + h);
  for (int y = std::max(0, y0); y < y1; ++y)
    for (int x = std::max(0, x0); x < x1; ++x) p.ink[static_cast<size_t>(y) * p.width + x] = v;
}

// A stroke with a one-pixel half-tone edge, as a rasteriser's anti-aliasing
// leaves it.
void stroke(InkPage& p, int x0, int y0, int w, int h) {
  fillRect(p, x0 - 1, y0 - 1, w + 2, h + 2, 110);
  fillRect(p, x0, y0, w, h, 255);
}

// A line of glyph-like shapes: vertical stems, bars and dots in a box of
// size x (size * 6 / 10) per character.
void textLine(InkPage& p, Rng& rng, int x, int y, int size, int chars) {
  const int cw = size * 6 / 10;
  const int pen = std::max(2, size / 8);
  for (int c = 0; c < chars; ++c, x += cw + pen) {
    if (rng.below(7) == 0) continue;  // a blank between words
    const int shape = rng.below(4);
    stroke(p, x, y, pen, size);  // every glyph has a stem
    if (shape != 0) stroke(p, x, y + (shape == 1 ? 0 : size - pen), cw, pen);
    if (shape == 2 || shape == 3) stroke(p, x + cw - pen, y, pen, size);
    if (shape == 3) stroke(p, x, y + size / 2 - pen / 2, cw, pen);
  }
}

}  // namespace

InkPage makeLabelPage(int dpi) {
  InkPage p;
  p.width = 4 * dpi;
  p.height = 6 * dpi;
  p.ink.assign(static_cast<size_t>(p.width) * p.height, 0);
  Rng rng(20240611u);
  const int m = dpi / 10;  // a tenth of an inch
  const int t = std::max(2, dpi / 50);

  // Frame and dividing lines.
  fillRect(p, m, m, p.width - 2 * m, t, 255);
  fillRect(p, m, p.height - m - t, p.width - 2 * m, t, 255);
  fillRect(p, m, m, t, p.height - 2 * m, 255);
  fillRect(p, p.width - m - t, m, t, p.height - 2 * m, 255);
  for (int k = 1; k <= 3; ++k) fillRect(p, m, k * p.height / 4, p.width - 2 * m, t, 255);

  // Sender and addressee blocks: small and large text.
  for (int line = 0; line < 5; ++line) textLine(p, rng, 2 * m, 2 * m + line * (dpi / 6), dpi / 12, 34);
  for (int line = 0; line < 4; ++line)
    textLine(p, rng, 2 * m, p.height / 4 + 2 * m + line * (dpi / 4), dpi / 7, 20);

  // Barcode: bars of 1 to 4 modules, modules of dpi / 100 dots.
  const int module = std::max(2, dpi / 100);
  int x = 3 * m;
  const int barTop = p.height / 2 + 2 * m;
  const int barHeight = dpi;
  bool ink = true;
  while (x < p.width - 3 * m) {
    const int w = (1 + rng.below(4)) * module;
    if (ink) fillRect(p, x, barTop, w, barHeight, 255);
    x += w;
    ink = !ink;
  }
  textLine(p, rng, 4 * m, barTop + barHeight + m / 2, dpi / 12, 30);

  // Gray areas: a horizontal gradient, two flat boxes and a round logo.
  const int gy = 3 * p.height / 4 + 2 * m;
  const int gw = p.width / 2 - 3 * m;
  for (int yy = gy; yy < gy + dpi / 2; ++yy)
    for (int xx = 0; xx < gw; ++xx)
      p.ink[static_cast<size_t>(yy) * p.width + 2 * m + xx] = static_cast<unsigned char>(xx * 255 / gw);
  fillRect(p, p.width / 2 + m, gy, dpi / 2, dpi / 2, 96);
  fillRect(p, p.width / 2 + m + dpi / 2 + m, gy, dpi / 2, dpi / 4, 176);
  const int cx = p.width - 4 * m, cy = m * 4, r = dpi / 4;
  for (int yy = cy - r; yy <= cy + r; ++yy)
    for (int xx = cx - r; xx <= cx + r; ++xx)
      if ((xx - cx) * (xx - cx) + (yy - cy) * (yy - cy) <= r * r && xx >= 0 && yy >= 0 && xx < p.width &&
          yy < p.height)
        p.ink[static_cast<size_t>(yy) * p.width + xx] = 160;
  return p;
}

InkPage makePhotoPage(int dpi) {
  InkPage p;
  // A4, 210 x 297 mm.
  p.width = static_cast<int>(210.0 * dpi / 25.4);
  p.height = static_cast<int>(297.0 * dpi / 25.4);
  p.ink.assign(static_cast<size_t>(p.width) * p.height, 0);
  Rng rng(19700101u);
  const double cx = p.width * 0.45, cy = p.height * 0.4;
  const double rmax = std::sqrt(cx * cx + cy * cy);
  for (int y = 0; y < p.height; ++y) {
    unsigned char* row = &p.ink[static_cast<size_t>(y) * p.width];
    for (int x = 0; x < p.width; ++x) {
      const double dx = x - cx, dy = y - cy;
      const double radial = std::sqrt(dx * dx + dy * dy) / rmax;  // vignette
      double v = 70.0 + 90.0 * radial + 45.0 * std::sin(x / 137.0) * std::cos(y / 211.0) +
                 25.0 * std::sin((x + y) / 53.0);
      // Two soft round shapes, one dark and one light.
      const double d1 = std::hypot(x - p.width * 0.3, y - p.height * 0.65) / (p.width * 0.18);
      if (d1 < 1.0) v += 80.0 * (1.0 - d1 * d1);
      const double d2 = std::hypot(x - p.width * 0.72, y - p.height * 0.25) / (p.width * 0.15);
      if (d2 < 1.0) v -= 70.0 * (1.0 - d2 * d2);
      v += static_cast<int>(rng.below(17)) - 8;  // film grain
      row[x] = static_cast<unsigned char>(std::lround(std::min(255.0, std::max(0.0, v))));
    }
  }
  return p;
}

}  // namespace kelvobench
