// Plain 1-bit packing and row encoding: one output byte at a time.
#include "test_support/reference.h"

namespace kref {
namespace {

void compress(std::string& out, char digit, unsigned count) {
  if (count > 1) {
    while (count >= 400) {
      out += 'z';
      count -= 400;
    }
    if (count >= 20) {
      out += static_cast<char>(102 + count / 20);
      count %= 20;
    }
    if (count != 0) out += static_cast<char>(70 + count);
  }
  out += digit;
}

}  // namespace

int grayToMono(int bpl, int h, uint8_t* data) {
  const int wb = bpl;
  int out = 0;
  for (int r = 0; r < h; ++r) {
    uint8_t acc = 0;
    for (int x = 0; x < wb; ++x) {
      if (data[r * bpl + x] != 0) acc |= static_cast<uint8_t>(0x80 >> (x % 8));
      if (x % 8 == 7) {
        data[out++] = acc;
        acc = 0;
      }
    }
    if (wb % 8 != 0) data[out++] = acc;
  }
  return out;
}

std::string zplLine(const uint8_t* row, int n, bool& prevAllDots) {
  std::string out;
  bool allDots = true;
  for (int i = 0; i < n; ++i) allDots = allDots && row[i] == 0xFF;
  const bool repeat = prevAllDots && allDots;
  prevAllDots = allDots;
  if (repeat) return ":";
  std::string digits;
  for (int i = 0; i < n; ++i) {
    digits += "0123456789ABCDEF"[row[i] >> 4];
    digits += "0123456789ABCDEF"[row[i] & 15];
  }
  char current = digits[0];
  unsigned count = 1;
  for (size_t i = 1; i < digits.size(); ++i) {
    if (digits[i] == current) {
      ++count;
    } else {
      compress(out, current, count);
      current = digits[i];
      count = 1;
    }
  }
  if (current == '0') {
    if (count % 2 != 0) {
      out += '0';
      --count;
    }
    if (count != 0) out += ',';
  } else {
    compress(out, current, count);
  }
  return out;
}

std::string zplGraphic(const uint8_t* bits, int stride, int width, int height, int copies) {
  std::vector<uint8_t> buf;
  for (int y = 0; y < height; ++y) buf.insert(buf.end(), bits + y * stride, bits + y * stride + width);
  const int total = grayToMono(width, height, buf.data());
  const int perRow = total / height;
  std::string out = "^XX\r\n^PQ" + std::to_string(copies) + "\n~DGR:CUPS.GRF," + std::to_string(total) + "," +
                    std::to_string(perRow) + ",\n";
  bool prevAllDots = false;
  for (int r = 0; r < height; ++r) out += zplLine(buf.data() + static_cast<size_t>(r) * perRow, perRow, prevAllDots);
  return out + "^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n";
}

}  // namespace kref
