#include "support/z64.h"

#include <zlib.h>

#include <cstdio>

namespace {

const char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

void appendBase64(const unsigned char* data, size_t size, std::string& out) {
  out.reserve(out.size() + (size + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= size; i += 3) {
    const uint32_t v = (uint32_t{data[i]} << 16) | (uint32_t{data[i + 1]} << 8) | data[i + 2];
    out += kBase64[v >> 18];
    out += kBase64[(v >> 12) & 63];
    out += kBase64[(v >> 6) & 63];
    out += kBase64[v & 63];
  }
  if (i < size) {
    const bool two = i + 1 < size;
    const uint32_t v = (uint32_t{data[i]} << 16) | (two ? uint32_t{data[i + 1]} << 8 : 0);
    out += kBase64[v >> 18];
    out += kBase64[(v >> 12) & 63];
    out += two ? kBase64[(v >> 6) & 63] : '=';
    out += '=';
  }
}

int base64Value(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

}  // namespace

uint16_t kelvoCrc16(const unsigned char* text, size_t size) {
  uint16_t crc = 0;
  for (size_t i = 0; i < size; ++i) {
    crc = static_cast<uint16_t>(crc ^ (text[i] << 8));
    for (int bit = 0; bit < 8; ++bit)
      crc = static_cast<uint16_t>((crc & 0x8000) != 0 ? (crc << 1) ^ 0x1021 : crc << 1);
  }
  return crc;
}

bool kelvoZ64Encode(const unsigned char* data, size_t size, std::string& out) {
  uLongf packedSize = compressBound(static_cast<uLong>(size));
  std::vector<unsigned char> packed(packedSize);
  // The default level: within a few per cent of the best on label pages at a
  // fraction of its time.
  if (compress2(packed.data(), &packedSize, data, static_cast<uLong>(size), Z_DEFAULT_COMPRESSION) != Z_OK)
    return false;
  out = ":Z64:";
  const size_t start = out.size();
  appendBase64(packed.data(), packedSize, out);
  const uint16_t crc = kelvoCrc16(reinterpret_cast<const unsigned char*>(out.data()) + start, out.size() - start);
  char tail[8];
  std::snprintf(tail, sizeof tail, ":%04X", crc);
  out += tail;
  return true;
}

bool kelvoBase64Decode(const unsigned char* text, size_t size, std::vector<unsigned char>& out, size_t& badAt) {
  out.clear();
  out.reserve(size / 4 * 3);
  uint32_t acc = 0;
  int bits = 0;
  size_t i = 0;
  for (; i < size && text[i] != '='; ++i) {
    const int v = base64Value(text[i]);
    if (v < 0) {
      badAt = i;
      return false;
    }
    acc = (acc << 6) | static_cast<uint32_t>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<unsigned char>(acc >> bits));
    }
  }
  // Padding: at most two '=', only at the end, and only where bits are left.
  const size_t pad = size - i;
  for (size_t j = i; j < size; ++j) {
    if (text[j] != '=' || pad > 2) {
      badAt = j;
      return false;
    }
  }
  if ((i % 4) == 1) {  // one character cannot hold a byte
    badAt = i == 0 ? 0 : i - 1;
    return false;
  }
  return true;
}
