// What a program may hand to a store by mistake, and a directory that somebody has been in.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "kestrun/lsdb.h"
#include "kestrun/status.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/file_bytes.h"
#include "tests/support/random_run.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun::Testing {
namespace {

constexpr unsigned kLong = 0xFFFFFFFF;
constexpr uint32_t kWalSize = 128 * 1024;
constexpr char kFull[] = "Wal is fullFailed to reserve write space\n";

class BadInputTest : public ::testing::Test {
 protected:
  // The status; with success the store that was opened last is open.
  uint32_t Open(const std::string& path, uint32_t walSize = kWalSize) {
    store_.reset();
    LSDBImpl* opened = nullptr;
    const uint32_t status = LSDBImpl::Open(path, {walSize, 0}, &opened);
    EXPECT_EQ(opened != nullptr, status == kStatusOk) << path;
    store_.reset(opened);
    return status;
  }
  uint32_t Insert(const std::string& key, const std::string& value) {
    return store_->Insert(key, kLong, value.data(), static_cast<unsigned>(value.size()));
  }
  std::string Get(const std::string& key) {
    const void* value = nullptr;
    unsigned size = 0;
    EXPECT_EQ(store_->Get(key, &value, &size), kStatusOk);
    const std::string bytes =
        value == nullptr ? "<none>" : std::string(static_cast<const char*>(value), size);
    std::free(const_cast<void*>(value));
    return bytes;
  }

