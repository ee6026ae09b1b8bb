// Callbacks that use the store while it is being enumerated.
#include <gtest/gtest.h>

#include <unistd.h>

#include <set>
#include <stdexcept>
#include <thread>

#include "tests/engine/store_fixture.h"
#include "tests/support/byte_locks.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/process_maps.h"

namespace Kestrun::Testing {
namespace {

class CallbackTest : public StoreTest {
 protected:
  CallbackTest() {
    MakeBlock(*engine_, {{"a", "1"}, {"b", "2"}, {"c", "3"}});
    for (const char* key : {"k1", "k2", "k3"}) EXPECT_EQ(Insert(*engine_, key, "value"), kStatusOk);
  }
  ~CallbackTest() override {
    EXPECT_EQ(LocksOnFile(PathOf("wal_v5")), "");
    EXPECT_EQ(LocksOnFile(PathOf("manifest_v5")), "");
  }

  // The keys that are reported while `act` is done at each of them.
  Strings Enumerate(const std::function<void(const std::string&)>& act) {
    Strings seen;
    CapturedStdout output;
    EXPECT_EQ(engine_->EnumerateKeys("a", "z",
                                     [&](const Key& key) {
                                       seen.push_back(Text(key));
                                       act(seen.back());
                                       return false;
                                     }),
              kStatusOk);
    return seen;
  }

