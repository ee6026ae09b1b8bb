#include "tests/support/file_bytes.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>

namespace Kestrun::Testing {

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.is_open()) << path;
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  EXPECT_TRUE(file.good()) << path;
}

std::string ToHex(const std::string& bytes) {
  std::string hex;
  for (const char byte : bytes) {
    char digits[4];
    std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    if (!hex.empty()) hex += ' ';
    hex += digits;
  }
  return hex;
}

std::string FromHex(const std::string& hex) {
  std::istringstream numbers(hex);
  std::string bytes;
  for (unsigned byte = 0; numbers >> std::hex >> byte;) bytes += static_cast<char>(byte);
  EXPECT_TRUE(numbers.eof()) << hex;
  return bytes;
}

}  // namespace Kestrun::Testing
