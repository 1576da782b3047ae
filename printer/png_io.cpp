#include "printer/png_io.h"

#include <png.h>

#include <climits>
#include <cstring>

namespace {

png_image blankImage() {
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  return image;
}

}  // namespace

bool kelvoPngWriteGray(const std::string& path, const unsigned char* pixels, uint32_t width, uint32_t height,
                       size_t stride, std::string& error) {
  if (pixels == nullptr || width == 0 || height == 0) {
    error = path + ": cannot write an empty image";
    return false;
  }
  if (stride < width || stride > static_cast<size_t>(INT32_MAX)) {
    error = path + ": image of " + std::to_string(width) + " x " + std::to_string(height) + " pixels is too large";
    return false;
  }
  png_image image = blankImage();
  image.width = width;
  image.height = height;
  image.format = PNG_FORMAT_GRAY;
  if (png_image_write_to_file(&image, path.c_str(), 0, pixels, static_cast<png_int_32>(stride), nullptr) == 0) {
    error = path + ": " + image.message;
    png_image_free(&image);
    return false;
  }
  return true;
}

bool kelvoPngReadGray(const std::string& path, GrayPage& page, std::string& error) {
  png_image image = blankImage();
  if (png_image_begin_read_from_file(&image, path.c_str()) == 0) {
    error = path + ": " + image.message;
    png_image_free(&image);
    return false;
  }
  if (static_cast<size_t>(image.width) * image.height > kPngMaxPixels) {
    error = path + ": image of " + std::to_string(image.width) + " x " + std::to_string(image.height) +
            " pixels is too large";
    png_image_free(&image);
    return false;
  }
  image.format = PNG_FORMAT_GRAY;
  page.width = image.width;
  page.height = image.height;
  page.pixels.assign(PNG_IMAGE_SIZE(image), 0);
  const png_color paper = {255, 255, 255};
  if (png_image_finish_read(&image, &paper, page.pixels.data(), 0, nullptr) == 0) {
    error = path + ": " + image.message;
    png_image_free(&image);
    page = GrayPage();
    return false;
  }
  return true;
}
