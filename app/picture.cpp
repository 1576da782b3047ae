#include "app/picture.h"

#include <jpeglib.h>
#include <png.h>

#include <algorithm>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

const unsigned char kPngSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};

uint32_t bigEndian(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 | p[3];
}

std::string sizeText(uint64_t width, uint64_t height) {
  return std::to_string(width) + " x " + std::to_string(height) + " pixels";
}

bool withinBudget(uint64_t width, uint64_t height, size_t maxPixels, uint32_t maxSide, std::string& error) {
  if (width == 0 || height == 0) {
    error = "The picture has no pixels";
    return false;
  }
  if (width > maxSide || height > maxSide || width * height > maxPixels) {
    error = "The picture is " + sizeText(width, height) + "; this printer takes at most " + std::to_string(maxPixels) +
            " pixels and " + std::to_string(maxSide) + " a side";
    return false;
  }
  return true;
}

using File = std::unique_ptr<FILE, int (*)(FILE*)>;

// Chunks that can change a pixel; libpng is shown no other ancillary chunk.
// It allocates whatever length a text or profile chunk claims (a 100-byte
// file can claim 2 GB), and none of them changes what prints.
bool pixelChunk(const unsigned char* type) {
  static const char* const kKept[] = {"tRNS", "gAMA", "cHRM", "sRGB", "sBIT", "bKGD"};
  if ((type[0] & 0x20) == 0) return true;  // critical
  for (const char* kept : kKept)
    if (std::memcmp(type, kept, 4) == 0) return true;
  return false;
}

// The PNG file as libpng is to read it: every chunk whole within the file,
// only the chunks that make its pixels, nothing after IEND. Reads the
// pixels a metre that pHYs states on the way.
bool prunePng(FILE* file, size_t maxBytes, std::string& png, double& xppi, double& yppi, std::string& error) {
  std::string bytes;
  char buffer[65536];
  for (size_t got; (got = std::fread(buffer, 1, sizeof buffer, file)) > 0;) {
    bytes.append(buffer, got);
    if (bytes.size() > maxBytes) {
      error = "The PNG file is larger than " + std::to_string(maxBytes) + " bytes, more than its pixels can need";
      return false;
    }
  }
  png.assign(bytes, 0, 8);
  for (size_t at = 8;;) {
    if (bytes.size() - at < 12 || bigEndian(reinterpret_cast<const unsigned char*>(bytes.data() + at)) >
                                      bytes.size() - at - 12) {
      error = "The PNG picture is damaged or cut short: a chunk ends past the end of the file";
      return false;
    }
    const auto* chunk = reinterpret_cast<const unsigned char*>(bytes.data() + at);
    const size_t length = bigEndian(chunk);
    if (std::memcmp(chunk + 4, "pHYs", 4) == 0 && length == 9 && chunk[16] == 1) {
      xppi = bigEndian(chunk + 8) * 0.0254;
      yppi = bigEndian(chunk + 12) * 0.0254;
    }
    if (pixelChunk(chunk + 4)) png.append(bytes, at, length + 12);
    if (std::memcmp(chunk + 4, "IEND", 4) == 0) return true;
    at += length + 12;
  }
}

bool decodePng(FILE* file, size_t maxPixels, uint32_t maxSide, KelvoPicture& picture, std::string& error) {
  // The file may hold eight bytes a pixel (RGBA, 16 bits) and some more.
  std::string png;
  if (!prunePng(file, 8 * maxPixels + (1 << 20), png, picture.xppi, picture.yppi, error)) return false;
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_memory(&image, png.data(), png.size()) == 0) {
    error = std::string("The PNG picture is damaged: ") + image.message;
    png_image_free(&image);
    return false;
  }
  if (!withinBudget(image.width, image.height, maxPixels, maxSide, error)) {
    png_image_free(&image);
    return false;
  }
  image.format = PNG_FORMAT_GRAY;
  picture.width = image.width;
  picture.height = image.height;
  picture.grey.assign(PNG_IMAGE_SIZE(image), 0);
  const png_color paper = {255, 255, 255};
  if (png_image_finish_read(&image, &paper, picture.grey.data(), 0, nullptr) == 0) {
    error = std::string("The PNG picture is damaged or cut short: ") + image.message;
    png_image_free(&image);
    return false;
  }
  return true;
}

