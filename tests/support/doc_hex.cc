#include "tests/support/doc_hex.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "tests/support/file_bytes.h"

namespace Kestrun::Testing {

std::string ReadDocHex(const std::string& pagePath, const std::string& title) {
  std::ifstream page(pagePath);
  EXPECT_TRUE(page.is_open()) << pagePath;
  std::string line;
  while (std::getline(page, line) && line != "```hex " + title) {
  }
  EXPECT_TRUE(page.good()) << "no block " << title << " in " << pagePath;

  std::string bytes;
  bool gap = false;
  while (std::getline(page, line) && line != "```") {
    if (line == "*") {
      gap = true;
      continue;
    }
    const size_t colon = line.find(':');
    EXPECT_NE(colon, std::string::npos) << line;
    if (colon == std::string::npos) break;
    const size_t offset = std::stoul(line.substr(0, colon), nullptr, 16);
    EXPECT_TRUE(gap ? offset > bytes.size() : offset == bytes.size()) << line;
    if (gap) bytes.resize(offset);
    gap = false;
    bytes += FromHex(line.substr(colon + 1));
  }
  return bytes;
}

std::string ToHexBlock(const std::string& bytes) {
  std::string lines;
  for (size_t offset = 0; offset < bytes.size(); offset += 16) {
    char start[24];
    std::snprintf(start, sizeof(start), "%04zx: ", offset);
    lines += start + ToHex(bytes.substr(offset, 16)) + "\n";
  }
  return lines;
}

}  // namespace Kestrun::Testing