  const Strings all_ = {"a", "b", "c", "k1", "k2", "k3"};
  std::unique_ptr<LSDBImpl> engine_ = Open();
};

TEST_F(CallbackTest, MayRead) {
  Strings values;
  EXPECT_EQ(Enumerate([&](const std::string& key) { values.push_back(Value(*engine_, key)); }), all_);
  EXPECT_EQ(values, (Strings{"1", "2", "3", "value", "value", "value"}));
}

TEST_F(CallbackTest, MayEnumerate) {
  EXPECT_EQ(Enumerate([&](const std::string&) { EXPECT_EQ(Keys(*engine_), all_); }), all_);
}

TEST_F(CallbackTest, MayInsertAheadOfTheScanAndBehindIt) {
  EXPECT_EQ(Enumerate([&](const std::string& key) {
              if (key != "k2") return;
              EXPECT_EQ(Insert(*engine_, "k0", "behind"), kStatusOk);
              EXPECT_EQ(Insert(*engine_, "k25", "ahead"), kStatusOk);
            }),
            (Strings{"a", "b", "c", "k1", "k2", "k25", "k3"}));
  EXPECT_EQ(Value(*engine_, "k0"), "behind");
}

TEST_F(CallbackTest, MayDeleteWhatItIsShown) {
  EXPECT_EQ(Enumerate([&](const std::string& key) { EXPECT_EQ(engine_->Delete(Key(key)), kStatusOk); }),
            (Strings{"a", "b", "c", "a", "b", "c", "k1", "k2", "k3"}))
      << "the markers of the block's keys are in the log by then";
  for (const std::string& key : all_) EXPECT_FALSE(engine_->Contains(Key(key))) << key;
}

TEST_F(CallbackTest, MayFlush) {
  EXPECT_EQ(Enumerate([&](const std::string& key) {
              if (key == "k1") {
                EXPECT_EQ(engine_->ResetWal(), kStatusOk);
              }
            }),
            (Strings{"a", "b", "c", "k1"}))
      << "the rest of the log lies in a block that was not chosen for this scan";
  EXPECT_EQ(Keys(*engine_), all_);
}

TEST_F(CallbackTest, MayFlushInTheMiddleOfABlock) {
  const Strings seen = Enumerate([&](const std::string& key) {
    if (key == "b") {
      EXPECT_EQ(engine_->ResetWal(), kStatusOk);
    }
  });
  EXPECT_EQ(seen, (Strings{"a", "b", "c"}));
}

// Every insertion of a long value flushes the log under the scan.
TEST_F(CallbackTest, MayWriteSoMuchThatTheLogIsFlushedAgainAndAgain) {
  int written = 0;
  const Strings seen = Enumerate([&](const std::string& key) {
    if (written >= 40) return;
    EXPECT_EQ(Insert(*engine_, key + "+", std::string(2500, 'v')), kStatusOk);
    ++written;
  });
  EXPECT_GE(ListedBlocks().size(), 4u);
  EXPECT_EQ(std::set<std::string>(seen.begin(), seen.end()).count("a"), 1u);
  EXPECT_EQ(Value(*engine_, "a+"), std::string(2500, 'v'));
  EXPECT_EQ(Value(*engine_, "k3"), "value");
}

TEST_F(CallbackTest, MayClear) {
  EXPECT_EQ(Enumerate([&](const std::string& key) {
              if (key == "k1") {
                EXPECT_EQ(engine_->Clear(), kStatusOk);
              }
            }),
            (Strings{"a", "b", "c", "k1"}));
  EXPECT_TRUE(Keys(*engine_).empty());
  EXPECT_EQ(Insert(*engine_, "key", "value"), kStatusOk);
}

TEST_F(CallbackTest, MayClearInTheMiddleOfABlockThatItIsShown) {
  const Strings seen = Enumerate([&](const std::string& key) {
    if (key == "a") {
      EXPECT_EQ(engine_->Clear(), kStatusOk);
    }
  });
  EXPECT_EQ(seen, (Strings{"a", "b", "c"})) << "the block stays as it was for whoever reads it";
  EXPECT_TRUE(Keys(*engine_).empty());
}

TEST_F(CallbackTest, MayClearAndWriteAnew) {
  EXPECT_EQ(Enumerate([&](const std::string& key) {
              if (key != "k2") return;
              EXPECT_EQ(engine_->Clear(), kStatusOk);
              EXPECT_EQ(Insert(*engine_, "k9", "new"), kStatusOk);
              EXPECT_EQ(Insert(*engine_, "k0", "new"), kStatusOk);
            }),
            (Strings{"a", "b", "c", "k1", "k2", "k9"}))
      << "the scan goes on at the next key";
  EXPECT_EQ(Keys(*engine_), (Strings{"k0", "k9"}));
}

TEST_F(CallbackTest, MayCompactAndDeleteRanges) {
  MakeBlocks(*engine_, 4);
  Enumerate([&](const std::string& key) {
    if (key == "a") {
      EXPECT_EQ(engine_->ForceCompact(), kStatusOk);
    }
    if (key == "b") {
      EXPECT_EQ(engine_->DeleteByRange("key0", "key2"), kStatusOk);
    }
  });
  EXPECT_EQ(ListedBlocks().size(), 1u);
  EXPECT_EQ(Value(*engine_, "key0"), "<none>");
  EXPECT_EQ(Value(*engine_, "key2"), "value2");
  EXPECT_EQ(Value(*engine_, "a"), "1");
}

TEST_F(CallbackTest, MayThrowAndNoLockIsLeftBehind) {
  EXPECT_THROW(static_cast<void>(engine_->EnumerateKeys(
                   "a", "z", [](const Key&) -> bool { throw std::runtime_error("out of a callback"); })),
               std::runtime_error);
  EXPECT_EQ(LocksOnFile(PathOf("wal_v5")), "");
  EXPECT_EQ(LocksOnFile(PathOf("manifest_v5")), "");
  EXPECT_EQ(Insert(*engine_, "key", "value"), kStatusOk);
  EXPECT_EQ(engine_->EnumerateKeys("a", "z", [](const Key&) -> bool { throw std::bad_alloc(); }),
            kStatusNoMemory);
}

TEST_F(CallbackTest, MayCloseAnotherHandleOnTheStore) {
  std::unique_ptr<LSDBImpl> other = Open();
  EXPECT_EQ(Enumerate([&](const std::string&) { other.reset(); }), all_);
  EXPECT_EQ(Insert(*engine_, "key", "value"), kStatusOk);
}

// Opening and closing never wait for the thread that enumerates.
class CallbackThreadTest : public CallbackTest {
 protected:
  CallbackThreadTest() { alarm(120); }  // a test that waits for ever is ended
  ~CallbackThreadTest() override { alarm(0); }

