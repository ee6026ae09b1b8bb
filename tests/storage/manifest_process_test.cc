// One manifest in several processes and threads.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "tests/storage/manifest_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/random_run.h"
#include "tests/support/shared_memory.h"

namespace Kestrun::Testing {
namespace {

// A second process that has the manifest open and does with it what it is told.
class ManifestElsewhere {
 public:
  explicit ManifestElsewhere(const std::string& path)
      : child_([=](ChildLink& parent) { return Serve(path, parent); }) {}

  uint32_t Append(const std::string& name) { return static_cast<uint32_t>(std::stoul(Ask("append", name))); }
  uint32_t Truncate() { return static_cast<uint32_t>(std::stoul(Ask("truncate", ""))); }
  // The names, each with a blank behind it.
  std::string Names() { return Ask("names", ""); }
  std::string ExternalChanges() { return Ask("moves", ""); }

 private:
  std::string Ask(const std::string& order, const std::string& name) {
    std::string answer;
    EXPECT_TRUE(child_.Send(order) && child_.Send(name) && child_.Receive(&answer));
    return answer;
  }

  static int Serve(const std::string& path, ChildLink& parent) {
    auto manifest = OpenManifest(path);
    std::string order;
    std::string name;
    while (parent.Receive(&order) && parent.Receive(&name)) {
      std::string answer;
      if (order == "append") answer = std::to_string(Testing::Append(*manifest, name));
      if (order == "truncate") answer = std::to_string(Testing::Truncate(*manifest));
      if (order == "moves") answer = std::to_string(manifest->ExternalChanges());
      if (order == "names") {
        for (const std::string& listed : Testing::Names(*manifest)) answer += listed + " ";
      }
      if (!parent.Send(answer)) return 1;
    }
    return 0;
  }

  ChildProcess child_;
};

class ManifestProcessTest : public ManifestTest {
 protected:
  void OpenBoth() {
    elsewhere_ = std::make_unique<ManifestElsewhere>(path_);
    ASSERT_EQ(elsewhere_->Names(), "");
    manifest_ = OpenManifest(path_);
  }

