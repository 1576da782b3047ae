#include "stencil/jv_image.h"

#include <cstring>
#include <new>
#include <utility>

#if defined(__linux__)
#include <sys/mman.h>
#endif

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

// Page-sized buffers are the bulk of what a page costs beyond its
// arithmetic: each fresh 4 KiB page of memory is a page fault, and on a
// virtual machine that hands unused memory back to its host, a costly one.
// Buffers of a few MiB and more are therefore aligned to 2 MiB and offered
// to the kernel for transparent huge pages (where it grants them only on
// request): a few faults a buffer instead of thousands. Elsewhere they are
// plain allocations.
const size_t kHugePage = size_t{2} << 20;
const size_t kHugeFrom = size_t{4} << 20;

bool hugeSized(size_t n) { return n >= kHugeFrom; }

unsigned char* allocateBytes(size_t n, bool* huge) {
  *huge = hugeSized(n);
  if (!*huge) return new unsigned char[n];
  const size_t rounded = (n + kHugePage - 1) / kHugePage * kHugePage;
  auto* p = static_cast<unsigned char*>(::operator new[](rounded, std::align_val_t(kHugePage)));
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  madvise(p, rounded, MADV_HUGEPAGE);  // advice only: failing changes nothing
#endif
  return p;
}

void releaseBytes(unsigned char* p, bool huge) noexcept {
  if (!huge)
    delete[] p;
  else
    ::operator delete[](p, std::align_val_t(kHugePage));
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
      data(other.data), hugeBuffer_(other.hugeBuffer_) {
  other.width = other.height = other.channels = 0;
  other.data = nullptr;
  other.hugeBuffer_ = false;
}

JVImage& JVImage::operator=(JVImage&& other) noexcept {
  if (this == &other) return *this;
  release();
  width = other.width;
  height = other.height;
  channels = other.channels;
  color = other.color;
  data = other.data;
  hugeBuffer_ = other.hugeBuffer_;
  other.width = other.height = other.channels = 0;
  other.data = nullptr;
  other.hugeBuffer_ = false;
  return *this;
}

JVImage::~JVImage() {
  width = height = channels = 0;
  release();
}

int64_t JVImage::byteCount() const {
  return static_cast<int64_t>(width) * height * channels;
}

void JVImage::allocate() { data = allocateBytes(bufferBytes(width, height, channels), &hugeBuffer_); }

void JVImage::release() noexcept {
  releaseBytes(data, hugeBuffer_);
  data = nullptr;
  hugeBuffer_ = false;
}