  // Does `act` once, at the key, in a thread that the callback waits for.
  Strings EnumerateAndJoin(const std::string& at, const std::function<void()>& act) {
    return Enumerate([&](const std::string& key) {
      if (key == at) std::thread(act).join();
    });
  }
  std::string Locks() const {
    return LocksOnFile(PathOf("wal_v5")) + "; " + LocksOnFile(PathOf("manifest_v5"));
  }
};

TEST_F(CallbackThreadTest, MayWaitForAThreadThatOpensAndClosesTheStore) {
  const size_t descriptors = CountDescriptors();
  Strings locks;
  EXPECT_EQ(Enumerate([&](const std::string& key) {
              if (key != "b" && key != "k2") return;
              std::thread([&] { EXPECT_NE(Open(), nullptr); }).join();
              locks.push_back(Locks());
            }),
            all_);
  const std::string both = "read 40000001+1ff; read 40000001+1ff";
  EXPECT_EQ(locks, (Strings{both, both})) << "closing has not dropped what the enumeration holds";
  EXPECT_EQ(CountDescriptors(), descriptors) << "the end of the enumeration has closed them";
}

TEST_F(CallbackThreadTest, MayWaitForAThreadThatClosesAnotherHandle) {
  std::unique_ptr<LSDBImpl> other = Open();
  EXPECT_EQ(Value(*other, "a"), "1");
  EXPECT_EQ(EnumerateAndJoin("a", [&] { other.reset(); }), all_);
}

// A larger log gives up what the smaller one held. The walk over the index goes on undisturbed.
TEST_F(CallbackThreadTest, MayWaitForAThreadThatRecreatesTheLog) {
  EXPECT_EQ(EnumerateAndJoin("k1", [&] { EXPECT_NE(Open(2 * kWalSize), nullptr); }), all_);
  EXPECT_EQ(Keys(*engine_), (Strings{"a", "b", "c"}));
  EXPECT_EQ(Insert(*engine_, "key", "value"), kStatusOk);
  EXPECT_EQ(Keys(*engine_), (Strings{"a", "b", "c", "key"}));
}

TEST_F(CallbackThreadTest, MayWaitForAThreadThatFindsAJournal) {
  const std::string journal = PathOf("manifest_v5.next");
  EXPECT_EQ(EnumerateAndJoin("a",
                             [&] {
                               WriteFile(journal, "torn");
                               EXPECT_NE(Open(), nullptr);
                             }),
            all_);
  EXPECT_EQ(ReadFile(journal), "torn") << "it belongs to whoever has the lock";
  ASSERT_EQ(engine_->ResetWal(), kStatusOk);
  EXPECT_FALSE(Exists("manifest_v5.next"));
}

TEST_F(CallbackThreadTest, MayWaitForAThreadThatFindsDamage) {
  const std::string sound = ReadFile(PathOf("manifest_v5"));
  EnumerateAndJoin("a", [&] {
    FileImage damaged(sound);
    damaged.Put32(20, damaged.Get32(20) ^ 1);
    WriteFile(PathOf("manifest_v5"), damaged.Bytes());
    LSDBImpl* opened = nullptr;
    EXPECT_EQ(LSDBImpl::Open(path_, {kWalSize, 0}, &opened), kStatusManifestChecksum);
    WriteFile(PathOf("manifest_v5"), sound);
  });
  EXPECT_EQ(Keys(*engine_), all_);
}

}  // namespace
}  // namespace Kestrun::Testing