  std::unique_ptr<ManifestElsewhere> elsewhere_;
  std::unique_ptr<Manifest> manifest_;
};

TEST_F(ManifestProcessTest, TwoAppendsAreSeenElsewhereInTheirOrder) {
  OpenBoth();
  ASSERT_EQ(Append(*manifest_, a_), kStatusOk);
  ASSERT_EQ(Append(*manifest_, b_), kStatusOk);
  EXPECT_EQ(elsewhere_->Names(), a_ + " " + b_ + " ");
  ManifestImage image;
  AppendTo(image, a_);
  AppendTo(image, b_);
  EXPECT_EQ(ToHex(Bytes()), ToHex(image.Bytes()));
}

// Otherwise the generation that an append publishes would pass for one that its own process has read.
TEST_F(ManifestProcessTest, AnAppendReadsFirstWhatOthersHaveRecorded) {
  OpenBoth();
  ASSERT_EQ(elsewhere_->Append(a_), kStatusOk);
  ASSERT_EQ(Append(*manifest_, b_), kStatusOk);
  EXPECT_EQ(Names(*manifest_), (NameList{a_, b_}));
  ASSERT_EQ(elsewhere_->Append(c_), kStatusOk);
  EXPECT_EQ(elsewhere_->Names(), a_ + " " + b_ + " " + c_ + " ");
  EXPECT_EQ(Names(*manifest_), (NameList{a_, b_, c_}));
}

TEST_F(ManifestProcessTest, ATruncationIsSeenElsewhereOnlyAfterTheNextAppend) {
  OpenBoth();
  ASSERT_EQ(Append(*manifest_, a_), kStatusOk);
  EXPECT_EQ(elsewhere_->Names(), a_ + " ");
  ASSERT_EQ(Truncate(*manifest_), kStatusOk);
  EXPECT_EQ(elsewhere_->Names(), a_ + " ");
  ASSERT_EQ(Append(*manifest_, b_), kStatusOk);
  EXPECT_EQ(elsewhere_->Names(), b_ + " ");
}

TEST_F(ManifestProcessTest, AnAppendFollowsATruncationByOthers) {
  OpenBoth();
  ASSERT_EQ(Append(*manifest_, a_), kStatusOk);
  ASSERT_EQ(Append(*manifest_, b_), kStatusOk);
  ASSERT_EQ(elsewhere_->Truncate(), kStatusOk);
  EXPECT_EQ(Names(*manifest_).size(), 2u) << "the generation has not moved";
  ASSERT_EQ(Append(*manifest_, c_), kStatusOk);
  EXPECT_EQ(Names(*manifest_), NameList{c_});
  EXPECT_EQ(elsewhere_->Names(), c_ + " ");
  ManifestImage image(2);
  AppendTo(image, c_);
  EXPECT_EQ(ToHex(Bytes()), ToHex(image.Bytes()));
}

TEST_F(ManifestProcessTest, OnlyMovesOfOthersAreForeign) {
  OpenBoth();
  const std::string none = elsewhere_->ExternalChanges();
  ASSERT_EQ(elsewhere_->Append(a_), kStatusOk);
  EXPECT_EQ(elsewhere_->ExternalChanges(), none);
  ASSERT_EQ(Append(*manifest_, b_), kStatusOk);
  const std::string one = elsewhere_->ExternalChanges();
  EXPECT_NE(one, none);
  EXPECT_EQ(elsewhere_->ExternalChanges(), one);
  ASSERT_EQ(Append(*manifest_, c_), kStatusOk);
  ASSERT_EQ(elsewhere_->Append(d_), kStatusOk) << "which passes over the move of before";
  EXPECT_NE(elsewhere_->ExternalChanges(), one);
}

TEST_F(ManifestProcessTest, ProcessesThatOpenAFreshManifestAtTheSameMomentLoseNoEntry) {
  constexpr int kProcesses = 3;
  const int rounds = static_cast<int>(TestSize(40, 3000));
  const auto pathOf = [&](int round) { return path_ + "." + std::to_string(round); };
  for (int round = 1; round < rounds; round += 2) WriteFile(pathOf(round), "");
  const SharedMemory<std::atomic<int>> started;
  std::vector<std::unique_ptr<ChildProcess>> children;
  for (int number = 0; number < kProcesses; ++number) {
    children.push_back(std::make_unique<ChildProcess>([&, number](ChildLink& parent) {
      for (int round = 0; round < rounds; ++round) {
        parent.Signal();
        while (*started <= round) usleep(10);
        std::unique_ptr<Manifest> manifest;
        if (OpenManifest(pathOf(round), &manifest) != kStatusOk) return 1;
        uint32_t status;
        do {
          status = Append(*manifest, BlockName(std::to_string(number)));
        } while (status == kStatusLockFailed);
        if (status != kStatusOk) return 2;
      }
      return 0;
    }));
  }
  for (int round = 0; round < rounds; ++round) {
    for (auto& child : children) ASSERT_TRUE(child->Await()) << round;
    *started = round + 1;
  }
  for (auto& child : children) ASSERT_EQ(child->Wait(), 0);
  for (int round = 0; round < rounds; ++round) {
    ASSERT_EQ(Names(*OpenManifest(pathOf(round))).size(), static_cast<size_t>(kProcesses)) << round;
  }
}

// Entry number n has a name that tells n.
std::string Numbered(size_t number) {
  return BlockName("N" + std::to_string(number) + "E");
}

bool IsPrefix(const BlockEntries& entries) {
  for (size_t i = 0; i < entries.size(); ++i) {
    const std::string name = Numbered(i);
    if (entries[i]->name != name || entries[i]->filter != BytesOf(FilterOf(name))) return false;
  }
  return true;
}

TEST_F(ManifestProcessTest, AReaderWithoutALockSeesACompleteListWhileOthersAppend) {
  const size_t count = TestSize(60, 2000);
  const SharedMemory<std::atomic<bool>> done;
  ChildProcess writer([&](ChildLink& parent) {
    auto manifest = OpenManifest(path_);
    parent.Signal();
    for (size_t i = 0; i < count;) {
      const uint32_t status = Append(*manifest, Numbered(i));
      if (status == kStatusOk) ++i;
      if (status != kStatusOk && status != kStatusLockFailed) return 1;
    }
    *done = true;
    return 0;
  });
  ASSERT_TRUE(writer.Await());
  auto manifest = OpenManifest(path_);
  size_t last = 0;
  for (bool finished = false; !finished;) {
    finished = *done;
    BlockEntries entries;
    const uint32_t status = manifest->LoadUnlocked(&entries);
    ASSERT_EQ(status, kStatusOk);
    ASSERT_TRUE(IsPrefix(entries));
    ASSERT_GE(entries.size(), last);
    last = entries.size();
  }
  EXPECT_EQ(last, count);
  EXPECT_EQ(writer.Wait(), 0);
}

// Nothing that reads may move the place at which another thread writes, or read a list that is being changed.
TEST_F(ManifestProcessTest, ThreadsReadAndAppendThroughOneHandle) {
  const size_t count = TestSize(80, 2000);
  auto manifest = OpenManifest(path_);
  std::atomic<bool> done{false};
  std::atomic<int> bad{0};
  std::vector<std::thread> readers;
  for (int number = 0; number < 2; ++number) {
    readers.emplace_back([&, number] {
      while (!done) {
        BlockEntries entries;
        if (number == 0) {
          if (manifest->LoadUnlocked(&entries) != kStatusOk) ++bad;
        } else {
          entries = Entries(*manifest);
        }
        if (!IsPrefix(entries)) ++bad;
        manifest->ExternalChanges();
      }
    });
  }
  for (size_t i = 0; i < count; ++i) EXPECT_EQ(Append(*manifest, Numbered(i)), kStatusOk);
  done = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(bad, 0);
  const BlockEntries entries = Entries(*manifest);
  EXPECT_EQ(entries.size(), count);
  EXPECT_TRUE(IsPrefix(entries));
}

}  // namespace
}  // namespace Kestrun::Testing
