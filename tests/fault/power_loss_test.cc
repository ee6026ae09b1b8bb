// Files as a loss of power can leave them, put together by hand. power_loss_states_test finds such files by
// trying.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include "format/torn_entry.h"
#include "kestrun/lsdb.h"
#include "kestrun/status.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/child_process.h"
#include "tests/support/file_bytes.h"
#include "tests/support/log_image.h"
#include "tests/support/manifest_image.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun::Testing {
namespace {

constexpr uint32_t kLogSize = 16384;
constexpr unsigned int kTtl = 86400;

class PowerLossTest : public testing::Test {
 protected:
  // Each opening in a process of its own, which knows nothing of those before it.
  template <typename Use>
  static int InNewProcess(const std::string& path, Use use) {
    ChildProcess child([&](ChildLink&) {
      const CapturedStdout quiet;
      LSDBConfig config = {};
      config.walSize = kLogSize;
      LSDBImpl* engine = nullptr;
      if (LSDBImpl::Open(path, config, &engine) != kStatusOk) return 100;
      const std::unique_ptr<LSDBImpl> owner(engine);
      return use(*engine);
    });
    return child.Wait();
  }

  static std::string Get(LSDBImpl& engine, const std::string& key) {
    const void* value = nullptr;
    unsigned int size = 0;
    if (engine.Get(Key(key), &value, &size) != kStatusOk) return "?";
    if (value == nullptr) return "none";
    const std::string text(static_cast<const char*>(value), size);
    std::free(const_cast<void*>(value));
    return text;
  }

  ScratchDirectory directory_;
};

// The log's header and its first page tell of a used area whose second record did not arrive: an older one
// with the same place and a longer value stands there. What is appended makes room for it.
TEST_F(PowerLossTest, ARecordThatReachesBeyondTheUsedAreaNeverComesBack) {
  LogImage log(kLogSize);
  log.Append({"first", "1"});
  const uint32_t end = static_cast<uint32_t>(log.Append({"victim", std::string(100, 'o')}));
  log.SetUsed(end + 60);
  WriteFile(directory_.PathOf("wal_v5"), log.Bytes());

  const int first = InNewProcess(directory_.Path(), [](LSDBImpl& engine) {
    if (Get(engine, "first") != "1" || Get(engine, "victim") != "none") return 1;
    const std::string value(80, 'n');
    for (const char* key : {"other", "victim", "another"}) {
      if (engine.Insert(Key(key), kTtl, value.data(), 80) != kStatusOk) return 2;
    }
    return Get(engine, "victim") == value && Get(engine, "other") == value ? 0 : 3;
  });
  EXPECT_EQ(first, 0);
  const int second = InNewProcess(directory_.Path(), [](LSDBImpl& engine) {
    return Get(engine, "first") == "1" && Get(engine, "victim") == "none" ? 0 : 1;
  });
  EXPECT_EQ(second, 0);
}

TEST_F(PowerLossTest, AnEntryWhoseSectorsDidNotArriveIsNotAnEntry) {
  for (const size_t length : {56u, 65u, 200u, 4153u}) {
    const ScratchDirectory directory;
    ManifestImage manifest;
    const std::string filter = std::string(8, '\xff') + '\x05';
    manifest.Append(std::string(31, 'A'), filter);
    const std::string sound = manifest.Bytes();
    WriteFile(directory.PathOf("manifest_v5"), sound + std::string(length, '\0'));

    const int first = InNewProcess(directory.Path(), [](LSDBImpl& engine) {
      if (engine.Insert(Key("k"), kTtl, "v", 1) != kStatusOk) return 1;
      return engine.ResetWal() == kStatusOk ? 0 : 2;
    });
    EXPECT_EQ(first, 0) << length;
    const std::string now = ReadFile(directory.PathOf("manifest_v5"));
    EXPECT_EQ(now.size(), sound.size() + 56 + 9) << length;
    EXPECT_EQ(now.substr(128, sound.size() - 128), sound.substr(128)) << length;
    const int second =
        InNewProcess(directory.Path(), [](LSDBImpl& engine) { return Get(engine, "k") == "v" ? 0 : 1; });
    EXPECT_EQ(second, 0) << length;
  }
}

TEST(ManifestTailTest, IsUnfinishedOnlyWhereAWholeSectorOfTheHeadIsMissing) {
  const std::string entry = ManifestEntryBytes(std::string(31, 'A'), std::string(600, 'f'));
  const auto isUnfinished = [](const std::string& bytes, uint64_t offset) {
    return IsTornEntry(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), offset);
  };
  const auto without = [&entry](size_t begin, size_t count) {
    std::string bytes = entry;
    bytes.replace(begin, count, count, '\0');
    return bytes;
  };
  const struct {
    std::string bytes;
    uint64_t offset;
    bool unfinished;
  } rows[] = {
      {std::string(55, '\0'), 128, false},    // shorter than a head: Load knows
      {std::string(56, '\0'), 128, true},     //
      {std::string(4153, '\0'), 128, true},   //
      {std::string(4154, '\0'), 128, false},  // longer than an entry
      {without(0, 384), 128, true},           // up to the end of the sector
      {without(0, 383), 128, false},          // one byte of it is there
      {without(0, 56), 128, false},           // the head alone was overwritten
      {without(0, 20), 4096 - 20, true},      // the head's first part
      {without(20, 512), 4096 - 20, true},    // and its second
      {without(20, 511), 4096 - 20, false},   //
      {without(20, 36), 4096 - 20, false},    //
      {without(0, 1), 4096 - 1, true},        //
  };
  for (const auto& row : rows) {
    EXPECT_EQ(isUnfinished(row.bytes, row.offset), row.unfinished) << row.bytes.size() << " " << row.offset;
  }
}

TEST(ManifestTailTest, ASoundEntryBehindItSaysThatItIsDamage) {
  const std::string entry = ManifestEntryBytes(std::string(31, 'A'), std::string(9, 'f'));
  const std::string tail = std::string(600, '\0') + entry;
  EXPECT_FALSE(IsTornEntry(reinterpret_cast<const uint8_t*>(tail.data()), tail.size(), 128));
}

}  // namespace
}  // namespace Kestrun::Testing
