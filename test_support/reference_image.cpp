// Plain page operations: one pixel at a time, bounds tested on every access.
#include <cstring>

#include "test_support/reference.h"

namespace kref {
namespace {

int effWidth(int width, int bpp) { return ((bpp * width + 31) >> 5) << 2; }

Page blank(int width, int height) {
  Page p;
  p.width = width;
  p.height = height;
  p.eff = effWidth(width, 8);
  p.px.assign(static_cast<size_t>(p.eff) * height, 0);
  return p;
}

// GetPixelIndex: off the page it answers the first pixel byte.
uint8_t get(const Page& p, long x, long y) {
  if (x < 0 || y < 0 || x >= p.width || y >= p.height) return p.px[0];
  return p.px[static_cast<size_t>(y) * p.eff + x];
}

// SetPixelIndex: off the page nothing is stored.
void set(Page& p, long x, long y, int v) {
  if (x < 0 || y < 0 || x >= p.width || y >= p.height) return;
  p.px[static_cast<size_t>(y) * p.eff + x] = static_cast<uint8_t>(v);
}

struct Cell {
  int dx, dy, w;
};

// One 0/1 a pixel.
std::vector<uint8_t> ditherBits(Page& p, long method) {
  const int w = p.width, h = p.height;
  std::vector<uint8_t> out(static_cast<size_t>(w) * h, 0);
  auto emit = [&](int x, int y, int bit) { out[static_cast<size_t>(y) * w + x] = static_cast<uint8_t>(bit); };
  static const int m4[4][4] = {{0, 8, 2, 10}, {12, 4, 14, 6}, {3, 11, 1, 9}, {15, 7, 13, 5}};
  if (method == 0) {
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) emit(x, y, p.at(x, y) > 128 ? 1 : 0);
    return out;
  }
  if (method == 1) {
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const int d = p.at(x, y) * 16 / 255, r = d % 16, o = d / 16;
        const int levels[2] = {0, 1};
        emit(x, y, levels[m4[y & 3][x & 3] < r ? o + 1 : o]);
      }
    return out;
  }
  if (method == 7) {
    uint8_t table[256];
    for (int i = 0; i < 256; ++i) {
      int a = i / 4, b = i % 4, t = 0;
      for (int k = 0; k < 4; ++k) {
        t = (((t << 1) | ((a & 1) ^ (b & 1))) << 1) | (b & 1);
        a >>= 1;
        b >>= 1;
      }
      table[i] = static_cast<uint8_t>(t);
    }
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) emit(x, y, p.at(x, y) > table[(x % 4) + 4 * (y % 4)] ? 1 : 0);
    return out;
  }
  static const Cell burkes[] = {{1, 0, 8}, {2, 0, 4}, {-2, 1, 2}, {-1, 1, 4}, {0, 1, 8}, {1, 1, 4}, {2, 1, 2}};
  static const Cell stucki[] = {{1, 0, 8}, {2, 0, 4}, {-2, 1, 2}, {-1, 1, 4}, {0, 1, 8}, {1, 1, 4},
                                {2, 1, 2}, {-2, 2, 1}, {-1, 2, 2}, {0, 2, 4},  {1, 2, 2}, {2, 2, 1}};
  static const Cell jarvis[] = {{1, 0, 7}, {2, 0, 5}, {-2, 1, 3}, {-1, 1, 5}, {0, 1, 7}, {1, 1, 5},
                                {2, 1, 3}, {-2, 2, 1}, {-1, 2, 3}, {0, 2, 5},  {1, 2, 3}, {2, 2, 1}};
  static const Cell sierra[] = {{1, 0, 5}, {2, 0, 3},  {-2, 1, 2}, {-1, 1, 4}, {0, 1, 5},
                                {1, 1, 4}, {2, 1, 2},  {-1, 2, 2}, {0, 2, 3},  {1, 2, 2}};
  static const Cell stevenson[] = {{2, 0, 32}, {-3, 1, 12}, {-1, 1, 26}, {1, 1, 30}, {3, 1, 16},  {-2, 2, 12},
                                   {0, 2, 26}, {2, 2, 12},  {-3, 3, 5},  {-1, 3, 12}, {1, 3, 12}, {3, 3, 5}};
  const Cell* k = burkes;
  int cells = 7;
  int64_t d = 32;
  switch (method) {
    case 3: k = stucki; cells = 12; d = 42; break;
    case 4: k = jarvis; cells = 12; d = 48; break;
    case 5: k = sierra; cells = 10; d = 32; break;
    case 6: k = stevenson; cells = 12; d = 200; break;
    default: break;
  }
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const int64_t level = p.at(x, y);
      int64_t error;
      if (level > 128) {
        emit(x, y, 1);
        error = level - 255;
      } else {
        emit(x, y, 0);
        error = level;
      }
      for (int n = 0; n < cells; ++n) {
        const Cell& c = k[n];
        int32_t v = static_cast<int32_t>(get(p, x + c.dx, y + c.dy) + error * c.w / d);
        if (v < 0) v = 0;
        if (v > 255) v = 255;
        set(p, x + c.dx, y + c.dy, v);
      }
    }
  return out;
}

}  // namespace

