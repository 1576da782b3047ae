#include "stencil/jv_image.h"

#include "support/page_buffer.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>


int jvChannelsOf(JV_IMG_COLOR color) {
  switch (color) {
    case JV_IMG_GRAY:
      return 1;
    case JV_IMG_BGR:
    case JV_IMG_RGB:
      return 3;
    default:
      return 4;
  }
}

namespace {

// Negative or overflowing sizes cannot be satisfied; they fail the same way
// an exhausted heap does instead of wrapping round to a small buffer.
size_t bufferBytes(int32_t width, int32_t height, int32_t channels) {
  int64_t pixels = static_cast<int64_t>(width) * height;
  int64_t bytes = 0;
  if (pixels < 0 || channels < 0 || __builtin_mul_overflow(pixels, static_cast<int64_t>(channels), &bytes))
    throw std::bad_alloc();
  return static_cast<size_t>(bytes);
}

}  // namespace

JVImage::JVImage(int w, int h, JV_IMG_COLOR c, const unsigned char* pixels)
    : width(w), height(h), channels(jvChannelsOf(c)), color(c) {
  allocate();
  size_t n = bufferBytes(width, height, channels);
  if (n > 0) std::memcpy(data, pixels, n);
}

JVImage::JVImage(int w, int h, JV_IMG_COLOR c)
    : width(w), height(h), channels(jvChannelsOf(c)), color(c) {
  allocate();
}

// The channel count is copied, not re-derived from the layout.
JVImage::JVImage(const JVImage& other)
    : width(other.width), height(other.height), channels(other.channels), color(other.color) {
  allocate();
  size_t n = bufferBytes(width, height, channels);
  if (n > 0) std::memcpy(data, other.data, n);
}

JVImage& JVImage::operator=(const JVImage& other) {
  if (this == &other) return *this;
  JVImage copy(other);
  *this = std::move(copy);
  return *this;
}

JVImage::JVImage(JVImage&& other) noexcept
    : width(other.width), height(other.height), channels(other.channels), color(other.color),
      data(other.data) {
  other.width = other.height = other.channels = 0;
  other.data = nullptr;
}

JVImage& JVImage::operator=(JVImage&& other) noexcept {
  if (this == &other) return *this;
  release();
  width = other.width;
  height = other.height;
  channels = other.channels;
  color = other.color;
  data = other.data;
  other.width = other.height = other.channels = 0;
  other.data = nullptr;
  return *this;
}

JVImage::~JVImage() {
  width = height = channels = 0;
  release();
}

int64_t JVImage::byteCount() const {
  return static_cast<int64_t>(width) * height * channels;
}

void JVImage::allocate() {
  data = static_cast<unsigned char*>(kelvoPageBuffer(bufferBytes(width, height, channels)));
  if (data == nullptr) throw std::bad_alloc();
}

void JVImage::release() noexcept {
  std::free(data);
  data = nullptr;
}
