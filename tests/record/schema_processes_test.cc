// One schema file, several processes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdint>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "kestrun/status.h"
#include "record/schema.h"
#include "tests/support/byte_locks.h"
#include "tests/support/child_process.h"
#include "tests/support/file_bytes.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun {
namespace {

using Testing::ChildLink;
using Testing::ChildProcess;
using Testing::ForeignLock;
using Testing::LocksOnFile;
using Testing::ReadFile;
using Testing::ScratchDirectory;
using Testing::WriteFile;

constexpr int64_t kGateByte = 0x40000000;
constexpr int64_t kLockRange = 0x40000001;
constexpr int64_t kLockRangeLength = 511;
constexpr int64_t kCreationByte = 0x40000200;

class SchemaProcessesTest : public testing::Test {
 protected:
  SchemaProcessesTest() : path_(directory_.PathOf("meta_v5")) {}

  std::unique_ptr<Schema> Open() {
    Schema* schema = nullptr;
    EXPECT_EQ(Schema::Open(path_, &schema), kStatusOk);
    return std::unique_ptr<Schema>(schema);
  }

  ScratchDirectory directory_;
  std::string path_;
};

TEST_F(SchemaProcessesTest, TypeOfOneProcessIsFoundByTheOther) {
  const auto schema = Open();
  ChildProcess child([this](ChildLink& parent) {
    const auto own = Open();
    if (own->GetOrCreateRecordMeta("T a:%i4")->id != 1) return 1;
    parent.Signal();
    parent.Await();
    if (own->FindRecordMeta(2) == nullptr) return 2;
    return own->GetOrCreateRecordMeta("U a:%i4")->id == 2 ? 0 : 3;
  });
  ASSERT_TRUE(child.Await());
  ASSERT_NE(schema->FindRecordMeta(1), nullptr);
  EXPECT_EQ(schema->FindRecordMeta(1)->text, "T a:%i4");
  EXPECT_EQ(schema->GetOrCreateRecordMeta("U a:%i4")->id, 2);
  child.Signal();
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(ReadFile(path_), "1#T a:%i4\n2#U a:%i4\n");
}

// The levels are not what one would choose, and others are built on them: a lookup by number is exclusive. It
// fails here, because the other process reads, and leaves its lock on the gate byte.
TEST_F(SchemaProcessesTest, LookupByNumberTakesTheExclusiveLevelAndGoesOnWithoutIt) {
  const auto schema = Open();
  WriteFile(path_, "5#T a:%i4\n");
  ForeignLock reader(path_, F_RDLCK, kLockRange, kLockRangeLength);
  ASSERT_NE(schema->FindRecordMeta(5), nullptr);
  EXPECT_EQ(schema->FindRecordMeta(5)->text, "T a:%i4");
  reader.Release();
  EXPECT_EQ(LocksOnFile(path_), "write 40000000+1");
}

TEST_F(SchemaProcessesTest, MakingATypeTakesTheSharedLevelBesideAnotherReader) {
  const auto schema = Open();
  ForeignLock reader(path_, F_RDLCK, kLockRange, kLockRangeLength);
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4")->id, 1);
  reader.Release();
  EXPECT_EQ(LocksOnFile(path_), "");
}

TEST_F(SchemaProcessesTest, MakingATypeGoesOnWithoutTheLock) {
  const auto schema = Open();
  const ForeignLock writer(path_, F_WRLCK, kGateByte, 1 + kLockRangeLength);
  ASSERT_NE(schema->GetOrCreateRecordMeta("T a:%i4"), nullptr);
  EXPECT_EQ(ReadFile(path_), "1#T a:%i4\n");
}

TEST_F(SchemaProcessesTest, NothingStaysLockedAfterMakingAndLookingUp) {
  const auto schema = Open();
  EXPECT_NE(schema->GetOrCreateRecordMeta("T a:%i4"), nullptr);
  EXPECT_EQ(LocksOnFile(path_), "");
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T"), nullptr);
  EXPECT_EQ(LocksOnFile(path_), "");
  EXPECT_EQ(schema->FindRecordMeta(2), nullptr);
  EXPECT_EQ(LocksOnFile(path_), "");
}

TEST_F(SchemaProcessesTest, TypeIsMadeEvenWhenAnotherMakerNeverEnds) {
  const auto schema = Open();
  const ForeignLock maker(path_, F_WRLCK, kCreationByte, 1);
  ASSERT_NE(schema->GetOrCreateRecordMeta("T a:%i4"), nullptr);
  EXPECT_EQ(ReadFile(path_), "1#T a:%i4\n");
}

// Every process makes types of its own and types that all of them make. Each text ends up with one line and
// one number, and every process has seen the same.
TEST_F(SchemaProcessesTest, MakersThatRunAtTheSameTimeNeverShareANumber) {
  constexpr int kProcesses = 4;
  constexpr int kOwnTypes = 20;
  WriteFile(path_, "");
  std::vector<std::unique_ptr<ChildProcess>> children;
  for (int process = 0; process < kProcesses; ++process) {
    children.push_back(std::make_unique<ChildProcess>([this, process](ChildLink& parent) {
      const auto own = Open();
      parent.Signal();
      parent.Await();
      std::string seen;
      for (int i = 0; i < kOwnTypes; ++i) {
        for (const std::string& name : {"Own" + std::to_string(process), std::string("Common")}) {
          const std::string text = name + " f" + std::to_string(i) + ":%i4";
          const RecordMeta* meta = own->GetOrCreateRecordMeta(text);
          if (meta == nullptr) return 1;
          seen += std::to_string(meta->id) + "#" + text + "\n";
        }
      }
      return parent.Send(seen) ? 0 : 2;
    }));
  }
  for (auto& child : children) ASSERT_TRUE(child->Await());
  for (auto& child : children) child->Signal();

  std::set<std::string> seen;
  for (auto& child : children) {
    std::string lines;
    ASSERT_TRUE(child->Receive(&lines));
    EXPECT_EQ(child->Wait(), 0);
    std::istringstream stream(lines);
    for (std::string line; std::getline(stream, line);) seen.insert(line);
  }

  std::set<std::string> stored;
  std::istringstream stream(ReadFile(path_));
  int count = 0;
  for (std::string line; std::getline(stream, line);) {
    stored.insert(line);
    EXPECT_EQ(line.substr(0, line.find('#')), std::to_string(++count));
  }
  EXPECT_EQ(count, (kProcesses + 1) * kOwnTypes);
  EXPECT_EQ(stored, seen);
}

// The limit on the size of files makes a write fail as a full disk does: what fits is written, the rest not.
TEST_F(SchemaProcessesTest, LineThatDoesNotFitLeavesNoPartOfItBehind) {
  WriteFile(path_, "1#T a:%i4\n");
  ChildProcess child([this](ChildLink&) {
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit unlimited = {};
    if (getrlimit(RLIMIT_FSIZE, &unlimited) != 0) return 6;
    const auto own = Open();
    for (rlim_t room = 0; room < 10; ++room) {
      const struct rlimit limit = {10 + room, unlimited.rlim_max};
      if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 1;
      if (own->GetOrCreateRecordMeta("U a:%i4") != nullptr) return 2;
      if (ReadFile(path_) != "1#T a:%i4\n") return 3;
    }
    if (setrlimit(RLIMIT_FSIZE, &unlimited) != 0) return 4;
    const RecordMeta* meta = own->GetOrCreateRecordMeta("U a:%i4");
    return meta != nullptr && meta->id == 2 ? 0 : 5;
  });
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(ReadFile(path_), "1#T a:%i4\n2#U a:%i4\n");
}

// A child of a fork has the types of its parent and may make more of them.
TEST_F(SchemaProcessesTest, SchemaGoesOnWorkingInBothProcessesAfterAFork) {
  const auto schema = Open();
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4")->id, 1);
  ChildProcess child([&schema](ChildLink&) {
    if (schema->GetOrCreateRecordMeta("T a:%i4")->id != 1) return 1;
    return schema->GetOrCreateRecordMeta("U a:%i4")->id == 2 ? 0 : 2;
  });
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(schema->GetOrCreateRecordMeta("V a:%i4")->id, 3);
  EXPECT_EQ(ReadFile(path_), "1#T a:%i4\n2#U a:%i4\n3#V a:%i4\n");
}

}  // namespace
}  // namespace Kestrun