struct JpegErrors {
  jpeg_error_mgr manager;
  std::jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
};

// Errors leave the decoder; warnings (data cut short or corrupt, which the
// decoder would paint over with grey) count as errors too.
void jpegError(j_common_ptr decoder) {
  auto* errors = reinterpret_cast<JpegErrors*>(decoder->err);
  (*decoder->err->format_message)(decoder, errors->message);
  std::longjmp(errors->jump, 1);
}

void jpegMessage(j_common_ptr decoder, int level) {
  if (level < 0) jpegError(decoder);
}

unsigned char luma(unsigned r, unsigned g, unsigned b) {
  return static_cast<unsigned char>((299 * r + 587 * g + 114 * b + 500) / 1000);
}

bool decodeJpeg(FILE* file, size_t maxPixels, uint32_t maxSide, KelvoPicture& picture, std::string& error) {
  jpeg_decompress_struct decoder;
  JpegErrors errors;
  decoder.err = jpeg_std_error(&errors.manager);
  errors.manager.error_exit = jpegError;
  errors.manager.emit_message = jpegMessage;
  std::vector<unsigned char> cmyk;  // before the jump: freed on every way out
  if (setjmp(errors.jump) != 0) {
    error = std::string("The JPEG picture is damaged or cut short: ") + errors.message;
    jpeg_destroy_decompress(&decoder);
    return false;
  }
  jpeg_create_decompress(&decoder);
  jpeg_stdio_src(&decoder, file);
  jpeg_read_header(&decoder, TRUE);
  if (!withinBudget(decoder.image_width, decoder.image_height, maxPixels, maxSide, error)) {
    jpeg_destroy_decompress(&decoder);
    return false;
  }
  if (decoder.saw_JFIF_marker && (decoder.density_unit == 1 || decoder.density_unit == 2)) {
    const double perInch = decoder.density_unit == 1 ? 1 : 2.54;
    picture.xppi = decoder.X_density * perInch;
    picture.yppi = decoder.Y_density * perInch;
  }
  const bool fourColours = decoder.jpeg_color_space == JCS_CMYK || decoder.jpeg_color_space == JCS_YCCK;
  decoder.out_color_space = fourColours ? JCS_CMYK : JCS_GRAYSCALE;
  jpeg_start_decompress(&decoder);
  picture.width = decoder.output_width;
  picture.height = decoder.output_height;
  picture.grey.assign(static_cast<size_t>(picture.width) * picture.height, 0);
  if (fourColours) cmyk.resize(static_cast<size_t>(picture.width) * 4);
  // Adobe's CMYK JPEGs store ink inverted (255 = no ink).
  const bool inverted = decoder.saw_Adobe_marker;
  while (decoder.output_scanline < decoder.output_height) {
    unsigned char* row = picture.grey.data() + static_cast<size_t>(decoder.output_scanline) * picture.width;
    JSAMPROW target = fourColours ? cmyk.data() : row;
    jpeg_read_scanlines(&decoder, &target, 1);
    for (size_t x = 0; fourColours && x < picture.width; ++x) {
      unsigned ink[4];
      for (int c = 0; c < 4; ++c) ink[c] = inverted ? cmyk[4 * x + c] : 255u - cmyk[4 * x + c];
      // Light left by each of C, M and Y, dimmed by K: red, green, blue.
      row[x] = luma(ink[0] * ink[3] / 255, ink[1] * ink[3] / 255, ink[2] * ink[3] / 255);
    }
  }
  jpeg_finish_decompress(&decoder);
  jpeg_destroy_decompress(&decoder);
  return true;
}

// Where the picture lands along one side of the page: its first dot
// (negative when cropped) and its length in dots.
struct Span {
  long first;
  long length;
};

Span centre(long page, double natural, double scale) {
  const long length = std::max(1L, std::lround(natural * scale));
  const long difference = page - length;
  return {difference >= 0 ? difference / 2 : -((1 - difference) / 2), length};
}

}  // namespace

KelvoPictureType kelvoPictureTypeOf(const unsigned char* bytes, size_t size) {
  if (size >= 8 && std::memcmp(bytes, kPngSignature, 8) == 0) return KelvoPictureType::kPng;
  if (size >= 3 && bytes[0] == 0xff && bytes[1] == 0xd8 && bytes[2] == 0xff) return KelvoPictureType::kJpeg;
  return KelvoPictureType::kUnknown;
}

