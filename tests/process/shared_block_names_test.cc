// Block names are drawn with rand, which processes that start in the same second seed alike. Where several
// processes write to one store a name that is free again must not come back: another process may still be
// merging the old block of that name, and would put the merged block in the place of the new one.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "kestrun/lsdb.h"
#include "kestrun/status.h"
#include "storage/block_name.h"
#include "tests/support/child_process.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun {
namespace {

using Testing::ChildLink;
using Testing::ChildProcess;
using Testing::ScratchDirectory;

class SharedBlockNames : public ::testing::Test {
 protected:
  std::unique_ptr<LSDBImpl> Open() {
    LSDBImpl* engine = nullptr;
    EXPECT_EQ(LSDBImpl::Open(directory_.Path(), {4096, 0}, &engine), kStatusOk);
    return std::unique_ptr<LSDBImpl>(engine);
  }

  // Flushes with a generator whose next name is known. Whether the new block got that name.
  bool FlushTakesTheNameDrawn(LSDBImpl& engine) {
    std::srand(seed_);
    const std::string name = MakeBlockFileName();
    std::srand(seed_++);
    EXPECT_EQ(engine.ResetWal(), kStatusOk);
    return access(directory_.PathOf(name + ".blk_v5").c_str(), F_OK) == 0;
  }

  ScratchDirectory directory_;
  unsigned seed_ = 7;
};

TEST_F(SharedBlockNames, AStoreOfOneProcessTakesNamesAsTheyAreDrawn) {
  MakeBlockFileName();  // seeds the generator
  const std::unique_ptr<LSDBImpl> engine = Open();
  EXPECT_TRUE(FlushTakesTheNameDrawn(*engine));
  EXPECT_TRUE(FlushTakesTheNameDrawn(*engine));
}

TEST_F(SharedBlockNames, OnceAnotherProcessHasRecordedABlockNoNameIsTakenAsItIsDrawn) {
  MakeBlockFileName();
  const auto flush = [this](ChildLink& parent) {
    const std::unique_ptr<LSDBImpl> engine = Open();
    parent.Signal();
    parent.Await();
    return engine->ResetWal() == kStatusOk ? 0 : 1;
  };
  ChildProcess other(flush);
  ASSERT_TRUE(other.Await());
  const std::unique_ptr<LSDBImpl> engine = Open();
  EXPECT_TRUE(FlushTakesTheNameDrawn(*engine));
  other.Signal();
  ASSERT_EQ(other.Wait(), 0);
  EXPECT_FALSE(FlushTakesTheNameDrawn(*engine));
  EXPECT_FALSE(FlushTakesTheNameDrawn(*engine));
}

TEST_F(SharedBlockNames, AStoreThatHasBlocksAlreadyCountsAsShared) {
  MakeBlockFileName();
  ChildProcess other([this](ChildLink&) { return Open()->ResetWal() == kStatusOk ? 0 : 1; });
  ASSERT_EQ(other.Wait(), 0);
  const std::unique_ptr<LSDBImpl> engine = Open();
  EXPECT_FALSE(FlushTakesTheNameDrawn(*engine));
}

TEST(MakeUniqueAcrossProcesses, KeepsTheAlphabetTheLengthAndTheBeginning) {
  const std::string drawn = "0123456789ABCDEFGHIJKLMNOPQRSTU";
  const std::string name = MakeUniqueAcrossProcesses(drawn);
  EXPECT_EQ(name.size(), drawn.size());
  EXPECT_EQ(name.substr(0, 15), drawn.substr(0, 15));
  EXPECT_EQ(name.find_first_not_of("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"), std::string::npos);
}

TEST(MakeUniqueAcrossProcesses, GivesEachProcessItsOwn) {
  const std::string drawn(31, 'X');
  std::string theirs;
  ChildProcess other(
      [&](ChildLink& parent) { return parent.Send(MakeUniqueAcrossProcesses(drawn)) ? 0 : 1; });
  ASSERT_TRUE(other.Receive(&theirs));
  // The last five letters are the process's number.
  EXPECT_NE(theirs.substr(26), MakeUniqueAcrossProcesses(drawn).substr(26));
}

}  // namespace
}  // namespace Kestrun
