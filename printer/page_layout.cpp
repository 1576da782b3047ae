#include "printer/page_layout.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

// The source pixels that make up one output pixel, with their weights.
struct Taps {
  unsigned first = 0;
  std::vector<float> weights;
};

// Weights for resampling `from` pixels into `to` pixels along one axis.
std::vector<Taps> taps(unsigned from, unsigned to) {
  std::vector<Taps> all(to);
  const double scale = static_cast<double>(from) / to;  // source pixels per output pixel
  for (unsigned i = 0; i < to; ++i) {
    Taps& t = all[i];
    if (scale > 1) {  // shrinking: the share of each source pixel in [lo, hi)
      const double lo = i * scale, hi = (i + 1) * scale;
      t.first = static_cast<unsigned>(lo);
      const unsigned last = std::min(from - 1, static_cast<unsigned>(std::ceil(hi)) - 1);
      for (unsigned s = t.first; s <= last; ++s)
        t.weights.push_back(static_cast<float>((std::min<double>(hi, s + 1) - std::max<double>(lo, s)) / scale));
    } else {  // enlarging: between the two nearest pixel centres
      const double centre = std::clamp((i + 0.5) * scale - 0.5, 0.0, from - 1.0);
      t.first = std::min(static_cast<unsigned>(centre), from - 1);
      const float next = static_cast<float>(centre - t.first);
      t.weights.push_back(1 - next);
      if (t.first + 1 < from) t.weights.push_back(next);
    }
  }
  return all;
}

GrayPage resample(const GrayPage& in, unsigned width, unsigned height) {
  const std::vector<Taps> across = taps(in.width, width), down = taps(in.height, height);
  std::vector<float> rows(static_cast<size_t>(width) * in.height);
  for (unsigned y = 0; y < in.height; ++y)
    for (unsigned x = 0; x < width; ++x) {
      float sum = 0;
      const unsigned char* row = in.pixels.data() + static_cast<size_t>(y) * in.width;
      for (size_t k = 0; k < across[x].weights.size(); ++k) sum += across[x].weights[k] * row[across[x].first + k];
      rows[static_cast<size_t>(y) * width + x] = sum;
    }
  GrayPage out;
  out.width = width, out.height = height;
  out.pixels.resize(static_cast<size_t>(width) * height);
  for (unsigned y = 0; y < height; ++y)
    for (unsigned x = 0; x < width; ++x) {
      float sum = 0;
      for (size_t k = 0; k < down[y].weights.size(); ++k)
        sum += down[y].weights[k] * rows[static_cast<size_t>(down[y].first + k) * width + x];
      out.pixels[static_cast<size_t>(y) * width + x] = static_cast<unsigned char>(std::lround(std::clamp(sum, 0.f, 255.f)));
    }
  return out;
}

// A quarter turn to the left: the top-left corner goes to the bottom left.
GrayPage turnLeft(const GrayPage& in) {
  GrayPage out;
  out.width = in.height, out.height = in.width;
  out.pixels.resize(in.pixels.size());
  for (unsigned y = 0; y < out.height; ++y)
    for (unsigned x = 0; x < out.width; ++x)
      out.pixels[static_cast<size_t>(y) * out.width + x] =
          in.pixels[static_cast<size_t>(x) * in.width + (in.width - 1 - y)];
  return out;
}

}  // namespace

bool kelvoPageSizePoints(const std::string& name, double& width, double& length) {
  const struct { const char* name; double width, length; } sheets[] = {
      {"A4", 595.28, 841.89},     {"A5", 419.53, 595.28},    {"A6", 297.64, 419.53},
      {"Letter", 612, 792},       {"Tattoo_A5", 595.28, 420}, {"Tattoo_A6", 297.64, 420},
  };
  for (const auto& sheet : sheets)
    if (name == sheet.name) {
      width = sheet.width, length = sheet.length;
      return true;
    }
  int used = 0;
  double scale = 0;
  if (std::sscanf(name.c_str(), "w%lfh%lf%n", &width, &length, &used) == 2 && name[0] == 'w') {
    scale = 1;
  } else if (std::sscanf(name.c_str(), "%lfx%lf%n", &width, &length, &used) == 2) {
    const std::string unit = name.substr(static_cast<size_t>(used));
    scale = unit.empty() ? 72 : unit == "mm" ? 72 / 25.4 : 0;
    used = static_cast<int>(name.size());
  }
  if (scale == 0 || static_cast<size_t>(used) != name.size()) return false;
  width *= scale, length *= scale;
  return width > 0 && length > 0 && width <= 72000 && length <= 72000;
}

unsigned kelvoPageDots(double points, unsigned dpi) { return static_cast<unsigned>(std::lround(points * dpi / 72)); }

GrayPage kelvoPlaceOnPage(const GrayPage& picture, unsigned width, unsigned height) {
  GrayPage page;
  page.width = width, page.height = height;
  page.pixels.assign(static_cast<size_t>(width) * height, 255);
  if (picture.width == 0 || picture.height == 0 || width == 0 || height == 0) return page;
  const bool turn = (picture.width > picture.height) != (width > height) && picture.width != picture.height &&
                    width != height;
  const GrayPage upright = turn ? turnLeft(picture) : picture;
  const double scale = std::min(static_cast<double>(width) / upright.width, static_cast<double>(height) / upright.height);
  const unsigned boxWidth = std::clamp(static_cast<unsigned>(std::lround(upright.width * scale)), 1u, width);
  const unsigned boxHeight = std::clamp(static_cast<unsigned>(std::lround(upright.height * scale)), 1u, height);
  const GrayPage box = resample(upright, boxWidth, boxHeight);
  const unsigned left = (width - boxWidth) / 2, top = (height - boxHeight) / 2;
  for (unsigned y = 0; y < boxHeight; ++y)
    std::copy_n(box.pixels.begin() + static_cast<std::ptrdiff_t>(y) * boxWidth, boxWidth,
                page.pixels.begin() + static_cast<std::ptrdiff_t>(top + y) * width + left);
  return page;
}
