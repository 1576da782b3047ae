#include "tools/zpl_decode.h"

#include <zlib.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "support/z64.h"

namespace {

constexpr size_t kMaxNameLength = 64;

bool isHexDigit(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

unsigned hexValue(unsigned char c) {
  if (c <= '9') return c - '0';
  if (c <= 'F') return c - 'A' + 10;
  return c - 'a' + 10;
}

// Repeat letters: G..Y count 1..19, g..y count 20..380, z counts 400.
size_t repeatValue(unsigned char c) {
  if (c >= 'G' && c <= 'Y') return c - 'F';
  if (c >= 'g' && c <= 'y') return 20u * (c - 'f');
  if (c == 'z') return 400;
  return 0;
}

std::string describe(unsigned char c) {
  char text[16];
  if (c > 0x20 && c < 0x7F)
    std::snprintf(text, sizeof text, "'%c'", c);
  else
    std::snprintf(text, sizeof text, "0x%02X", c);
  return text;
}

class Decoder {
 public:
  Decoder(const unsigned char* data, size_t size) : data_(data), size_(size) {}

  bool run(std::vector<ZplGraphic>& graphics, std::string& error) {
    graphics.clear();
    bool inlineField = false;
    while (findGraphic(inlineField)) {
      ZplGraphic graphic;
      graphic.offset = pos_;
      graphic.labelWidth = labelWidth_;
      graphic.labelLength = labelLength_;
      graphic.openedWithXA = openedWithXA_;
      pos_ += 3;
      size_t total = 0;
      const bool header = inlineField ? readFieldHeader(graphic, total) : readHeader(graphic, total);
      if (!header || !readAnyData(graphic, total) || !checkEnd(graphic)) {
        error = error_;
        return false;
      }
      graphics.push_back(std::move(graphic));
    }
    return true;
  }

 private:
  bool fail(size_t at, const char* format, ...) __attribute__((format(printf, 3, 4))) {
    char text[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    char where[32];
    std::snprintf(where, sizeof where, "byte %zu: ", at);
    error_ = std::string(where) + text;
    return false;
  }

  bool command(char prefix, const char* name) const {
    return data_[pos_] == prefix && (data_[pos_ + 1] | 0x20) == (name[0] | 0x20) &&
           (data_[pos_ + 2] | 0x20) == (name[1] | 0x20);
  }

  // A decimal number right after a command, or -1.
  long numberAfter(size_t at) const {
    long value = -1;
    for (; at < size_ && data_[at] >= '0' && data_[at] <= '9' && value < 100000000; ++at)
      value = (value < 0 ? 0 : value * 10) + (data_[at] - '0');
    return value;
  }

  // Moves to the next "~DG" or "^GF" (either case), noting the label size
  // and format start on the way; false when there is none.
  bool findGraphic(bool& inlineField) {
    for (; pos_ + 3 <= size_; ++pos_) {
      if (command('~', "DG")) {
        inlineField = false;
        return true;
      }
      if (command('^', "GF")) {
        inlineField = true;
        return true;
      }
      if (command('^', "XA")) openedWithXA_ = true;
      if (command('^', "XX")) openedWithXA_ = false;
      if (command('^', "PW")) labelWidth_ = numberAfter(pos_ + 3);
      if (command('^', "LL")) labelLength_ = numberAfter(pos_ + 3);
    }
    pos_ = size_;
    return false;
  }

  // "^GFA,<bytes>,<total>,<row bytes>," of an inline graphic field.
  bool readFieldHeader(ZplGraphic& graphic, size_t& total) {
    graphic.name = "^GFA";
    if (pos_ + 2 > size_) return fail(pos_, "the job ends inside the header of a graphic");
    if ((data_[pos_] | 0x20) != 'a' || data_[pos_ + 1] != ',')
      return fail(pos_, "graphic field compression %s is not read (only A is)", describe(data_[pos_]).c_str());
    pos_ += 2;
    size_t bytes = 0;
    if (!readNumber("byte count", kZplMaxGraphicBytes, bytes)) return false;
    return readSizes(graphic, total);
  }

  // Z64/B64 data, or the hexadecimal rows.
  bool readAnyData(ZplGraphic& graphic, size_t total) {
    if (pos_ + 5 <= size_ && data_[pos_] == ':' && data_[pos_ + 4] == ':' &&
        (std::memcmp(data_ + pos_ + 1, "Z64", 3) == 0 || std::memcmp(data_ + pos_ + 1, "B64", 3) == 0))
      return readEncoded(graphic, total, data_[pos_ + 1] == 'Z');
    return readData(graphic, total);
  }

  // ":Z64:<base64>:<crc>": base64 up to the next ':', four hex digits of CRC.
  bool readEncoded(ZplGraphic& graphic, size_t total, bool deflated) {
    const size_t start = pos_ + 5;
    size_t end = start;
    while (end < size_ && data_[end] != ':' && data_[end] != '^' && data_[end] != '~') ++end;
    if (end == size_ || data_[end] != ':')
      return fail(end, "encoded data of graphic \"%s\" is truncated: no CRC after it", graphic.name.c_str());
    if (end + 5 > size_) return fail(end, "the CRC of graphic \"%s\" is truncated", graphic.name.c_str());
    unsigned crc = 0;
    for (size_t i = end + 1; i < end + 5; ++i) {
      if (!isHexDigit(data_[i])) return fail(i, "the CRC of graphic \"%s\" is not 4 hex digits", graphic.name.c_str());
      crc = crc * 16 + hexValue(data_[i]);
    }
    const unsigned computed = kelvoCrc16(data_ + start, end - start);
    if (crc != computed)
      return fail(end + 1, "encoded data of graphic \"%s\" does not match its CRC (%04X given, %04X computed)",
                  graphic.name.c_str(), crc, computed);
    std::vector<unsigned char> decoded;
    size_t badAt = 0;
    if (!kelvoBase64Decode(data_ + start, end - start, decoded, badAt))
      return fail(start + badAt, "graphic \"%s\": not base64", graphic.name.c_str());
    if (deflated) {
      graphic.rows.assign(total, 0);
      uLongf got = static_cast<uLongf>(total);
      const int status = uncompress(graphic.rows.data(), &got, decoded.data(), static_cast<uLong>(decoded.size()));
      if (status != Z_OK || got != total)
        return fail(start, "Z64 data of graphic \"%s\" does not inflate to its %zu bytes (%s)", graphic.name.c_str(),
                    total, status == Z_OK ? "size differs" : zError(status));
    } else {
      if (decoded.size() != total)
        return fail(start, "B64 data of graphic \"%s\" holds %zu bytes, not %zu", graphic.name.c_str(),
                    decoded.size(), total);
      graphic.rows = std::move(decoded);
    }
    pos_ = end + 5;
    return true;
  }

  bool readHeader(ZplGraphic& graphic, size_t& total) {
    const size_t nameStart = pos_;
    while (pos_ < size_ && data_[pos_] != ',') {
      const unsigned char c = data_[pos_];
      if (c <= 0x20 || c >= 0x7F || c == '^' || c == '~')
        return fail(pos_, "unexpected character %s in the graphic name", describe(c).c_str());
      if (pos_ - nameStart >= kMaxNameLength)
        return fail(nameStart, "graphic name longer than %zu characters", kMaxNameLength);
      ++pos_;
    }
    if (pos_ == size_) return fail(pos_, "the job ends inside the header of a graphic");
    if (pos_ == nameStart) return fail(pos_, "graphic has no name");
    graphic.name.assign(reinterpret_cast<const char*>(data_ + nameStart), pos_ - nameStart);
    ++pos_;
    return readSizes(graphic, total);
  }

  // "<total>,<row bytes>," of a graphic.
  bool readSizes(ZplGraphic& graphic, size_t& total) {
    const size_t totalAt = pos_;
    if (!readNumber("total size", kZplMaxGraphicBytes, total)) return false;
    const size_t rowAt = pos_;
    if (!readNumber("row size", kZplMaxBytesPerRow, graphic.bytesPerRow)) return false;
    if (total == 0) return fail(totalAt, "graphic \"%s\" has a total size of 0 bytes", graphic.name.c_str());
    if (graphic.bytesPerRow == 0) return fail(rowAt, "graphic \"%s\" has a row size of 0 bytes", graphic.name.c_str());
    if (total % graphic.bytesPerRow != 0)
      return fail(totalAt, "total size %zu is not a multiple of the row size %zu", total, graphic.bytesPerRow);
    if (total > kZplMaxJobGraphicBytes - jobBytes_)
      return fail(totalAt, "the graphics of the job exceed the limit of %zu bytes together", kZplMaxJobGraphicBytes);
    jobBytes_ += total;
    graphic.height = total / graphic.bytesPerRow;
    return true;
  }

  // A decimal number closed by a comma.
  bool readNumber(const char* what, size_t limit, size_t& value) {
    const size_t start = pos_;
    value = 0;
    while (pos_ < size_ && data_[pos_] >= '0' && data_[pos_] <= '9') {
      value = value * 10 + (data_[pos_] - '0');
      if (value > limit) return fail(start, "%s of the graphic is larger than the limit of %zu bytes", what, limit);
      ++pos_;
    }
    if (pos_ == size_) return fail(pos_, "the job ends inside the header of a graphic");
    if (data_[pos_] != ',') return fail(pos_, "unexpected character %s in the %s", describe(data_[pos_]).c_str(), what);
    if (pos_ == start) return fail(pos_, "the %s of the graphic is missing", what);
    ++pos_;
    return true;
  }

  bool readData(ZplGraphic& graphic, size_t total) {
    const size_t rowBytes = graphic.bytesPerRow;
    const size_t rowDigits = 2 * rowBytes;
    std::vector<unsigned char> row(rowBytes, 0);
    size_t digits = 0;  // digits of the current row so far
    size_t rowsDone = 0;
    graphic.rows.reserve(total < (1u << 20) ? total : (1u << 20));

    auto put = [&](unsigned value, size_t times) {
      for (; times > 0; --times, ++digits) {
        unsigned char& b = row[digits / 2];
        b = (digits % 2 == 0) ? static_cast<unsigned char>(value << 4) : static_cast<unsigned char>(b | value);
      }
    };
    auto endRow = [&]() {
      graphic.rows.insert(graphic.rows.end(), row.begin(), row.end());
      ++rowsDone;
      digits = 0;
    };

    while (rowsDone < graphic.height) {
      if (pos_ == size_ || data_[pos_] == '^' || data_[pos_] == '~')
        return fail(pos_, "graphic \"%s\" is truncated after %zu of %zu bytes", graphic.name.c_str(),
                    rowsDone * rowBytes + digits / 2, total);
      const unsigned char c = data_[pos_];
      if (c == '\r' || c == '\n') {
        ++pos_;
      } else if (isHexDigit(c)) {
        put(hexValue(c), 1);
        ++pos_;
      } else if (repeatValue(c) != 0) {
        const size_t start = pos_;
        size_t count = 0;
        for (; pos_ < size_ && repeatValue(data_[pos_]) != 0; ++pos_) {
          count += repeatValue(data_[pos_]);
          if (count > rowDigits - digits) return fail(start, "repeat count runs past the end of the row");
        }
        if (pos_ == size_ || !isHexDigit(data_[pos_]))
          return fail(pos_, "repeat count is not followed by a hex digit");
        put(hexValue(data_[pos_]), count);
        ++pos_;
      } else if (c == ',' || c == '!') {
        // "," clears the rest of the row, "!" sets every remaining dot.
        put(c == ',' ? 0x0 : 0xF, rowDigits - digits);
        ++pos_;
      } else if (c == ':') {
        if (digits != 0) return fail(pos_, "':' in the middle of a row");
        if (rowsDone == 0) return fail(pos_, "':' on the first row has no row to repeat");
        // `row` still holds the previous row.
        digits = rowDigits;
        ++pos_;
      } else {
        return fail(pos_, "unexpected character %s in the data of graphic \"%s\"", describe(c).c_str(),
                    graphic.name.c_str());
      }
      if (digits == rowDigits) endRow();
    }
    return true;
  }

  // After the declared bytes only line breaks and the next command may follow;
  // anything else means the sender and the header disagree.
  bool checkEnd(const ZplGraphic& graphic) {
    while (pos_ < size_ && (data_[pos_] == '\r' || data_[pos_] == '\n')) ++pos_;
    if (pos_ < size_ && data_[pos_] != '^' && data_[pos_] != '~')
      return fail(pos_, "data of graphic \"%s\" continues past its declared size", graphic.name.c_str());
    return true;
  }

  const unsigned char* data_;
  size_t size_;
  size_t pos_ = 0;
  size_t jobBytes_ = 0;
  std::string error_;
  long labelWidth_ = -1;
  long labelLength_ = -1;
  bool openedWithXA_ = false;
};

}  // namespace

bool kelvoZplDecode(const unsigned char* data, size_t size, std::vector<ZplGraphic>& graphics, std::string& error) {
  if (data == nullptr) size = 0;
  Decoder decoder(data, size);
  return decoder.run(graphics, error);
}

size_t kelvoZplCountDots(const ZplGraphic& graphic) {
  size_t dots = 0;
  for (unsigned char b : graphic.rows) dots += static_cast<size_t>(__builtin_popcount(b));
  return dots;
}
