#pragma once
// Image record of the stencil chain: one interleaved pixel buffer, always
// owned, copied deeply.

#include <cstdint>

enum JV_IMG_COLOR : int32_t {
  JV_IMG_GRAY = 0,
  JV_IMG_BGR = 1,
  JV_IMG_RGB = 2,
  JV_IMG_BGRA = 3,
  JV_IMG_RGBA = 4,
};

// Bytes per pixel of a layout: 1 for gray, 3 for BGR/RGB, 4 for everything
// else, out-of-range values included.
int jvChannelsOf(JV_IMG_COLOR color);

class JVImage {
 public:
  // Copies width * height * channels bytes from `pixels`; the caller keeps
  // ownership of `pixels`.
  JVImage(int width, int height, JV_IMG_COLOR color, const unsigned char* pixels);
  // Leaves the new buffer uninitialised: every producer writes every pixel
  // before anything reads it.
  JVImage(int width, int height, JV_IMG_COLOR color);

  JVImage(const JVImage& other);
  JVImage& operator=(const JVImage& other);
  // A moved-from record is empty: 0 x 0, no channels, no buffer.
  JVImage(JVImage&& other) noexcept;
  JVImage& operator=(JVImage&& other) noexcept;
  ~JVImage();

  // Buffer size in bytes, width * height * channels.
  int64_t byteCount() const;

  int32_t width = 0;
  int32_t height = 0;
  int32_t channels = 4;
  JV_IMG_COLOR color = JV_IMG_BGR;
  unsigned char* data = nullptr;

 private:
  void allocate();
  void release() noexcept;
  // The buffer came from the 2 MiB-aligned allocation for large pages.
};
