#pragma once
#include <fstream>
#include <iterator>
#include <string>

// The whole file; empty when it cannot be read.
inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}
