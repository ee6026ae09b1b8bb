#include "inspect/type_guess.h"

#include <gtest/gtest.h>

#include "tests/inspect/forged_files.h"

namespace Kestrun::Inspect {
namespace {

using namespace Kestrun::Testing;

std::string Text(const std::string& text) {
  std::string bytes;
  Append32(&bytes, static_cast<uint32_t>(text.size()));
  return bytes + text;
}

std::string Whole(uint32_t number) {
  std::string bytes;
  Append32(&bytes, number);
  return bytes;
}

template <typename Real>
std::string RealBytes(Real number) {
  return std::string(reinterpret_cast<const char*>(&number), sizeof(number));
}

std::string RecordOf(uint16_t id, const std::string& body) {
  std::string bytes;
  Append16(&bytes, id);
  return bytes + body;
}

std::string GuessOf(const std::vector<std::string>& bodies) {
  TypeGuess guess({});
  for (const std::string& body : bodies) EXPECT_TRUE(guess.Add(RecordOf(7, body)));
  const std::vector<GuessedType> types = guess.Guess();
  EXPECT_EQ(types.size(), 1u);
  return types.empty() ? std::string() : types.front().text;
}

TEST(TypeGuessTest, FindsWhatFitsAllValues) {
  const struct {
    std::vector<std::string> bodies;
    const char* text;
  } rows[] = {
      {{Text("hello")}, "Recovered7 field1:%s"},
      {{Whole(3), Whole(70000)}, "Recovered7 field1:%i4"},
      {{RealBytes(1.5F), RealBytes(-0.25F)}, "Recovered7 field1:%f"},
      {{RealBytes(21.5), RealBytes(1e6)}, "Recovered7 field1:%d"},
      {{Text("a") + Whole(5) + Text(""), Text("") + Whole(6) + Text("b")},
       "Recovered7 field1:%s,field2:%i4,field3:%s"},
      {{Whole(1) + RealBytes(0.1) + Text("x"), Whole(2) + RealBytes(-3.0) + Text("")},
       "Recovered7 field1:%i4,field2:%d,field3:%s"},
      {{Text("a") + Text(std::string("\xFF\0", 2))}, "Recovered7 field1:%s,field2:*"},
      {{std::string("x")}, ""},
      {{Text("long"), "xy"}, ""},
  };
  for (const auto& row : rows) EXPECT_EQ(GuessOf(row.bodies), row.text);
}

TEST(TypeGuessTest, LooksAtNumbersThatAreNotKnownAndThatAStoreGives) {
  TypeGuess guess({1});
  EXPECT_FALSE(guess.Add(RecordOf(1, Text("known"))));
  EXPECT_FALSE(guess.Add(RecordOf(0, Text("none"))));
  EXPECT_FALSE(guess.Add("plain text"));
  EXPECT_FALSE(guess.Add("ab"));
  EXPECT_TRUE(guess.Add(RecordOf(2, Text("lost"))));
  ASSERT_EQ(guess.Guess().size(), 1u);
  EXPECT_EQ(guess.Guess().front().id, 2);
  EXPECT_EQ(guess.Guess().front().values, 1u);
}

TEST(TypeGuessTest, NumbersAloneAreLikelyOnlyWhereAllValuesAreRecords) {
  TypeGuess alone({});
  alone.Add(RecordOf(1, Whole(5)));
  EXPECT_TRUE(alone.IsLikely(alone.Guess().front()));
  alone.Add("plain text");
  EXPECT_FALSE(alone.IsLikely(alone.Guess().front()));
  TypeGuess withText({});
  withText.Add(RecordOf(1, Text("hello")));
  withText.Add("plain text");
  EXPECT_TRUE(withText.IsLikely(withText.Guess().front()));
}

TEST(TypeGuessTest, GivesUpOnValuesThatFitInTooManyWays) {
  std::string body;
  for (int i = 0; i < 500; ++i) body += Whole(0);
  EXPECT_EQ(GuessOf({body, body + "x"}), "");
}

}  // namespace
}  // namespace Kestrun::Inspect
