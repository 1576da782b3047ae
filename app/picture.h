#pragma once
// Pictures sent to the printer application (PNG, JPEG): their type told by
// their bytes, decoded to 8-bit grey within a pixel budget, and laid onto
// the page as ink the way IPP's print-scaling and orientation-requested
// ask, centred.
#include <pappl/pappl.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

enum class KelvoPictureType { kUnknown, kPng, kJpeg };

// What the first bytes of a document say it is.
KelvoPictureType kelvoPictureTypeOf(const unsigned char* bytes, size_t size);

struct KelvoPicture {
  uint32_t width = 0;
  uint32_t height = 0;
  double xppi = 0;  // the resolution the picture states; 0 when it states none
  double yppi = 0;
  std::vector<unsigned char> grey;  // 0 black to 255 white, transparency laid on white paper
};

// Decodes a PNG or JPEG file. A picture of more than `maxPixels` pixels or
// with a side longer than `maxSide` is refused before its pixels are
// allocated. False with `error` naming the problem for any damage, a
// picture cut short included.
bool kelvoDecodePicture(const std::string& path, KelvoPictureType type, size_t maxPixels, uint32_t maxSide,
                        KelvoPicture& picture, std::string& error);

// Lays `picture` as ink (0 = paper, 255 = full ink) onto a cleared page of
// `width` x `height` dots at `xdpi` x `ydpi`, rows `stride` bytes apart.
// The picture is turned first (portrait as it is, landscape a quarter turn
// anticlockwise, reverse-landscape clockwise, reverse-portrait half a turn;
// none: a quarter turn anticlockwise when that suits the page's shape
// better). Its natural size is its pixels at its stated resolution (one dot
// a pixel when it states none). Then scaling: fit and fill scale it to the
// page's width or length keeping its shape, fill cropping what overflows;
// none keeps its natural size; auto fills and auto-fit fits a picture
// larger than the page and keep a smaller one as it is (the pages are
// borderless). Dots take the pixel under their centre; the picture is
// centred, its first dot at half the difference rounded down.
void kelvoPlacePicture(const KelvoPicture& picture, pappl_scaling_t scaling, ipp_orient_t orientation, unsigned width,
                       unsigned height, unsigned xdpi, unsigned ydpi, unsigned char* page, size_t stride);