Page fromArray(const uint8_t* data, int width, int height, int stride) {
  Page p = blank(width, height);
  const int n = p.eff < stride ? p.eff : stride;
  for (int y = 0; y < height; ++y) std::memcpy(&p.at(0, y), data + static_cast<size_t>(y) * stride, n);
  return p;
}

void light(Page& page, int levels) {
  const int b = levels + 128;
  uint8_t table[256];
  for (int i = 0; i < 256; ++i) {
    const float v = static_cast<float>(i - 128) * 1.0f + static_cast<float>(b) + 0.5f;
    table[i] = v >= 255.0f ? 255 : v > 0.0f ? static_cast<uint8_t>(static_cast<int>(v)) : 0;
  }
  for (int y = 0; y < page.height; ++y)
    for (int x = 0; x < page.width; ++x) page.at(x, y) = table[page.at(x, y)];
}

Page mirror(const Page& page) {
  Page out = blank(page.width, page.height);
  for (int y = 0; y < page.height; ++y)
    for (int j = 0; j < page.width; ++j)
      out.at(j, y) = page.px[static_cast<size_t>(y) * page.eff + page.width - 1 - j];
  return out;
}

// Dot and paper trade places: 0 and 255 of a stencil (row padding
// included), 0 and 1 of a halftoned page.
void negative(Page& page, bool stencil) {
  if (stencil) {
    for (uint8_t& b : page.px) b = static_cast<uint8_t>(~b);
    return;
  }
  for (int y = 0; y < page.height; ++y)
    for (int x = 0; x < page.width; ++x) page.at(x, y) = page.at(x, y) == 0 ? 1 : 0;
}

Page ditherTo8(Page levels, long method) {
  const std::vector<uint8_t> bits = ditherBits(levels, method);
  Page out = blank(levels.width, levels.height);
  for (int y = 0; y < out.height; ++y)
    for (int x = 0; x < out.width; ++x) out.at(x, y) = bits[static_cast<size_t>(y) * out.width + x];
  return out;
}

std::vector<uint8_t> ditherToDots(Page levels, long method) {
  const std::vector<uint8_t> bits = ditherBits(levels, method);
  const size_t rowBytes = (static_cast<size_t>(levels.width) + 7) / 8;
  std::vector<uint8_t> out(rowBytes * levels.height, 0);
  for (int y = 0; y < levels.height; ++y)
    for (int x = 0; x < levels.width; ++x)
      if (bits[static_cast<size_t>(y) * levels.width + x]) out[y * rowBytes + x / 8] |= 0x80 >> (x % 8);
  return out;
}

Page processPage(const uint8_t* data, int stride, int width, int height, const Options& o) {
  Page page = fromArray(data, width, height, stride);
  if (o.brightness != 0) light(page, o.brightness * 5);
  if (o.mirror) page = mirror(page);
  if (o.type == 8 || o.type == 9) {
    std::vector<uint8_t> packed(static_cast<size_t>(width) * height);
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x) packed[static_cast<size_t>(y) * width + x] = page.at(x, y);
    const JVImage src(width, height, JV_IMG_GRAY, packed.data());
    const JVImage stencil = tattoo(src, o.type == 9);
    page = fromArray(stencil.data, width, height, width);
  } else {
    page = ditherTo8(page, o.type);
  }
  if (o.negative) negative(page, o.type == 8 || o.type == 9);
  return page;
}

}  // namespace kref
