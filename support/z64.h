#pragma once
// The ":Z64:" form of ZPL graphic data: the bytes deflated with zlib, encoded
// in base64, followed by ':' and the CRC-16 (CCITT polynomial 0x1021, start
// 0) of the base64 text as four hex digits. Printers check the CRC and refuse
// data that does not match it.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// ":Z64:<base64>:<crc>" for `size` bytes at `data`; false when zlib fails.
bool kelvoZ64Encode(const unsigned char* data, size_t size, std::string& out);

// CRC-16/CCITT as ZPL computes it over encoded graphic data.
uint16_t kelvoCrc16(const unsigned char* text, size_t size);

// Base64 (RFC 4648, with or without '=' padding) to bytes. On malformed text
// returns false and sets `badAt` to the offset of the first offending character.
bool kelvoBase64Decode(const unsigned char* text, size_t size, std::vector<unsigned char>& out, size_t& badAt);
