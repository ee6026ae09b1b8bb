#include "inspect/escape.h"

#include <gtest/gtest.h>

namespace Kestrun::Inspect {
namespace {

TEST(IsUtf8, TakesWellFormedCharactersOnly) {
  const struct {
    std::string bytes;
    bool good;
  } rows[] = {
      {"", true},
      {std::string("a\0b", 3), true},
      {"\xC3\xA9", true},              // é
      {"\xE2\x82\xAC", true},          // the euro sign
      {"\xF0\x9F\x98\x80", true},      // beyond the 16-bit characters
      {"\xF4\x8F\xBF\xBF", true},      // U+10FFFF
      {"\xF4\x90\x80\x80", false},     // one more
      {"\x80", false},                 // a continuation alone
      {"\xC3", false},                 // cut short
      {"\xE2\x82", false},             // cut short
      {"\xC0\x80", false},             // NUL, too long
      {"\xC1\xBF", false},             // too long
      {"\xE0\x9F\xBF", false},         // too long
      {"\xF0\x8F\xBF\xBF", false},     // too long
      {"\xED\xA0\x80", false},         // a surrogate
      {"\xED\x9F\xBF", true},          // the last before the surrogates
      {"\xEE\x80\x80", true},          // the first behind them
      {"\xFF", false},                 //
      {"\xF8\x88\x80\x80\x80", false}  // five bytes
  };
  for (const auto& row : rows) EXPECT_EQ(IsUtf8(row.bytes), row.good) << Hex(row.bytes);
}

TEST(Printable, LeavesTextAndNothingElse) {
  EXPECT_EQ(Printable("plain text, \xC3\xA9"), "plain text, \xC3\xA9");
  EXPECT_EQ(Printable("a\nb\rc\td\\e"), "a\\nb\\rc\\td\\\\e");
  EXPECT_EQ(Printable(std::string("\0\x1B[2J\x7F", 6)), "\\x00\\x1b[2J\\x7f");
  EXPECT_EQ(Printable("\xC2\x9B"), "\\xc2\\x9b");           // a control character of two bytes
  EXPECT_EQ(Printable("\xE2\x80\xAE"), "\\xe2\\x80\\xae");  // turns the writing direction
  EXPECT_EQ(Printable("x\xFFy"), "x\\xffy");
}

TEST(Printable, KeepsDifferentBytesApart) {
  EXPECT_NE(Printable("\n"), Printable("\\n"));
  EXPECT_NE(Printable("\xFF"), Printable("\\xff"));
}

TEST(UtcTime, GivesDatesWhereThereAreSome) {
  EXPECT_EQ(UtcTime(0), "1970-01-01T00:00:00Z");
  EXPECT_EQ(UtcTime(1325376000), "2012-01-01T00:00:00Z");
  EXPECT_EQ(UtcTime(253402300799), "9999-12-31T23:59:59Z");
  EXPECT_EQ(UtcTime(253402300800), "253402300800");
  EXPECT_EQ(UtcTime(UINT64_MAX), "18446744073709551615");
}

}  // namespace
}  // namespace Kestrun::Inspect
