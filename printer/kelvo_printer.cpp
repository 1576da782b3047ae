#include "printer/kelvo_printer.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>

namespace {
// The maker's notice, spelled as hexadecimal byte values so that it survives
// in the binary as one recognisable line:
// "Kelvo ZPL label and stencil filter, made by its maintainers".
const char kCopyRight[] =
    "MFT:4B 65 6C 76 6F 20 5A 50 4C 20 6C 61 62 65 6C 20 61 6E 64 20 73 74 65 6E 63 69 6C 20 66 69 6C 74 65 "
    "72 2C 20 6D 61 64 65 20 62 79 20 69 74 73 20 6D 61 69 6E 74 61 69 6E 65 72 73";

int clampInt(int value, int low, int high) { return value < low ? low : (value > high ? high : value); }
}  // namespace

KelvoPrinter::KelvoPrinter()
    : pimage(nullptr),
      pageHdr_(nullptr),
      maxMediaWidth_(0),
      printWidth_(0),
      brightness_(0),
      vBarcodeOpt_(0),
      contrast_(0),
      printSpeed_(7),
      printDensity_(8),
      halftoneType_(None),
      negativePrint_(false),
      mirrorPrint_(false),
      rotate180Print_(false),
      antiWrinkle_(0),
      useJVDithering_(false),
      removeBlankEdges_(0),
      skipRightPixels_(0),
      userData_(nullptr),
      resolution_(300) {
  outputStreams_.push_back(stdout);
}

// The streams, the page header and the user data belong to the owner.
KelvoPrinter::~KelvoPrinter() = default;

void KelvoPrinter::setBrightness(int brightness) { brightness_ = clampInt(brightness, -100, 100); }

void KelvoPrinter::setContrast(int contrast) { contrast_ = clampInt(contrast, -100, 100); }

// Speed starts at 1 while density starts at 0: the printer has no speed 0.
void KelvoPrinter::setPrintSpeed(char* speed) { printSpeed_ = clampInt(std::atoi(speed), 1, 15); }

void KelvoPrinter::setPrintDensity(int density) { printDensity_ = clampInt(density, 0, 15); }

const char* KelvoPrinter::getCopyRight() const { return kCopyRight; }

void KelvoPrinter::printBytes(const unsigned char* data, unsigned long size) {
  for (FILE* stream : outputStreams_) std::fwrite(data, size, 1, stream);
}

void KelvoPrinter::printStr(const char* text) {
  for (FILE* stream : outputStreams_) std::fprintf(stream, "%s", text);
}

void KelvoPrinter::printByte(unsigned char c) {
  for (FILE* stream : outputStreams_) std::fputc(c, stream);
}

int KelvoPrinter::printFormat(const char* format, ...) {
  int result = 0;
  va_list args;
  va_start(args, format);
  for (FILE* stream : outputStreams_) {
    va_list copy;
    va_copy(copy, args);
    result = std::vfprintf(stream, format, copy);
    va_end(copy);
  }
  va_end(args);
  return result;
}
