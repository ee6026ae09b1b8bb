#include "format/key_filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "base/key_bytes.h"
#include "tests/support/file_bytes.h"
#include "tests/support/random_run.h"

namespace Kestrun {
namespace {

using Testing::TestRandom;
using Testing::ToHex;

constexpr uint32_t kSeed = 0xBC9F1D34;

// The hash once more, from its description and not from its code: 64-bit numbers, reduced to 32 bits.
uint32_t DescribedHash(const std::string& bytes, uint32_t seed) {
  const auto reduce = [](uint64_t number) { return number % 4294967296u; };
  const auto byte = [&](size_t i) { return static_cast<uint64_t>(static_cast<unsigned char>(bytes[i])); };
  constexpr uint64_t kMultiplier = 3332679571;
  uint64_t hash = seed ^ reduce(bytes.size() * kMultiplier);
  size_t i = 0;
  for (; bytes.size() - i >= 4; i += 4) {
    const uint64_t word = byte(i) + byte(i + 1) * 256 + byte(i + 2) * 65536 + byte(i + 3) * 16777216;
    hash = reduce(reduce(hash + word) * kMultiplier);
    hash ^= hash / 65536;
  }
  if (i == bytes.size()) return static_cast<uint32_t>(hash);
  uint64_t rest = 0;
  for (size_t j = bytes.size(); j > i; --j) rest = rest * 256 + byte(j - 1);
  hash = reduce(reduce(hash + rest) * kMultiplier);
  hash ^= hash / 16777216;
  return static_cast<uint32_t>(hash);
}

// The numbers of the bits that a key sets, one by one.
std::vector<uint64_t> DescribedBits(uint32_t hash, uint64_t bits) {
  const uint64_t delta = hash / 131072 + (hash % 131072) * 32768;  // rotated right by 17
  std::vector<uint64_t> numbers;
  for (uint64_t j = 0; j < 5; ++j) numbers.push_back((hash + j * delta) % 4294967296u % bits);
  return numbers;
}

uint32_t HashOf(const std::string& bytes, uint32_t seed = kSeed) {
  return FilterHash(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), seed);
}

std::vector<uint32_t> HashesOfNumbers(int count) {
  std::vector<uint32_t> hashes;
  for (int i = 0; i < count; ++i) hashes.push_back(HashOf("key" + std::to_string(i)));
  return hashes;
}

std::string TextOf(const std::vector<uint8_t>& bytes) {
  return std::string(bytes.begin(), bytes.end());
}

TEST(FilterHashTest, GivesTheNumbersThatFiltersOnDiskWereMadeWith) {
  const struct {
    std::string bytes;
    uint32_t hash;
  } rows[] = {
      {"", 0xBC9F1D34},
      {"a", 0x286E9DB0},
      {"ab", 0x39ACA330},
      {"abc", 0x855D012F},
      {"abcd", 0xB9C83353},
      {"abcde", 0x41D2C26D},
      {"user", 0x86ECE3FB},
      {"user-42", 0x1C1ED3E8},
      {"seattle-2012-01-01", 0x4A349B92},
      {"\xFF", 0xC20E0A90},
      {std::string("\0\0\0\0", 4), 0x3365F68D},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(HashOf(row.bytes), row.hash) << row.bytes;
    EXPECT_EQ(DescribedHash(row.bytes, kSeed), row.hash) << row.bytes;
  }
}

TEST(FilterHashTest, FollowsItsDescriptionForBytesOfEveryLengthAndSeed) {
  std::mt19937_64 random = TestRandom(1);
  for (size_t length = 0; length < 300; ++length) {
    std::string bytes(length, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    for (const uint32_t seed : {kSeed, 0u, 0xFFFFFFFFu, static_cast<uint32_t>(random())}) {
      ASSERT_EQ(HashOf(bytes, seed), DescribedHash(bytes, seed)) << ToHex(bytes) << " seed " << seed;
    }
  }
  const std::string longest(65535, '\xA5');
  EXPECT_EQ(HashOf(longest), DescribedHash(longest, kSeed));
}

TEST(FilterHashTest, BytesAreUnsigned) {
  EXPECT_EQ(HashOf("\xFF"), DescribedHash("\xFF", kSeed));
  EXPECT_EQ(HashOf("\x80\x81\x82"), DescribedHash("\x80\x81\x82", kSeed));
}

TEST(KeyHashTest, IsTheHashOfTheKeysBytesUnderTheSeedOfTheStore) {
  for (const char* key : {"", "k", "user-42", "a key that is longer than what fits into it"}) {
    EXPECT_EQ(KeyHash(BytesOf(Key(key))), HashOf(key)) << key;
  }
  Key moved("a key that is longer than what fits into it");
  const Key taken = std::move(moved);
  EXPECT_EQ(KeyHash(BytesOf(moved)), HashOf(""));
}

TEST(BuildKeyFilterTest, HasEightBitsForEachKeyWithinItsBounds) {
  const struct {
    int keys;
    size_t bytes;  // of the bit array
  } rows[] = {{0, 8},     {1, 8},       {7, 8},       {8, 8},       {9, 9},
              {100, 100}, {4095, 4095}, {4096, 4096}, {4097, 4096}, {10000, 4096}};
  for (const auto& row : rows) {
    const std::vector<uint8_t> filter = BuildKeyFilter(HashesOfNumbers(row.keys));
    EXPECT_EQ(filter.size(), row.bytes + 1) << row.keys;
    EXPECT_EQ(filter.back(), 5) << row.keys;
  }
}

TEST(BuildKeyFilterTest, OfNoKeysIsEightZeroBytesAndTheNumberOfProbes) {
  EXPECT_EQ(ToHex(TextOf(BuildKeyFilter({}))), "00 00 00 00 00 00 00 00 05");
}

TEST(BuildKeyFilterTest, GivesTheBytesThatFiltersOnDiskHave) {
  EXPECT_EQ(ToHex(TextOf(BuildKeyFilter({HashOf("user-42"), HashOf("user")}))), "40 00 28 20 90 01 82 08 05");
}

TEST(BuildKeyFilterTest, SetsTheDescribedBitsAndNoOthers) {
  for (const int count : {1, 2, 8, 9, 50, 1000, 5000}) {
    const std::vector<uint32_t> hashes = HashesOfNumbers(count);
    const std::vector<uint8_t> filter = BuildKeyFilter(hashes);
    std::vector<uint8_t> expected(filter.size());
    expected.back() = 5;
    for (const uint32_t hash : hashes) {
      for (const uint64_t bit : DescribedBits(hash, (filter.size() - 1) * 8)) {
        expected[bit / 8] = static_cast<uint8_t>(expected[bit / 8] | 1 << bit % 8);
      }
    }
    EXPECT_EQ(filter, expected) << count;
  }
}

TEST(KeyFilterTest, HoldsEveryKeyItWasBuiltFromAndFewOthers) {
  for (const int count : {1, 10, 100, 4096, 10000}) {
    const std::vector<uint32_t> hashes = HashesOfNumbers(count);
    const std::vector<uint8_t> filter = BuildKeyFilter(hashes);
    EXPECT_TRUE(std::all_of(hashes.begin(), hashes.end(),
                            [&](uint32_t hash) { return KeyFilterMayContain(hash, filter); }));
    int passed = 0;
    for (int i = 0; i < 1000; ++i) passed += KeyFilterMayContain(HashOf("no" + std::to_string(i)), filter);
    // 8 bits and 5 probes for a key let 2 in 100 pass; more keys than bits for them let more pass.
    EXPECT_LT(passed, count <= 4096 ? 60 : 400) << count;
  }
}

TEST(KeyFilterTest, OfFewerThanTwoBytesHoldsNothing) {
  EXPECT_FALSE(KeyFilterMayContain(1, {}));
  for (const int byte : {0, 5, 31, 255}) {
    EXPECT_FALSE(KeyFilterMayContain(1, {static_cast<uint8_t>(byte)})) << byte;
  }
}

TEST(KeyFilterTest, WithNoProbesOrWithMoreThan30HoldsEverything) {
  for (int probes = 0; probes <= 255; ++probes) {
    const auto last = static_cast<uint8_t>(probes);
    const bool everything = probes == 0 || probes > 30;
    EXPECT_EQ(KeyFilterMayContain(12345, {0, 0, 0, 0, 0, 0, 0, 0, last}), everything) << probes;
    EXPECT_TRUE(KeyFilterMayContain(12345, {255, 255, 255, last})) << probes;
  }
}

TEST(KeyFilterTest, LooksAtAsManyBitsAsItsLastByteSays) {
  const uint32_t hash = HashOf("key");
  const std::vector<uint64_t> bits = DescribedBits(hash, 1024);
  std::vector<uint8_t> filter(129);
  for (uint8_t probes = 1; probes <= 5; ++probes) {
    filter[bits[probes - 1u] / 8] |= static_cast<uint8_t>(1 << bits[probes - 1u] % 8);
    for (uint8_t asked = 1; asked <= 5; ++asked) {
      filter.back() = asked;
      EXPECT_EQ(KeyFilterMayContain(hash, filter), asked <= probes) << int{probes} << " " << int{asked};
    }
  }
}

TEST(KeyFilterTest, OfAnyLengthIsReadWithinItsBounds) {
  std::mt19937_64 random = TestRandom(2);
  for (size_t size = 2; size < 200; ++size) {
    std::vector<uint8_t> filter(size, 0xFF);
    filter.back() = static_cast<uint8_t>(1 + random() % 30);
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(KeyFilterMayContain(static_cast<uint32_t>(random()), filter));
  }
}

}  // namespace
}  // namespace Kestrun
