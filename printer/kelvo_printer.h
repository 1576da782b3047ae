#pragma once
// KelvoPrinter: the job's image options, the two page images of the pipeline
// and the list of output streams that every byte for the printer goes to.
#include <cups/raster.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <list>

#include <string>
#include <vector>

#include "image/palette_image.h"
#include "printer/job_settings.h"
#include "stencil/jv_image.h"
#include "support/halftone_type.h"


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
  // Renders a halftoned page still in 1-bit rows (bit 7 of a row's first
  // byte is its leftmost pixel, a set bit a dot), rows bytesPerRow apart.
  // Printers that cannot use the rows directly get them as an 8-bit page.
  virtual void doPrintPackedImage(const unsigned char* rows, unsigned long bytesPerRow, unsigned long height,
                                  unsigned long width);
  // Whether the pipeline may hand this printer 1-bit rows (saving the
  // widening to 8 bits and the packing back).
  virtual bool takesPackedRows() const { return false; }

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

  // --- per-job state: everything a job needs is here, nothing is
  // process-wide, so one process can drive several printers at once ---
  // The flag is set from outside (a signal handler, another thread) when the
  // job is cancelled; the pipeline and the emitter stop at their next safe
  // point. nullptr: never cancelled.
  void setCancelFlag(const volatile std::sig_atomic_t* flag) { cancelFlag_ = flag; }
  bool isCancelled() const { return cancelFlag_ != nullptr && *cancelFlag_ != 0; }
  void setDialect(ZplDialect dialect) { dialect_ = dialect; }
  ZplDialect getDialect() const { return dialect_; }
  void setGraphicEncoding(GraphicEncoding encoding) { encoding_ = encoding; }
  GraphicEncoding getGraphicEncoding() const { return encoding_; }
  // Debug pictures: off unless a folder is given. `tag` names the job in the
  // file names (e.g. the job id), so two jobs never share a name.
  void setDebugImages(bool on, const std::string& folder, const std::string& tag);
  bool debugImagesOn() const { return debugImages_; }
  // Called before each page: the line-repeat compression never refers to a
  // row of an earlier page.
  void startPage() {
    prevRowAllDots_ = false;
    prevRow_.clear();
  }
  uint64_t debugImageCount() const { return pageIndex_; }

  // --- print primitives: the same data to every stream, in list order ---
  void printBytes(const unsigned char* data, unsigned long size);
  void printStr(const char* text);
  void printByte(unsigned char c);
  int printFormat(const char* format, ...) __attribute__((format(printf, 2, 3)));

  // --- page pipeline ---
  // Processes and prints one page. The page's bytes are the printer's to
  // overwrite: a stencil is made in place, without a page-sized buffer of
  // its own, and stays there (processedImage() reads it from that page).
  // False when the page could not be processed (memory ran out): nothing
  // of it was sent, and an error line says so.
  bool printImage(unsigned char* data, unsigned long bytesPerLine, unsigned long height, unsigned long width);
  // Writes one debug picture into the debug folder, named after `kind`.
  void saveImage(const unsigned char* data, unsigned long bytesPerLine, unsigned long height, unsigned long width,
                 unsigned short bitsPerPixel, const char* kind);
  // Builds, adjusts, transforms and halftones the page into `pimage`;
  // false when the page could not be built.
  bool PageProcess(DitherType type, const unsigned char* data, int stride, int width, int height);
  // The processed page of the last PageProcess: 8 bits a pixel, rows
  // GetEffWidth() bytes apart, 0 = paper. A stencil is held as the chain
  // made it and copied into an image only when asked for here.
  PaletteImage* processedImage();
  // Sends the processed page of the last PageProcess as the page graphic.
  void printProcessed();
  void EnableAntiWrink(PaletteImage& image);

  // Packs h rows of bpl bytes into 1-bit rows in place; returns the packed size.
  int GrayToMono(int bpl, int h, unsigned char* data);

 protected:
  // The stencil chain on a gray page without row padding, in place when
  // the page is `writable` (the page itself, or null); the result is held
  // for printing (or put into `pimage` for the frame and the debug
  // picture), then finishPage().
  bool stencilPage(const unsigned char* gray, unsigned char* writable, int width, int height);
  // Negative printing and the anti-wrinkle frame on `pimage`.
  bool finishPage();

  PaletteImage workImage_;
  PaletteImage stencilImage_;
  // The held stencil: stencilWidth_ x stencilHeight_ bytes at stencilBits_,
  // in stencilOut_ or in the page printImage was given.
  JVImage stencilOut_{0, 0, JV_IMG_GRAY};
  unsigned char* stencilBits_ = nullptr;
  int stencilWidth_ = 0;
  int stencilHeight_ = 0;
  bool stencilHeld_ = false;
  // The page printImage is working on, which the pipeline may overwrite.
  unsigned char* writablePage_ = nullptr;
  PaletteImage* pimage;
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

  const volatile std::sig_atomic_t* cancelFlag_ = nullptr;
  ZplDialect dialect_ = kDialectKelvo;
  GraphicEncoding encoding_ = kEncodingHex;
  // The row before the one being encoded was all dots (sent in full or as a
  // repeat); only then may an all-dots row be sent as a repeat.
  bool prevRowAllDots_ = false;
  // Standard dialect: the row before the one being encoded (empty: none).
  std::vector<unsigned char> prevRow_;
  // Numbers the debug pictures of this printer.
  uint64_t pageIndex_ = 0;
  bool debugImages_ = false;
  std::string debugFolder_;
  std::string debugTag_;
};

extern "C" {
size_t kelvoImageCountBlankLinesFromFront(const unsigned char* data, size_t bytesPerLine, size_t height,
                                          size_t skipRight, size_t stride);
size_t kelvoImageCountBlankLinesFromBack(const unsigned char* data, size_t bytesPerLine, size_t height,
                                         size_t skipRight, size_t stride);
}