  ScratchDirectory directory_;
  const std::string path_ = directory_.PathOf("store");
  std::unique_ptr<LSDBImpl> store_;
};

TEST_F(BadInputTest, PathsThatAreNoDirectoryForAStore) {
  WriteFile(directory_.PathOf("file"), "a file");
  const std::string longName(300, 'n');
  const struct {
    std::string path;
    uint32_t status;
    std::string printed;
  } rows[] = {
      {directory_.PathOf("missing/below"), kStatusDirectoryFailed,
       "Failed to create directory: " + directory_.PathOf("missing/below")},
      {directory_.PathOf("file"), kStatusManifestUnreadable, ""},
      {directory_.PathOf("file/below"), kStatusDirectoryFailed,
       "Failed to create directory: " + directory_.PathOf("file/below")},
      {directory_.PathOf(longName), kStatusDirectoryFailed,
       "Failed to create directory: " + directory_.PathOf(longName)},
      {"", kStatusDirectoryFailed, "Failed to create directory: "},
      // Nobody may write there, not even root.
      {"/proc/self/store", kStatusDirectoryFailed, "Failed to create directory: /proc/self/store"},
      {"/proc/self", kStatusManifestUnreadable, ""},
  };
  for (const auto& row : rows) {
    CapturedStdout output;
    const uint32_t status = Open(row.path);
    const std::string printed = output.Take();
    EXPECT_EQ(status, row.status) << row.path;
    EXPECT_EQ(printed, row.printed) << row.path;
  }
}

TEST_F(BadInputTest, SizesOfTheLogAroundTheSmallestOne) {
  for (const uint32_t size : {0u, 1u, 127u, 128u}) {
    CapturedStdout output;
    const uint32_t status = Open(path_, size);
    const std::string printed = output.Take();
    EXPECT_EQ(status, kStatusInvalid) << size;
    EXPECT_EQ(printed, "invalid wal size: " + path_ + "/wal_v5") << size;
  }
  ASSERT_EQ(Open(path_, 129), kStatusOk);
  {
    CapturedStdout output;
    EXPECT_EQ(Insert("k", ""), kStatusWalFull);
    EXPECT_EQ(output.Take(), std::string(kFull) + kFull);
  }
  ASSERT_EQ(Open(directory_.PathOf("smallest"), 128 + 41), kStatusOk);
  EXPECT_EQ(Insert("k", ""), kStatusOk);
  CapturedStdout output;
  EXPECT_EQ(Insert("l", ""), kStatusOk);
  EXPECT_EQ(output.Take(), kFull);
}

TEST_F(BadInputTest, KeysAtTheLimitsOfTheirLength) {
  ASSERT_EQ(Open(path_), kStatusOk);
  const struct {
    size_t length;
    uint32_t status;
  } rows[] = {{0, kStatusInvalid}, {1, kStatusOk},     {15, kStatusOk},
              {16, kStatusOk},     {65535, kStatusOk}, {65536, kStatusInvalid}};
  for (const auto& row : rows) {
    const std::string key(row.length, 'k');
    CapturedStdout output;
    const uint32_t status = Insert(key, "value");
    const uint32_t deletion = store_->Delete(key);
    const std::string printed = output.Take();
    EXPECT_EQ(status, row.status) << row.length;
    EXPECT_EQ(deletion, row.status) << row.length;
    EXPECT_EQ(printed, row.status == kStatusOk ? printed : "Invalid keyInvalid key") << row.length;
  }
  // The length counts modulo 65536, so a longer text is another, shorter key.
  EXPECT_EQ(Insert(std::string(65537, 'k'), "of one byte"), kStatusOk);
  EXPECT_EQ(Get("k"), "of one byte");
}

TEST_F(BadInputTest, ValuesAtTheLimitsOfTheLog) {
  ASSERT_EQ(Open(path_), kStatusOk);
  const std::string largest(kWalSize - 128 - 40 - 1, 'v');
  EXPECT_EQ(Insert("k", largest), kStatusOk);
  EXPECT_EQ(Get("k"), largest);
  CapturedStdout output;
  EXPECT_EQ(Insert("k", largest + "v"), kStatusWalFull);
  EXPECT_EQ(output.Take(), std::string(kFull) + kFull);
  EXPECT_EQ(Get("k"), largest) << "the older value stays";

  const char byte = 0;
  for (const unsigned size : {0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu, 0xFFFFFFFFu - 168}) {
    EXPECT_EQ(store_->Insert("k", kLong, &byte, size), kStatusWalFull) << size;
  }
  EXPECT_EQ(Get("k"), largest);
}

TEST_F(BadInputTest, PointersThatAreMissing) {
  ASSERT_EQ(Open(path_), kStatusOk);
  EXPECT_EQ(store_->Insert("k", kLong, nullptr, 1), kStatusInvalid);
  EXPECT_EQ(store_->Insert("k", kLong, nullptr, 0), kStatusOk);
  const void* value = nullptr;
  unsigned size = 0;
  EXPECT_EQ(store_->Get("k", nullptr, &size), kStatusInvalid);
  EXPECT_EQ(store_->Get("k", &value, nullptr), kStatusInvalid);
  EXPECT_EQ(LSDBImpl::Open(directory_.PathOf("checked only"), {kWalSize, 0}, nullptr), kStatusOk);
  CapturedStdout output;
  EXPECT_EQ(store_->Delete(Key(static_cast<const char*>(nullptr))), kStatusInvalid);
  EXPECT_EQ(output.Take(), "Invalid key");
}

TEST_F(BadInputTest, RangesThatAreEmptyOrTurnedRound) {
  ASSERT_EQ(Open(path_), kStatusOk);
  for (const char* key : {"a", "b", "c"}) ASSERT_EQ(Insert(key, key), kStatusOk);
  int calls = 0;
  const auto count = [&calls](const Key&) { return ++calls == 0; };
  EXPECT_EQ(store_->EnumerateKeys("c", "a", count), kStatusOk);
  EXPECT_EQ(store_->EnumerateKeys("b", "b", count), kStatusOk);
  EXPECT_EQ(store_->EnumerateKeys("", "", count), kStatusOk);
  EXPECT_EQ(store_->EnumerateKeys("x", "z", count), kStatusOk);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(store_->DeleteByRange("c", "a"), kStatusOk);
  EXPECT_EQ(Get("b"), "b");
}

TEST_F(BadInputTest, RemovingWhatIsNotThere) {
  EXPECT_EQ(LSDBImpl::Remove(path_), kStatusOpenFailed);
  EXPECT_EQ(LSDBImpl::Remove(""), kStatusOpenFailed);
  WriteFile(path_, "a file");
  EXPECT_EQ(LSDBImpl::Remove(path_), kStatusOpenFailed);
  EXPECT_EQ(ReadFile(path_), "a file");
}

// Whatever a file of a store is cut to or overwritten with, opening and using the store gives statuses. What
// can be read is what was written, or nothing.
class DamagedStoreTest : public BadInputTest {
 protected:
  DamagedStoreTest() {
    EXPECT_EQ(Open(path_, 4096), kStatusOk);
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(Insert("key" + std::to_string(i), "value"), kStatusOk);
      EXPECT_EQ(store_->ResetWal(), kStatusOk);
    }
    EXPECT_EQ(Insert("key3", "value"), kStatusOk);
    store_.reset();
    std::filesystem::copy(path_, directory_.PathOf("sound"));
    for (const auto& file : std::filesystem::directory_iterator(path_)) {
      const std::string name = file.path().filename();
      if (file.path().extension() == ".blk_v5") {
        block_ = name;
      }
    }
  }

