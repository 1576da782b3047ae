// halftonepreview: runs a picture through the filter's own page pipeline and
// writes the processed page as a PNG, so a stencil can be checked on screen
// before paper and transfer sheets are spent on it. With a page size the
// picture is first put on that page at the printer's resolution, as CUPS
// puts it there, so the preview is the print dot for dot.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "image/pixel_rows.h"
#include "printer/page_pipeline.h"
#include "printer/page_layout.h"
#include "printer/png_io.h"

namespace {

// Runs one page of ink amounts (0 = paper) through the engine's pipeline and
// returns the page as it will print: 0 where a dot goes, 255 for bare paper.
bool process(std::vector<unsigned char> ink, int width, int height, int dpi, const KelvoJobSettings& settings,
             GrayPage& out) {
  KelvoDots dots;
  const unsigned w = static_cast<unsigned>(width), h = static_cast<unsigned>(height), d = static_cast<unsigned>(dpi);
  if (!kelvoRenderPage(ink.data(), w, KelvoPageSize{w, h, d, d}, settings, dots, nullptr)) return false;
  out.width = dots.width;
  out.height = dots.height;
  out.pixels.resize(static_cast<size_t>(out.width) * out.height);
  for (uint32_t y = 0; y < out.height; ++y) {
    unsigned char* row = &out.pixels[static_cast<size_t>(y) * out.width];
    kelvoUnpackBits(dots.row(y), dots.width, row);
    for (uint32_t x = 0; x < out.width; ++x) row[x] = row[x] ? 0 : 255;
  }
  return true;
}

void usage(FILE* out) {
  std::fprintf(out,
               "Usage: halftonepreview [options] input output.png\n"
               "Shows a picture as the printer will print it: through the engine's brightness,\n"
               "mirror, halftone and negative steps, dots black on white paper.\n"
               "  input         a PNG picture, or with --raw a page of 8-bit ink amounts (0 = paper)\n"
               "  -s SIZE       put the picture on a page of this size first, as CUPS does: turned a\n"
               "                quarter left if its orientation differs, scaled to fit, centred.\n"
               "                SIZE: 4x6 (inches), 100x150mm, w288h432 (points), A4, A5, A6, Letter,\n"
               "                Tattoo_A5, Tattoo_A6. Without -s the picture prints at its own pixel size.\n"
               "  -r DPI        resolution of that page (default 203)\n"
               "  -t NAME       halftone: threshold (the default), ordered-4x4, burkes-diffusion,\n"
               "                stucki-diffusion, jarvis-judice-ninke-diffusion, sierra-diffusion,\n"
               "                stevenson-arce-diffusion, bayer-ordered, tattoo, tattoo-x8 or barcode-text\n"
               "  -b N          brightness, -100 to 100 (default 0); a positive one prints darker\n"
               "  -m, -n        mirror left to right; negative print\n"
               "  --raw WxH     the input is a raw page of W by H bytes (also -r WxH)\n"
               "  -v            show the pipeline's log lines\n"
               "  -h, --help    this text\n");
}

bool readRaw(const char* path, int width, int height, std::vector<unsigned char>& ink) {
  FILE* file = std::fopen(path, "rb");
  if (file == nullptr) return false;
  ink.assign(static_cast<size_t>(width) * height, 0);
  const size_t got = std::fread(ink.data(), 1, ink.size(), file);
  std::fclose(file);
  return got == ink.size();
}

bool parseInt(const char* text, int& value) {
  char* end = nullptr;
  const long v = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || v < -100000 || v > 100000) return false;
  value = static_cast<int>(v);
  return true;
}

bool parseRawSize(const char* text, int& width, int& height) {
  return std::sscanf(text, "%dx%d", &width, &height) == 2 && width > 0 && height > 0 &&
         static_cast<long long>(width) * height <= static_cast<long long>(kPngMaxPixels);
}

}  // namespace

