// zplpreview: shows what a printer would print from a ZPL job. Every graphic
// downloaded by the job becomes one PNG page, dots black on white paper.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "printer/png_io.h"
#include "tools/zpl_decode.h"

namespace {

// A label job is a few megabytes at most; anything far beyond is not a job.
constexpr size_t kMaxJobBytes = size_t{512} << 20;

void usage(FILE* out) {
  std::fprintf(out,
               "Usage: zplpreview [-o <prefix>] [-s <scale>] [file]\n"
               "Writes every graphic of a ZPL job (the file, or standard input) as\n"
               "<prefix>-1.png, <prefix>-2.png, ... (prefix \"page\" by default), dots black on white,\n"
               "each dot as a square of <scale> x <scale> pixels (1 to 16, default 1).\n"
               "Reads ~DG downloads and ^GFA fields, in hex or :Z64:/:B64: form, and says where a\n"
               "standard ZPL printer would print differently: a format not opened with ^XA, or a\n"
               "graphic larger than the job's ^PW/^LL label.\n");
}

bool readAll(FILE* in, const std::string& name, std::vector<unsigned char>& job) {
  unsigned char buffer[65536];
  size_t got;
  while ((got = std::fread(buffer, 1, sizeof buffer, in)) > 0) {
    if (job.size() + got > kMaxJobBytes) {
      std::fprintf(stderr, "zplpreview: %s: larger than %zu bytes, not a label job\n", name.c_str(), kMaxJobBytes);
      return false;
    }
    job.insert(job.end(), buffer, buffer + got);
  }
  if (std::ferror(in)) {
    std::fprintf(stderr, "zplpreview: %s: read error: %s\n", name.c_str(), std::strerror(errno));
    return false;
  }
  return true;
}

// Readers of printed barcodes see each dot as several camera pixels; a scale
// above 1 draws each dot as such a square, so a picture can be read the same way.
constexpr int kMaxScale = 16;

bool writePage(const ZplGraphic& graphic, const std::string& path, size_t scale, std::string& error) {
  const size_t width = graphic.bytesPerRow * 8 * scale;
  const size_t height = graphic.height * scale;
  std::vector<unsigned char> pixels(width * height);
  for (size_t y = 0; y < height; ++y) {
    const unsigned char* row = graphic.rows.data() + (y / scale) * graphic.bytesPerRow;
    for (size_t x = 0; x < width; ++x) {
      const size_t dx = x / scale;
      const bool dot = (row[dx / 8] & (0x80u >> (dx % 8))) != 0;
      pixels[y * width + x] = dot ? 0 : 255;
    }
  }
  return kelvoPngWriteGray(path, pixels.data(), static_cast<uint32_t>(width), static_cast<uint32_t>(height), width,
                           error);
}

// Dots a standard ZPL printer leaves out: those right of "^PW" or below "^LL".
size_t dotsOutside(const ZplGraphic& g) {
  size_t dots = 0;
  const size_t width = g.bytesPerRow * 8;
  for (size_t y = 0; y < g.height; ++y)
    for (size_t x = 0; x < width; ++x) {
      const bool outside = (g.labelWidth >= 0 && x >= static_cast<size_t>(g.labelWidth)) ||
                           (g.labelLength >= 0 && y >= static_cast<size_t>(g.labelLength));
      if (outside && (g.rows[y * g.bytesPerRow + x / 8] & (0x80u >> (x % 8))) != 0) ++dots;
    }
  return dots;
}

// The picture shows every dot of the graphic; say where a standard ZPL
// printer would print something else.
void warnStandardPrinter(const ZplGraphic& g, size_t page) {
  if (!g.openedWithXA)
    std::printf("  page %zu: its format is not opened with ^XA; a standard ZPL printer prints nothing of it\n", page);
  const bool wider = g.labelWidth >= 0 && g.bytesPerRow * 8 >= static_cast<size_t>(g.labelWidth) + 8;
  const bool longer = g.labelLength >= 0 && g.height > static_cast<size_t>(g.labelLength);
  if (wider || longer)
    std::printf("  page %zu: the graphic (%zu x %zu dots) is larger than the label (^PW%ld, ^LL%ld); a standard ZPL "
                "printer cuts off %zu of its dots\n",
                page, g.bytesPerRow * 8, g.height, g.labelWidth, g.labelLength, dotsOutside(g));
}

}  // namespace

int main(int argc, char** argv) {
  std::string prefix = "page";
  size_t scale = 1;
  const char* file = nullptr;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "-h" || arg == "--help") {
      usage(stdout);
      return 0;
    }
    if (arg == "-o") {
      if (i + 1 >= argc || argv[i + 1][0] == '\0') {
        std::fprintf(stderr, "zplpreview: -o needs a file name prefix\n");
        usage(stderr);
        return 2;
      }
      prefix = argv[++i];
    } else if (arg == "-s") {
      const std::string value = i + 1 < argc ? argv[i + 1] : "";
      int n = 0;
      for (char c : value) n = (c >= '0' && c <= '9' && n <= kMaxScale) ? n * 10 + (c - '0') : kMaxScale + 1;
      if (value.empty() || n < 1 || n > kMaxScale) {
        std::fprintf(stderr, "zplpreview: -s needs a scale from 1 to %d\n", kMaxScale);
        usage(stderr);
        return 2;
      }
      scale = static_cast<size_t>(n);
      ++i;
    } else if (arg.size() > 1 && arg[0] == '-') {
      std::fprintf(stderr, "zplpreview: unknown option %s\n", arg.c_str());
      usage(stderr);
      return 2;
    } else if (file != nullptr) {
      std::fprintf(stderr, "zplpreview: only one input file can be previewed at a time\n");
      usage(stderr);
      return 2;
    } else {
      file = argv[i];
    }
  }

  const bool fromStdin = file == nullptr || std::strcmp(file, "-") == 0;
  const std::string name = fromStdin ? "standard input" : file;
  FILE* in = fromStdin ? stdin : std::fopen(file, "rb");
  if (in == nullptr) {
    std::fprintf(stderr, "zplpreview: %s: %s\n", name.c_str(), std::strerror(errno));
    return 1;
  }
  std::vector<unsigned char> job;
  const bool read = readAll(in, name, job);
  if (!fromStdin) std::fclose(in);
  if (!read) return 1;

  std::vector<ZplGraphic> graphics;
  std::string error;
  if (!kelvoZplDecode(job.data(), job.size(), graphics, error)) {
    std::fprintf(stderr, "zplpreview: %s: %s\n", name.c_str(), error.c_str());
    return 1;
  }
  if (graphics.empty()) {
    std::fprintf(stderr, "zplpreview: %s: the job downloads no graphic\n", name.c_str());
    return 1;
  }
  for (size_t i = 0; i < graphics.size(); ++i) {
    const ZplGraphic& graphic = graphics[i];
    const std::string path = prefix + "-" + std::to_string(i + 1) + ".png";
    if (!writePage(graphic, path, scale, error)) {
      std::fprintf(stderr, "zplpreview: %s\n", error.c_str());
      return 1;
    }
    std::printf("%s: %zu x %zu dots, %zu printed (graphic %s)\n", path.c_str(), graphic.bytesPerRow * 8,
                graphic.height, kelvoZplCountDots(graphic), graphic.name.c_str());
    warnStandardPrinter(graphic, i + 1);
  }
  return 0;
}
