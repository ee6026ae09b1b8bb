#include "kestrun/key.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/support/random_run.h"

namespace Kestrun {
namespace {

using Testing::TestRandom;

std::string TextOf(const Key& key) {
  return std::string(reinterpret_cast<const char*>(key.Data()), key.Size());
}

// Whether the key holds its bytes within itself.
bool IsInline(const Key& key) {
  const auto* begin = reinterpret_cast<const unsigned char*>(&key);
  return key.Data() >= begin && key.Data() < begin + sizeof(key);
}

const char kLong[] = "a key that is longer than what fits into it";

TEST(KeyTest, HoldsUpTo15BytesWithinItselfAndLongerOnesOutside) {
  for (size_t length = 0; length <= 40; ++length) {
    const std::string text(length, 'k');
    const Key key(text);
    EXPECT_EQ(key.Size(), length);
    EXPECT_EQ(TextOf(key), text);
    EXPECT_EQ(IsInline(key), length <= 15) << length;
    const Key copy(key);
    EXPECT_EQ(TextOf(copy), text);
    EXPECT_NE(copy.Data(), key.Data());
    EXPECT_TRUE(copy == key);
    EXPECT_FALSE(copy != key);
    EXPECT_FALSE(copy < key);
  }
}

TEST(KeyTest, KeepsItsOwnCopyOfTheBytes) {
  for (const size_t length : {5, 15, 16, 300}) {
    std::string text(length, 'k');
    const Key key(reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned short>(length));
    text[0] = 'x';
    EXPECT_EQ(key.Data()[0], 'k') << length;
  }
}

TEST(KeyTest, HoldsBytesOfEveryValue) {
  std::string text;
  for (int byte = 0; byte < 256; ++byte) text += static_cast<char>(byte);
  EXPECT_EQ(TextOf(Key(text)), text);
  EXPECT_EQ(TextOf(Key(reinterpret_cast<const unsigned char*>(text.data()), 10)), text.substr(0, 10));
  EXPECT_EQ(TextOf(Key(std::string("a\0b", 3))), std::string("a\0b", 3));
  EXPECT_EQ(TextOf(Key("a\0b")), "a") << "a text ends at its NUL";
}

TEST(KeyTest, OnlyTheLow16BitsOfALengthCount) {
  const struct {
    size_t length;
    unsigned short size;
  } rows[] = {{65535, 65535}, {65536, 0}, {65537, 1}, {65536 + 20, 20}, {2 * 65536 + 7, 7}};
  for (const auto& row : rows) {
    const std::string text(row.length, 'k');
    EXPECT_EQ(Key(text).Size(), row.size) << row.length;
    EXPECT_EQ(Key(text.c_str()).Size(), row.size) << row.length;
    EXPECT_EQ(TextOf(Key(text)), text.substr(0, row.size)) << row.length;
  }
}

TEST(KeyTest, OfNothingIsEmpty) {
  EXPECT_EQ(Key("").Size(), 0);
  EXPECT_EQ(Key(std::string()).Size(), 0);
  EXPECT_EQ(Key(static_cast<const char*>(nullptr)).Size(), 0);
  EXPECT_EQ(Key(nullptr, 0).Size(), 0);
  EXPECT_EQ(Key(nullptr, 7).Size(), 0) << "without bytes there is no key";
  EXPECT_EQ(Key(nullptr, 70).Size(), 0);
  EXPECT_NE(Key("").Data(), nullptr);
}

TEST(KeyTest, IsOrderedByUnsignedBytesAndAPrefixComesFirst) {
  const std::vector<std::string> ascending = {"",
                                              std::string("\0", 1),
                                              std::string("\0\0", 2),
                                              std::string("\0a", 2),
                                              "a",
                                              "ab",
                                              "abc",
                                              "abd",
                                              "b",
                                              "\x7F",
                                              "\x80",
                                              "\xFF",
                                              std::string("\xFF\0", 2),
                                              "\xFF\xFF"};
  for (size_t i = 0; i < ascending.size(); ++i) {
    for (size_t j = 0; j < ascending.size(); ++j) {
      // Long keys are ordered like short ones.
      for (const std::string& head : {std::string(), std::string(40, 'h')}) {
        const Key left(head + ascending[i]);
        const Key right(head + ascending[j]);
        EXPECT_EQ(left < right, i < j) << i << " " << j;
        EXPECT_EQ(left == right, i == j) << i << " " << j;
        EXPECT_EQ(left != right, i != j) << i << " " << j;
      }
    }
  }
}

TEST(KeyTest, IsOrderedAsStringsOfUnsignedBytesAre) {
  std::mt19937_64 random = TestRandom(1);
  const auto draw = [&] {
    std::string text(random() % 20, '\0');
    for (char& byte : text) byte = static_cast<char>(random() % 3 * 127);
    return text;
  };
  for (int round = 0; round < 20000; ++round) {
    const std::string left = draw();
    const std::string right = draw();
    ASSERT_EQ(Key(left) < Key(right), std::basic_string<unsigned char>(left.begin(), left.end()) <
                                          std::basic_string<unsigned char>(right.begin(), right.end()));
    ASSERT_EQ(Key(left) == Key(right), left == right);
  }
}

TEST(KeyTest, EqualsItselfBeforeAnyByteIsRead) {
  Key key(kLong);
  const Key taken(std::move(key));
  EXPECT_EQ(key.Data(), nullptr);
  const Key& same = key;
  EXPECT_TRUE(key == same);
  EXPECT_FALSE(key != same);
  EXPECT_FALSE(key < same);
}

TEST(KeyMoveTest, ALongKeyLeavesItsSizeAndNoBytes) {
  Key source(kLong);
  const unsigned char* const bytes = source.Data();
  const Key target(std::move(source));
  EXPECT_EQ(target.Data(), bytes) << "taken over, not copied";
  EXPECT_EQ(TextOf(target), kLong);
  EXPECT_EQ(source.Size(), sizeof(kLong) - 1);
  EXPECT_EQ(source.Data(), nullptr);
}

TEST(KeyMoveTest, AShortKeyIsCopiedAndStays) {
  Key source("short");
  const Key target(std::move(source));
  EXPECT_EQ(TextOf(target), "short");
  EXPECT_EQ(TextOf(source), "short");
}

TEST(KeyMoveTest, AKeyWithoutItsBytesBehavesAsTheEmptyKey) {
  Key source(kLong);
  const Key target(std::move(source));
  EXPECT_TRUE(source == Key(""));
  EXPECT_TRUE(Key("") == source);
  EXPECT_TRUE(source != target);
  EXPECT_TRUE(source < Key("a"));
  EXPECT_FALSE(Key("a") < source);
  EXPECT_FALSE(source < Key(""));
  EXPECT_FALSE(Key("") < source);
  EXPECT_EQ(Key(source).Size(), 0);
  EXPECT_EQ(source.GetPrimary().Size(), 0);
  Key assigned("x");
  assigned = source;
  EXPECT_EQ(assigned.Size(), 0);
  const Key again(std::move(source));
  EXPECT_EQ(again.Data(), nullptr);
}

TEST(KeyAssignTest, CopiesAndMovesBetweenKeysOfEveryLength) {
  const std::vector<std::string> texts = {"", "short", "exactly 15 byte", "exactly 16 bytes", kLong};
  for (const std::string& from : texts) {
    for (const std::string& to : texts) {
      const Key source(from);
      Key copied(to);
      copied = source;
      EXPECT_EQ(TextOf(copied), from) << to;
      EXPECT_EQ(TextOf(source), from);
      Key moved(to);
      moved = Key(from);
      EXPECT_EQ(TextOf(moved), from) << to;
    }
  }
}

TEST(KeyAssignTest, ToItselfChangesNothing) {
  for (const char* text : {"short", kLong}) {
    Key key(text);
    Key& same = key;
    key = same;
    EXPECT_EQ(TextOf(key), text);
    key = std::move(same);
    EXPECT_EQ(TextOf(key), text);
  }
}

TEST(KeyTest, LivesInContainers) {
  static_assert(std::is_nothrow_move_constructible_v<Key> && std::is_nothrow_move_assignable_v<Key>);
  static_assert(sizeof(Key) == 24);
  std::vector<Key> keys;
  std::map<Key, int> map;
  for (int i = 0; i < 100; ++i) {
    const std::string text(static_cast<size_t>(i * 7 % 40), static_cast<char>('a' + i % 26));
    keys.emplace_back(text);
    map.emplace(text, i);
  }
  std::sort(keys.begin(), keys.end());
  EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
  for (const Key& key : keys) EXPECT_EQ(map.count(key), 1u);
}

TEST(KeyGetPrimaryTest, IsThePartBeforeTheLastDashUnlessThatIsTheFirstByte) {
  const struct {
    const char* key;
    const char* primary;
  } rows[] = {{"user-42", "user"}, {"a-b-c", "a-b"}, {"abc-", "abc"}, {"-abc", "-abc"}, {"abc", "abc"},
              {"a", "a"},          {"", ""},         {"x-", "x"},     {"-", "-"},       {"a--b", "a-"},
              {"--", "-"},         {"-a-", "-a"},    {"a-", "a"},     {"---", "--"}};
  for (const auto& row : rows) EXPECT_EQ(TextOf(Key(row.key).GetPrimary()), row.primary) << row.key;
}

TEST(KeyGetPrimaryTest, WorksAcrossTheLengthUpToWhichAKeyHoldsItsBytes) {
  const std::string head(20, 'h');
  EXPECT_EQ(TextOf(Key(head + "-1").GetPrimary()), head);
  EXPECT_EQ(TextOf(Key("h-" + head).GetPrimary()), "h");
  EXPECT_EQ(TextOf(Key(head).GetPrimary()), head);
  EXPECT_EQ(TextOf(Key("-" + head).GetPrimary()), "-" + head);
}

TEST(KeySentinelTest, AreTheBytes00AndFF) {
  EXPECT_EQ(TextOf(Key::MinKey()), std::string("\0", 1));
  EXPECT_EQ(TextOf(Key::MaxKey()), "\xFF");
  EXPECT_EQ(&Key::MinKey(), &Key::MinKey());
  EXPECT_EQ(&Key::MaxKey(), &Key::MaxKey());
}

TEST(KeySentinelTest, LeaveOutTheEmptyKeyAndKeysThatBeginWithFF) {
  const Key beyond(std::string("\xFF\0", 2));
  EXPECT_TRUE(Key::MaxKey() < beyond);
  EXPECT_FALSE(beyond < Key::MaxKey());
  EXPECT_TRUE(Key("\xFF") == Key::MaxKey());
  EXPECT_TRUE(Key("\xFE\xFF\xFF") < Key::MaxKey());
  EXPECT_TRUE(Key::MinKey() < Key(std::string("\0\0", 2)));
  EXPECT_TRUE(Key("") < Key::MinKey());
}

}  // namespace
}  // namespace Kestrun