  // Puts `bytes` into the place of one file of the store, as it was in the beginning, and uses it.
  void UseWith(const std::string& name, const std::string& bytes) {
    const std::string path = directory_.PathOf("damaged" + std::to_string(++count_));
    std::filesystem::copy(directory_.PathOf("sound"), path);
    WriteFile(path + "/" + name, bytes);
    CapturedStdout output;
    if (Open(path, 4096) != kStatusOk) return;
    for (int i = 0; i < 4; ++i) {
      const void* value = nullptr;
      unsigned size = 0;
      const uint32_t status = store_->Get("key" + std::to_string(i), &value, &size);
      if (status == kStatusOk && value != nullptr && name == block_) {
        EXPECT_EQ(size, 5u) << name;
      }
      if (status == kStatusOk) std::free(const_cast<void*>(value));
    }
    store_->EnumerateKeys(Key::MinKey(), Key::MaxKey(), [](const Key&) { return false; });
    store_->Insert("another", kLong, "value", 5);
    store_->ResetWal();
    store_->ForceCompact();
    store_.reset();
  }
  std::string Sound(const std::string& name) const { return ReadFile(directory_.PathOf("sound/" + name)); }

  std::string block_;
  int count_ = 0;
};

TEST_F(DamagedStoreTest, FilesCutShort) {
  for (const std::string& name : {std::string("wal_v5"), std::string("manifest_v5"), block_}) {
    const std::string sound = Sound(name);
    const size_t step = 1 + sound.size() / (1 + TestSize(8, 2000));
    for (size_t length = 0; length < sound.size(); length += length < 200 ? 29 : step) {
      UseWith(name, sound.substr(0, length));
      ASSERT_FALSE(HasFailure()) << name << " cut at " << length;
    }
  }
}

TEST_F(DamagedStoreTest, BytesOverwritten) {
  for (const std::string& name : {std::string("wal_v5"), std::string("manifest_v5"), block_}) {
    const std::string sound = Sound(name);
    const size_t step = 1 + 260 / (1 + TestSize(14, 260));
    for (size_t offset = 0; offset < 260 && offset < sound.size(); offset += step) {
      std::string bytes = sound;
      bytes[offset] = static_cast<char>(~bytes[offset]);
      UseWith(name, bytes);
      ASSERT_FALSE(HasFailure()) << name << " at " << offset;
    }
  }
}

TEST_F(DamagedStoreTest, FilesOfOtherThings) {
  for (const std::string& name : {std::string("wal_v5"), std::string("manifest_v5"), block_}) {
    for (const std::string& bytes :
         {std::string(), std::string("text"), std::string(4096, '\0'), std::string(4096, '\xff'),
          Sound("wal_v5"), Sound("manifest_v5"), Sound(block_)}) {
      UseWith(name, bytes);
    }
  }
}

}  // namespace
}  // namespace Kestrun::Testing