bool kelvoDecodePicture(const std::string& path, KelvoPictureType type, size_t maxPixels, uint32_t maxSide,
                        KelvoPicture& picture, std::string& error) {
  picture = KelvoPicture();
  File file(std::fopen(path.c_str(), "rb"), &std::fclose);
  if (!file) {
    error = "Unable to read the job's document";
    return false;
  }
  const bool ok = type == KelvoPictureType::kPng    ? decodePng(file.get(), maxPixels, maxSide, picture, error)
                  : type == KelvoPictureType::kJpeg ? decodeJpeg(file.get(), maxPixels, maxSide, picture, error)
                                                    : (error = "The document is no PNG or JPEG picture", false);
  if (!ok) picture = KelvoPicture();
  return ok;
}

void kelvoPlacePicture(const KelvoPicture& picture, pappl_scaling_t scaling, ipp_orient_t orientation, unsigned width,
                       unsigned height, unsigned xdpi, unsigned ydpi, unsigned char* page, size_t stride) {
  const long w = picture.width, h = picture.height;
  if (w == 0 || h == 0 || width == 0 || height == 0) return;
  if (orientation != IPP_ORIENT_PORTRAIT && orientation != IPP_ORIENT_LANDSCAPE &&
      orientation != IPP_ORIENT_REVERSE_LANDSCAPE && orientation != IPP_ORIENT_REVERSE_PORTRAIT)
    orientation = (w > h) != (width > height) && w != h ? IPP_ORIENT_LANDSCAPE : IPP_ORIENT_PORTRAIT;
  const bool quarter = orientation == IPP_ORIENT_LANDSCAPE || orientation == IPP_ORIENT_REVERSE_LANDSCAPE;
  // The turned picture: its size in pixels and its resolution.
  const long tw = quarter ? h : w, th = quarter ? w : h;
  const double tx = quarter ? picture.yppi : picture.xppi, ty = quarter ? picture.xppi : picture.yppi;
  const double naturalW = tx > 0 ? tw * xdpi / tx : tw, naturalH = ty > 0 ? th * ydpi / ty : th;
  const bool larger = naturalW > width || naturalH > height;
  const double fit = std::min(width / naturalW, height / naturalH), fill = std::max(width / naturalW, height / naturalH);
  double scale = 1;
  if (scaling == PAPPL_SCALING_FIT || (scaling == PAPPL_SCALING_AUTO_FIT && larger)) scale = fit;
  else if (scaling == PAPPL_SCALING_FILL || (scaling == PAPPL_SCALING_AUTO && larger)) scale = fill;
  const Span across = centre(width, naturalW, scale), down = centre(height, naturalH, scale);

  // Pixel (X, Y) of the turned picture is grey[origin + X * stepX + Y * stepY].
  long origin = 0, stepX = 1, stepY = w;
  if (orientation == IPP_ORIENT_LANDSCAPE) origin = w - 1, stepX = w, stepY = -1;
  else if (orientation == IPP_ORIENT_REVERSE_LANDSCAPE) origin = (h - 1) * w, stepX = -w, stepY = 1;
  else if (orientation == IPP_ORIENT_REVERSE_PORTRAIT) origin = h * w - 1, stepX = -1, stepY = -w;

  const long x0 = std::max(0L, across.first), x1 = std::min<long>(width, across.first + across.length);
  const long y0 = std::max(0L, down.first), y1 = std::min<long>(height, down.first + down.length);
  std::vector<long> column(static_cast<size_t>(std::max(0L, x1 - x0)));
  for (long x = x0; x < x1; ++x)
    column[static_cast<size_t>(x - x0)] = origin + (2 * (x - across.first) + 1) * tw / (2 * across.length) * stepX;
  const unsigned char* grey = picture.grey.data();
  for (long y = y0; y < y1; ++y) {
    const long source = (2 * (y - down.first) + 1) * th / (2 * down.length) * stepY;
    unsigned char* row = page + static_cast<size_t>(y) * stride + x0;
    for (size_t i = 0; i < column.size(); ++i) row[i] = static_cast<unsigned char>(255 - grey[source + column[i]]);
  }
}
