#include "storage/block_name.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <set>
#include <string>

#include "tests/support/child_process.h"

namespace Kestrun {
namespace {

using Testing::ChildLink;
using Testing::ChildProcess;

constexpr char kLetters[] = "1234567890ABCDEFGHIJKLMNOPQRSTUVWXYZ";

// 31 letters as rand draws them next.
std::string DrawName() {
  std::string name;
  while (name.size() < 31) name += kLetters[std::rand() % 36];
  return name;
}

// In a process of its own: in this one the generator may have been seeded already.
TEST(BlockNameTest, TheFirstCallSeedsTheGeneratorWithTheTimeAndTheOthersDont) {
  ChildProcess child([](ChildLink&) {
    const std::time_t before = std::time(nullptr);
    const std::string first = MakeBlockFileName();
    const std::string second = MakeBlockFileName();
    const std::time_t after = std::time(nullptr);
    bool drawn = false;
    for (std::time_t seed = before; seed <= after; ++seed) {
      std::srand(static_cast<unsigned>(seed));
      if (DrawName() == first && DrawName() == second) drawn = true;
    }
    if (!drawn) return 1;

    std::srand(7);
    const std::string expected = DrawName();
    std::srand(7);
    return MakeBlockFileName() == expected ? 0 : 2;
  });
  EXPECT_EQ(child.Wait(), 0);
}

TEST(BlockNameTest, Is31DigitsAndCapitalLetters) {
  std::set<std::string> names;
  for (int i = 0; i < 1000; ++i) {
    const std::string name = MakeBlockFileName();
    EXPECT_EQ(name.size(), 31u);
    EXPECT_EQ(name.find_first_not_of(kLetters), std::string::npos) << name;
    names.insert(name);
  }
  EXPECT_EQ(names.size(), 1000u);
}

// In two processes, which would draw the same names.
TEST(BlockNameTest, NamesSetApartDifferBetweenProcessesAndFromOneMomentToTheNext) {
  const std::string drawn = "ABCDEFGHIJKLMNOPQRSTUVWXYZ12345";
  ChildProcess child(
      [&](ChildLink& parent) { return parent.Send(MakeUniqueAcrossProcesses(drawn)) ? 0 : 1; });
  std::string elsewhere;
  ASSERT_TRUE(child.Receive(&elsewhere));
  EXPECT_EQ(child.Wait(), 0);
  const std::string here = MakeUniqueAcrossProcesses(drawn);
  for (const std::string& name : {here, elsewhere}) {
    EXPECT_EQ(name.size(), 31u);
    EXPECT_EQ(name.find_first_not_of(kLetters), std::string::npos) << name;
    EXPECT_EQ(name.substr(0, 15), drawn.substr(0, 15));
  }
  EXPECT_NE(here.substr(26), elsewhere.substr(26)) << "the processes";
  std::string later;
  do {
    later = MakeUniqueAcrossProcesses(drawn);
  } while (later == here);  // the clock goes on
  EXPECT_EQ(later.substr(26), here.substr(26));
}

}  // namespace
}  // namespace Kestrun
