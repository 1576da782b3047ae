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

#include "printer/kelvo_printer.h"
#include "printer/page_layout.h"
#include "printer/png_io.h"

namespace {

// A printer that keeps the processed page instead of sending it anywhere.
class PreviewPrinter : public KelvoPrinter {
 public:
  void doPrintImage(const unsigned char*, unsigned long, unsigned long, unsigned long) override {}

  // Processes one page of ink amounts (0 = paper) and returns the page as it
  // will print: 0 where a dot goes, 255 for bare paper.
  bool process(const std::vector<unsigned char>& ink, int width, int height, GrayPage& out) {
    // A stencil is held as the chain made it until it is asked for.
    PaletteImage* image = PageProcess(getHalftoneType(), ink.data(), width, width, height) ? processedImage() : nullptr;
    if (image == nullptr) return false;
    out.width = image->GetWidth();
    out.height = image->GetHeight();
    out.pixels.resize(static_cast<size_t>(out.width) * out.height);
    for (uint32_t y = 0; y < out.height; ++y) {
      const unsigned char* row = image->GetBits(y);
      for (uint32_t x = 0; x < out.width; ++x) out.pixels[static_cast<size_t>(y) * out.width + x] = row[x] ? 0 : 255;
    }
    return true;
  }
};

void usage(FILE* out) {
  std::fprintf(out,
               "Usage: halftonepreview [options] input output.png\n"
               "Shows a picture as the printer will print it: through the filter's halftone,\n"
               "brightness, mirror and negative steps, dots black on white paper.\n"
               "  input         a PNG picture, or with --raw a page of 8-bit ink amounts (0 = paper)\n"
               "  -s SIZE       put the picture on a page of this size first, as CUPS does: turned a\n"
               "                quarter left if its orientation differs, scaled to fit, centred.\n"
               "                SIZE: 4x6 (inches), 100x150mm, w288h432 (points), A4, A5, A6, Letter,\n"
               "                Tattoo_A5, Tattoo_A6. Without -s the picture prints at its own pixel size.\n"
               "  -r DPI        resolution of that page (default 203)\n"
               "  -t TYPE       halftone, the PPD's HalftoneType keyword: None, FloydSteinberg, Ordered,\n"
               "                Burkes, Stucki, JarvisJudiceNinke, Sierra, StevensonArce, Tattoo or\n"
               "                Tattoo_X8 (default None)\n"
               "  -b, -c N      brightness and contrast, -100 to 100 (default 0); a positive\n"
               "                brightness prints darker\n"
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
  PreviewPrinter printer;
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
      const DitherType type = kelvoHalftoneTypeFromStr(name);
      if (type == None && std::strcmp(name, "None") != 0) {
        std::fprintf(stderr, "halftonepreview: unknown halftone type \"%s\"\n", name);
        return 2;
      }
      printer.setHalftoneType(type);
    } else if ((arg == "-b" || arg == "-c") && hasValue && parseInt(argv[i + 1], value)) {
      ++i;
      if (arg == "-b") printer.setBrightness(value);
      else printer.setContrast(value);
    } else if (arg == "-v") {
      verbose = true;
    } else if (arg == "-m") {
      printer.setMirrorPrint(true);
    } else if (arg == "-n") {
      printer.setNegativePrint(true);
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
  const bool processed = printer.process(ink, width, height, page);
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
  std::printf("%s: %u x %u, %s", files[1], page.width, page.height, kelvoHalftoneTypeToStr(printer.getHalftoneType()));
  if (pageSize != nullptr) std::printf(", page %s at %d dpi", pageSize, dpi);
  std::printf("\n");
  return 0;
}
