// A log in a directory of its own, and the operations on it as the engine carries them out: under its lock.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "kestrun/status.h"
#include "storage/wal.h"
#include "tests/storage/call_result.h"
#include "tests/support/fake_clock.h"
#include "tests/support/file_bytes.h"
#include "tests/support/log_image.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun::Testing {

inline constexpr uint32_t kTtl = 0xFFFFFFFF;
inline constexpr char kNoRoom[] = "Wal is fullFailed to reserve write space\n";
inline constexpr char kBadHeader[] = "Invalid wal checksumFailed to reserve write space\n";

// The status of opening; `*wal` is the log, or null when none was handed out.
inline uint32_t OpenWal(const std::string& path, uint32_t walSize, std::unique_ptr<Wal>* wal) {
  Wal* opened = nullptr;
  const LSDBConfig config = {walSize, 7};
  const uint32_t status = Wal::Open(path, config, &opened);
  wal->reset(opened);
  return status;
}

inline std::unique_ptr<Wal> OpenWal(const std::string& path, uint32_t walSize = 129) {
  std::unique_ptr<Wal> wal;
  EXPECT_EQ(OpenWal(path, walSize, &wal), kStatusOk);
  EXPECT_NE(wal, nullptr);
  return wal;
}

inline uint32_t Insert(Wal& wal, const std::string& key, const std::string& value, uint32_t ttl = kTtl) {
  const FileLockGuard lock(wal.File(), LockLevel::Exclusive);
  if (lock.Status() != kStatusOk) return lock.Status();
  return wal.Insert(Key(key), ttl, value.data(), static_cast<uint32_t>(value.size()));
}

inline uint32_t Delete(Wal& wal, const std::string& key) {
  const FileLockGuard lock(wal.File(), LockLevel::Exclusive);
  return lock.Status() != kStatusOk ? lock.Status() : wal.Delete(Key(key));
}

inline uint32_t Reset(Wal& wal) {
  const FileLockGuard lock(wal.File(), LockLevel::Exclusive);
  return lock.Status() != kStatusOk ? lock.Status() : wal.Reset();
}

// What the log says of a key: its value, or one of the words below.
inline constexpr char kMissing[] = "<missing>";
inline constexpr char kDeleted[] = "<deleted>";
inline std::string Get(Wal& wal, const std::string& key) {
  const FileLockGuard lock(wal.File(), LockLevel::Shared);
  if (lock.Status() != kStatusOk) return "<locked>";
  DataEntry entry = {};
  if (!wal.Lookup(Key(key), &entry)) return kMissing;
  if (entry.deleted) return kDeleted;
  void* value = nullptr;
  if (const uint32_t status = wal.ReadValue(entry, &value); status != kStatusOk) {
    return "<status " + std::to_string(status) + ">";
  }
  const std::string text(static_cast<const char*>(value), entry.valueSize);
  std::free(value);
  return text;
}

// The keys from `from` up to `to`, in the order of the walk.
inline std::vector<std::string> Keys(Wal& wal, const Key& from = Key(""), const Key& to = Key("\xFF")) {
  const FileLockGuard lock(wal.File(), LockLevel::Shared);
  std::vector<std::string> keys;
  wal.Enumerate(from, to, [&](const Key& key) {
    keys.emplace_back(reinterpret_cast<const char*>(key.Data()), key.Size());
    return false;
  });
  return keys;
}
using KeyList = std::vector<std::string>;

class WalTest : public testing::Test {
 protected:
  explicit WalTest(ScratchDirectory::Place place = ScratchDirectory::Place::Disk) : directory_(place) {}

  // A file of the same directory that no test has used yet.
  std::string NewPath() { return directory_.PathOf("wal_v5." + std::to_string(++files_)); }
  void Put(const LogImage& image) { WriteFile(path_, image.Bytes()); }
  std::string Bytes() const { return ReadFile(path_); }

  const ScratchDirectory directory_;
  const std::string path_ = directory_.PathOf("wal_v5");
  FakeClock clock_;

 private:
  int files_ = 0;
};

}  // namespace Kestrun::Testing
