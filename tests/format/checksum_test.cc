#include "format/checksum.h"

#include <gtest/gtest.h>

#include <string>

namespace Kestrun {
namespace {

uint32_t SumOf(const std::string& bytes) {
  return StoreChecksum(bytes.data(), bytes.size());
}

TEST(ChecksumTest, IsTheSeedPlusEveryByte) {
  EXPECT_EQ(SumOf(""), 0xBC9F1D34u);
  EXPECT_EQ(SumOf(std::string("\0\0", 2)), 0xBC9F1D34u);
  EXPECT_EQ(SumOf("\x01"), 0xBC9F1D35u);
  EXPECT_EQ(SumOf("abc"), 0xBC9F1D34u + 97 + 98 + 99);
  EXPECT_EQ(SumOf("cba"), SumOf("abc")) << "the order of the bytes does not count";
}

TEST(ChecksumTest, TakesBytesUnsigned) {
  EXPECT_EQ(SumOf("\xFF\x80"), 0xBC9F1D34u + 255 + 128);
}

TEST(ChecksumTest, WrapsAround) {
  // 0xFFFFFFFF - 0xBC9F1D34 is 255 times 4,433,031 and 82.
  EXPECT_EQ(SumOf(std::string(4433031, '\xFF') + '\x52'), 0xFFFFFFFFu);
  EXPECT_EQ(SumOf(std::string(4433031, '\xFF') + '\x53'), 0u);
}

// Whatever is added at a time, at every length and alignment.
TEST(ChecksumTest, IsTheSameAsTheSumByteByByte) {
  std::string bytes;
  for (unsigned i = 0; i < 4000; ++i) bytes += static_cast<char>(i % 3 == 0 ? 0xFF : i * 37);
  for (size_t start = 0; start < 9; ++start) {
    uint32_t sum = 0xBC9F1D34;
    for (size_t size = 0; start + size < bytes.size(); ++size) {
      ASSERT_EQ(StoreChecksum(bytes.data() + start, size), sum) << start << ' ' << size;
      sum += static_cast<uint8_t>(bytes[start + size]);
    }
  }
}

}  // namespace
}  // namespace Kestrun
