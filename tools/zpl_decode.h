#pragma once
// Reads back the graphics of a ZPL job: every "~DG" download and "^GFA"
// field, with its compressed ASCII-hexadecimal or ":Z64:"/":B64:" data
// expanded to packed 1-bit rows the way a printer expands them. Used to
// preview jobs and to check what the filter sends. Strict on purpose:
// anything a printer could read two ways is refused.
#include <cstddef>
#include <string>
#include <vector>

struct ZplGraphic {
  std::string name;                 // device and name as sent, e.g. "R:CUPS.GRF"
  size_t offset = 0;                // byte offset of the "~DG" in the job
  size_t bytesPerRow = 0;
  size_t height = 0;
  std::vector<unsigned char> rows;  // height * bytesPerRow bytes; bit 7 of a row's first byte is its leftmost dot
  // What a standard ZPL printer makes of it: the label width and length in
  // force ("^PW", "^LL"; -1 when the job set none) and whether the format
  // around it was opened with "^XA".
  long labelWidth = -1;
  long labelLength = -1;
  bool openedWithXA = false;
};

// Limits against hostile or corrupt input: a declared size beyond them is
// refused before anything is allocated for it.
constexpr size_t kZplMaxBytesPerRow = 8192;            // 65536 dots across
constexpr size_t kZplMaxGraphicBytes = 64u << 20;      // one graphic
constexpr size_t kZplMaxJobGraphicBytes = 256u << 20;  // all graphics of a job together

// Decodes every graphic of `size` bytes at `data` into `graphics` (replacing
// its contents). On malformed input returns false and sets `error` to one
// line naming the byte offset, e.g. "byte 1234: repeat count runs past the
// end of the row"; `graphics` then holds the graphics completed before it.
bool kelvoZplDecode(const unsigned char* data, size_t size, std::vector<ZplGraphic>& graphics, std::string& error);

// Number of dots (set bits) of a graphic.
size_t kelvoZplCountDots(const ZplGraphic& graphic);