int main(int argc, char** argv) {
  KelvoJobSettings settings;
  int rawWidth = 0, rawHeight = 0, dpi = 203;
  const char* pageSize = nullptr;
  bool verbose = false;
  std::vector<const char*> files;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool hasValue = i + 1 < argc;
    int value = 0;
    if (arg == "-h" || arg == "--help") {
      usage(stdout);
      return 0;
    } else if (arg == "-t" && hasValue) {
      const char* name = argv[++i];
      if (!kelvoHalftoneFromName(name, &settings.halftone)) {
        std::fprintf(stderr, "halftonepreview: unknown halftone \"%s\"\n", name);
        return 2;
      }
    } else if (arg == "-b" && hasValue && parseInt(argv[i + 1], value)) {
      ++i;
      settings.brightness = value;
    } else if (arg == "-v") {
      verbose = true;
    } else if (arg == "-m") {
      settings.mirror = true;
    } else if (arg == "-n") {
      settings.negative = true;
    } else if ((arg == "--raw" || (arg == "-r" && hasValue && std::strchr(argv[i + 1], 'x') != nullptr)) &&
               hasValue) {
      if (!parseRawSize(argv[++i], rawWidth, rawHeight)) {
        std::fprintf(stderr, "halftonepreview: --raw wants WIDTHxHEIGHT, got \"%s\"\n", argv[i]);
        return 2;
      }
    } else if (arg == "-r" && hasValue) {
      if (!parseInt(argv[++i], dpi) || dpi < 50 || dpi > 2400) {
        std::fprintf(stderr, "halftonepreview: -r wants a resolution of 50 to 2400 dpi, got \"%s\"\n", argv[i]);
        return 2;
      }
    } else if (arg == "-s" && hasValue) {
      pageSize = argv[++i];
    } else if (!arg.empty() && arg[0] == '-') {
      usage(stderr);
      return 2;
    } else {
      files.push_back(argv[i]);
    }
  }
  if (files.size() != 2) {
    usage(stderr);
    return 2;
  }
  double pageWidth = 0, pageLength = 0;
  if (pageSize != nullptr && !kelvoPageSizePoints(pageSize, pageWidth, pageLength)) {
    std::fprintf(stderr, "halftonepreview: unknown page size \"%s\"; try 4x6, 100x150mm, w288h432 or A4\n",
                 pageSize);
    return 2;
  }

  std::vector<unsigned char> ink;
  int width = rawWidth, height = rawHeight;
  if (rawWidth > 0) {
    if (!readRaw(files[0], width, height, ink)) {
      std::fprintf(stderr, "halftonepreview: cannot read %d x %d bytes from %s\n", width, height, files[0]);
      return 1;
    }
    if (pageSize != nullptr) {
      std::fprintf(stderr, "halftonepreview: a raw page is printed as it is; -s is for pictures\n");
      return 2;
    }
  } else {
    GrayPage picture;
    std::string error;
    if (!kelvoPngReadGray(files[0], picture, error)) {
      std::fprintf(stderr, "halftonepreview: %s\n", error.c_str());
      return 1;
    }
    if (pageSize != nullptr) {
      const unsigned dotsWidth = kelvoPageDots(pageWidth, static_cast<unsigned>(dpi)),
                     dotsHeight = kelvoPageDots(pageLength, static_cast<unsigned>(dpi));
      if (dotsWidth == 0 || dotsHeight == 0 ||
          static_cast<unsigned long long>(dotsWidth) * dotsHeight > kPngMaxPixels) {
        std::fprintf(stderr, "halftonepreview: a %s page at %d dpi is %u x %u dots, beyond what can be shown\n",
                     pageSize, dpi, dotsWidth, dotsHeight);
        return 2;
      }
      picture = kelvoPlaceOnPage(picture, dotsWidth, dotsHeight);
    }
    // A picture holds light; the printer works in ink, as CUPS hands it over.
    width = static_cast<int>(picture.width);
    height = static_cast<int>(picture.height);
    ink.resize(picture.pixels.size());
    for (size_t i = 0; i < ink.size(); ++i) ink[i] = static_cast<unsigned char>(255 - picture.pixels[i]);
  }

  // The pipeline reports every step to the spooler's log; a person at a
  // terminal only wants to see that with -v.
  const int savedStderr = verbose ? -1 : dup(2);
  if (savedStderr >= 0) {
    const int devNull = open("/dev/null", O_WRONLY);
    if (devNull >= 0) {
      dup2(devNull, 2);
      close(devNull);
    }
  }
  GrayPage page;
  const bool processed = process(ink, width, height, dpi, settings, page);
  if (savedStderr >= 0) {
    std::fflush(stderr);
    dup2(savedStderr, 2);
    close(savedStderr);
  }
  if (!processed) {
    std::fprintf(stderr, "halftonepreview: the page could not be processed\n");
    return 1;
  }
  std::string error;
  if (!kelvoPngWriteGray(files[1], page.pixels.data(), page.width, page.height, page.width, error)) {
    std::fprintf(stderr, "halftonepreview: %s\n", error.c_str());
    return 1;
  }
  std::printf("%s: %u x %u, %s", files[1], page.width, page.height, kelvoHalftoneName(settings.halftone));
  if (pageSize != nullptr) std::printf(", page %s at %d dpi", pageSize, dpi);
  std::printf("\n");
  return 0;
}
