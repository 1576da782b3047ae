#pragma once
// PaletteImage: one page held as a device-independent bitmap (1, 4, 8 or 24
// bits per pixel) in a single block: a 40-byte BMP information header, the
// palette and the pixel rows, row 0 first in memory.
#include <cstdint>

struct tagRGBQUAD {
  uint8_t rgbBlue;
  uint8_t rgbGreen;
  uint8_t rgbRed;
  uint8_t rgbReserved;
};
static_assert(sizeof(tagRGBQUAD) == 4, "tagRGBQUAD is one 32-bit word");

#pragma pack(push, 2)
struct BITMAPINFOHEADER {
  uint32_t biSize;
  int32_t biWidth;
  int32_t biHeight;
  uint16_t biPlanes;
  uint16_t biBitCount;
  uint32_t biCompression;
  uint32_t biSizeImage;
  int32_t biXPelsPerMeter;
  int32_t biYPelsPerMeter;
  uint32_t biClrUsed;
  uint32_t biClrImportant;
};
#pragma pack(pop)
static_assert(sizeof(BITMAPINFOHEADER) == 40, "BMP information header is 40 bytes");

struct ImageInfo {
  uint32_t effWidth;        // bytes per pixel row, padded to a multiple of 4
  uint8_t* bits;            // first pixel row inside the block
  uint32_t imageType;       // carried along, never interpreted
  char lastError[256];      // text of the last failure
  tagRGBQUAD lastColor;     // nearest-colour cache: written, never read
  uint8_t lastColorIndex;
  bool lastColorValid;
};

class PaletteImage {
 public:
  PaletteImage();
  // Frees a block still held. Images are never copied; a block moves only
  // through Transfer.
  ~PaletteImage();
  PaletteImage(const PaletteImage&) = delete;
  PaletteImage& operator=(const PaletteImage&) = delete;

  // --- creation and ownership ---
  void* Create(unsigned int width, unsigned int height, unsigned int bpp, unsigned int imagetype);
  bool Destroy();
  bool Transfer(PaletteImage& from, bool transferOwnership = true);
  void CopyInfo(const PaletteImage& src);
  bool CreateFromArray(unsigned char* array, unsigned int width, unsigned int height, unsigned int bpp,
                       unsigned int bytesPerLine, bool flip);

  // --- plain accessors ---
  uint32_t GetWidth();
  uint32_t GetWidth() const;
  uint32_t GetHeight();
  uint32_t GetHeight() const;
  uint32_t GetEffWidth() const;
  uint32_t GetNumColors() const;
  uint32_t GetPaletteSize();
  uint32_t GetSize();
  bool IsValid() const;
  const char* GetLastError();
  tagRGBQUAD* GetPalette() const;
  uint8_t* GetBits(unsigned int row = 0);

  // --- palette ---
  void SetPalette(tagRGBQUAD* pal, unsigned int ncolors);
  void SetGrayPalette();
  void SetPaletteColor(unsigned char idx, unsigned char r, unsigned char g, unsigned char b,
                       unsigned char alpha = 0);
  tagRGBQUAD GetPaletteColor(unsigned char idx);
  unsigned char GetNearestIndex(tagRGBQUAD c);

  // --- pixels ---
  unsigned char GetPixelIndex(long x, long y);
  void SetPixelIndex(long x, long y, unsigned char i);
  unsigned char BlindGetPixelIndex(long x, long y);
  void BlindSetPixelIndex(long x, long y, unsigned char i);
  tagRGBQUAD BlindGetPixelColor(long x, long y, bool getAlpha = true);
  void BlindSetPixelColor(long x, long y, tagRGBQUAD c, bool setAlpha = false);

  // --- halftoning ---
  bool Dither(long method = 0);

  // --- transforms ---
  bool Light(int brightness, int contrast = 0);
  bool Lut(unsigned char* table);
  bool Rotate180(PaletteImage* dst = nullptr);
  void Mirror();
  void Negative();
  bool IncreaseBpp(unsigned int nbit);
  bool Expand(long left, long top, long right, long bottom, tagRGBQUAD canvas);
  void MakeCenter(int width);
  void DrawLine(int startX, int endX, int startY, int endY, unsigned char index);

 private:
  BITMAPINFOHEADER header;
  ImageInfo info;
  void* dib;
};
