#include "format/crc32c.h"

#include <gtest/gtest.h>

#include <string>

namespace Kestrun {
namespace {

// One bit at a time, as the definition says.
uint32_t ByDefinition(const std::string& bytes) {
  uint32_t crc = 0xFFFFFFFF;
  for (const char byte : bytes) {
    crc ^= static_cast<unsigned char>(byte);
    for (int i = 0; i < 8; ++i) crc = crc >> 1 ^ ((crc & 1) != 0 ? 0x82F63B78 : 0);
  }
  return ~crc;
}

TEST(Crc32cTest, GivesTheValuesOfTheInternetStandardThatNamesIt) {
  const struct {
    std::string bytes;
    uint32_t crc;
  } rows[] = {{"", 0},
              {"123456789", 0xE3069283},
              {std::string(32, '\0'), 0x8A9136AA},
              {std::string(32, '\xFF'), 0x62A8AB43}};
  for (const auto& row : rows) EXPECT_EQ(Crc32c(row.bytes.data(), row.bytes.size()), row.crc) << row.bytes;
}

TEST(Crc32cTest, IsTheSameInPiecesOfAnySizeAndAlignment) {
  std::string bytes;
  for (int i = 0; i < 100; ++i) bytes += static_cast<char>(i * 37);
  for (size_t begin = 0; begin < 9; ++begin) {
    for (size_t size = 0; begin + size <= bytes.size(); ++size) {
      const std::string piece = bytes.substr(begin, size);
      const uint32_t expected = ByDefinition(piece);
      EXPECT_EQ(Crc32c(bytes.data() + begin, size), expected);
      EXPECT_EQ(Crc32cByTables(bytes.data() + begin, size), expected);
      const size_t half = size / 2;
      const uint32_t first = Crc32c(bytes.data() + begin, half);
      EXPECT_EQ(Crc32c(bytes.data() + begin + half, size - half, first), expected);
    }
  }
}

}  // namespace
}  // namespace Kestrun
