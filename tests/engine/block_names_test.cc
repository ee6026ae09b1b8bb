// The names of new blocks are drawn with the host's generator, which may give the same ones again.
#include <gtest/gtest.h>

#include <cstdlib>

#include "storage/block_name.h"
#include "tests/engine/store_fixture.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/child_process.h"

namespace Kestrun::Testing {
namespace {

class BlockNamesTest : public StoreTest {
 protected:
  // The library seeds the generator with its first name; after this the sequence is the host's.
  static void Seed() {
    MakeBlockFileName();
    std::srand(7);
  }
  static std::string NextName() {
    Seed();
    return MakeBlockFileName() + ".blk_v5";
  }
};

TEST_F(BlockNamesTest, ProcessesThatDrawTheSameNamesDoNotOverwriteEachOther) {
  const std::string name = NextName();
  for (const char* key : {"first", "second", "third"}) {
    ChildProcess process([&](ChildLink&) {
      const std::unique_ptr<LSDBImpl> engine = Open();
      Seed();
      MakeBlock(*engine, {{key, "value"}});
      return HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(process.Wait(), 0);
  }
  ASSERT_EQ(BlockFiles().size(), 3u);
  EXPECT_EQ(ListedBlocks()[0], name) << "the processes did draw the same";
  const std::unique_ptr<LSDBImpl> engine = Open();
  EXPECT_EQ(Keys(*engine), (Strings{"first", "second", "third"}));
}

TEST_F(BlockNamesTest, ACompactionDoesNotOverwriteABlockEither) {
  const std::unique_ptr<LSDBImpl> engine = Open();
  for (int i = 0; i < 5; ++i) {
    Seed();
    MakeBlock(*engine, {{"key" + std::to_string(i), "value"}});
  }
  const Strings before = ListedBlocks();
  Seed();
  ASSERT_EQ(engine->ForceCompact(), kStatusOk);
  ASSERT_EQ(ListedBlocks().size(), 1u);
  EXPECT_EQ(std::count(before.begin(), before.end(), ListedBlocks()[0]), 0);
  EXPECT_EQ(Keys(*engine).size(), 5u);
  EXPECT_EQ(Keys(*Open()).size(), 5u);
}

TEST_F(BlockNamesTest, AFileOfAnotherKindWithTheDrawnNameIsLeftAlone) {
  const std::unique_ptr<LSDBImpl> engine = Open();
  const std::string name = NextName();
  WriteFile(PathOf(name), "not ours");
  Seed();
  MakeBlock(*engine, {{"key", "value"}});
  EXPECT_EQ(ReadFile(PathOf(name)), "not ours");
  EXPECT_EQ(BlockFiles().size(), 2u);
  EXPECT_EQ(Value(*Open(), "key"), "value");
}

TEST_F(BlockNamesTest, NamesAreDrawnFromDigitsAndCapitalLetters) {
  for (int i = 0; i < 100; ++i) {
    const std::string name = MakeBlockFileName();
    EXPECT_EQ(name.size(), 31u);
    EXPECT_EQ(name.find_first_not_of("1234567890ABCDEFGHIJKLMNOPQRSTUVWXYZ"), std::string::npos) << name;
  }
}

}  // namespace
}  // namespace Kestrun::Testing
