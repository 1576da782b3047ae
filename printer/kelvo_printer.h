#pragma once
// KelvoPrinter: the job's image options, the two page images of the pipeline
// and the list of output streams that every byte for the printer goes to.
#include <cups/raster.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <list>

#include "image/palette_image.h"
#include "support/halftone_type.h"

// Folder of the two debug pictures saved per page. The fuzz build points it at
// a folder that does not exist, so that millions of runs leave no files.
#ifndef KELVO_DEBUG_IMAGE_DIR
#define KELVO_DEBUG_IMAGE_DIR "/var/spool/cups/tmp/"
#endif

class KelvoPrinter {
 public:
  // Opaque value for the owner; never defined, never read by the printer.
  struct UserData;

  KelvoPrinter();
  virtual ~KelvoPrinter();
  KelvoPrinter(const KelvoPrinter&) = delete;
  KelvoPrinter& operator=(const KelvoPrinter&) = delete;

  // Renders one processed 8-bit page (one byte a pixel, 0 = no dot).
  virtual void doPrintImage(const unsigned char* bits, unsigned long bytesPerLine, unsigned long height,
                            unsigned long width) = 0;

  // --- accessors (the setters clamp where noted) ---
  void SetPrintWidth(long width) { printWidth_ = width; }
  long GetPrintWidth() const { return printWidth_; }
  void setPageHeader(cups_page_header2_t* header) { pageHdr_ = header; }
  cups_page_header2_t* getPageHeader() const { return pageHdr_; }
  void setMaxMediaWidth(int width) { maxMediaWidth_ = width; }
  int getMaxMediaWidth() const { return maxMediaWidth_; }
  void setVBarcodeOpt(int option) { vBarcodeOpt_ = option; }
  int getVBarcodeOpt() const { return vBarcodeOpt_; }
  void setBrightness(int brightness);          // clamped to -100..100
  int getBrightness() const { return brightness_; }
  void setContrast(int contrast);              // clamped to -100..100
  int getContrast() const { return contrast_; }
  void setPrintSpeed(char* speed);             // atoi, clamped to 1..15
  int getPrintSpeed() const { return printSpeed_; }
  void setPrintDensity(int density);           // clamped to 0..15
  int getPrintDensity() const { return printDensity_; }
  void setHalftoneType(DitherType type) { halftoneType_ = type; }
  DitherType getHalftoneType() const { return halftoneType_; }
  void setNegativePrint(bool on) { negativePrint_ = on; }
  bool isNegativePrint() const { return negativePrint_; }
  void setMirrorPrint(bool on) { mirrorPrint_ = on; }
  bool isMirrorPrint() const { return mirrorPrint_; }
  void setRotate180Print(bool on) { rotate180Print_ = on; }
  bool isRotate180Print() const { return rotate180Print_; }
  void setAntiWrinkle(int level) { antiWrinkle_ = level; }
  int getAntiWrinkle() const { return antiWrinkle_; }
  void setUseJVDithering(bool on) { useJVDithering_ = on; }
  bool getUseJVDithering() const { return useJVDithering_; }
  void setRemoveBlankEdges(unsigned char edges) { removeBlankEdges_ = edges; }
  unsigned char getRemoveBlankEdges() const { return removeBlankEdges_; }
  void setSkipRightPixels(unsigned long pixels) { skipRightPixels_ = pixels; }
  unsigned long getSkipRightPixels() const { return skipRightPixels_; }
  void setUserData(UserData* data) { userData_ = data; }
  UserData* getUserData() const { return userData_; }
  const char* getCopyRight() const;
  std::list<FILE*>& getOutputStreams() { return outputStreams_; }

  // --- print primitives: the same data to every stream, in list order ---
  void printBytes(const unsigned char* data, unsigned long size);
  void printStr(const char* text);
  void printByte(unsigned char c);
  int printFormat(const char* format, ...) __attribute__((format(printf, 2, 3)));

  // --- page pipeline ---
  void printImage(const unsigned char* data, unsigned long bytesPerLine, unsigned long height, unsigned long width);
  void saveImage(const unsigned char* data, unsigned long bytesPerLine, unsigned long height, unsigned long width,
                 unsigned short bitsPerPixel);
  long PageProcess(DitherType type, const unsigned char* data, int stride, int width, int height, unsigned char* out);
  void copyPixels(PaletteImage& image, unsigned char* out, int width, int height, int stride);
  void copyProcessedPixels(PaletteImage* image, unsigned char* out, int width, int height, int stride);
  void EnableAntiWrink(PaletteImage& image);

  // Packs h rows of bpl bytes into 1-bit rows in place; returns the packed size.
  int GrayToMono(int bpl, int h, unsigned char* data);

 protected:
  PaletteImage workImage_;
  PaletteImage stencilImage_;
  PaletteImage* pimage;
  char imagePathPattern_[1024];
  std::list<FILE*> outputStreams_;
  cups_page_header2_t* pageHdr_;
  int32_t maxMediaWidth_;
  int64_t printWidth_;
  int32_t brightness_;
  int32_t vBarcodeOpt_;
  int32_t contrast_;
  int32_t printSpeed_;
  int32_t printDensity_;
  DitherType halftoneType_;
  bool negativePrint_;
  bool mirrorPrint_;
  bool rotate180Print_;
  int32_t antiWrinkle_;
  bool useJVDithering_;
  uint8_t removeBlankEdges_;
  unsigned long skipRightPixels_;
  UserData* userData_;
  int32_t resolution_;
};

// The process-wide current printer; the job setup commands and the copy
// count of the graphic write through it.
extern KelvoPrinter* sPrinter;

// Numbers the debug BMP files of the process.
extern uint64_t page_index;

// Set by the filter's SIGTERM handler when the spooler cancels the job. The
// page loop and the graphic emitter stop at their next safe point; an
// unfinished graphic download is aborted so the printer does not wait for it.
extern volatile std::sig_atomic_t sJobCancelled;

extern "C" {
size_t kelvoImageCountBlankLinesFromFront(const unsigned char* data, size_t bytesPerLine, size_t height,
                                          size_t skipRight, size_t stride);
size_t kelvoImageCountBlankLinesFromBack(const unsigned char* data, size_t bytesPerLine, size_t height,
                                         size_t skipRight, size_t stride);
}
