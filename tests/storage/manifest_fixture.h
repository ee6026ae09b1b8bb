// A manifest in a directory of its own, and the operations on it as the engine carries them out: under its
// lock.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "kestrun/status.h"
#include "storage/manifest.h"
#include "tests/storage/call_result.h"
#include "tests/support/fake_clock.h"
#include "tests/support/file_bytes.h"
#include "tests/support/manifest_image.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun::Testing {

using NameList = std::vector<std::string>;

// 31 characters that begin with `head`.
inline std::string BlockName(const std::string& head) {
  return head + std::string(31 - head.size(), 'X');
}

// A filter of its own for each block, which everything passes, and which differs in length.
inline std::string FilterOf(const std::string& name) {
  return std::string(1 + static_cast<size_t>(static_cast<unsigned char>(name[0])) % 16, name[0]) + '\xFF';
}

inline std::vector<uint8_t> BytesOf(const std::string& text) {
  return std::vector<uint8_t>(text.begin(), text.end());
}

inline NameList NamesOf(const BlockEntries& entries) {
  NameList names;
  for (const auto& entry : entries) names.push_back(entry->name);
  return names;
}

// The status of opening; `*manifest` is the manifest, or null when none was handed out.
inline uint32_t OpenManifest(const std::string& path, std::unique_ptr<Manifest>* manifest) {
  Manifest* opened = nullptr;
  const uint32_t status = Manifest::Open(path, &opened);
  manifest->reset(opened);
  return status;
}

inline std::unique_ptr<Manifest> OpenManifest(const std::string& path) {
  std::unique_ptr<Manifest> manifest;
  EXPECT_EQ(OpenManifest(path, &manifest), kStatusOk);
  EXPECT_NE(manifest, nullptr);
  return manifest;
}

inline uint32_t Append(Manifest& manifest, const std::string& name, const std::string& filter) {
  const FileLockGuard lock(manifest.File(), LockLevel::Exclusive);
  return lock.Status() != kStatusOk ? lock.Status() : manifest.Append(name, BytesOf(filter));
}
inline uint32_t Append(Manifest& manifest, const std::string& name) {
  return Append(manifest, name, FilterOf(name));
}

inline uint32_t Truncate(Manifest& manifest) {
  const FileLockGuard lock(manifest.File(), LockLevel::Exclusive);
  return lock.Status() != kStatusOk ? lock.Status() : manifest.Truncate();
}

inline uint32_t Load(Manifest& manifest) {
  const FileLockGuard lock(manifest.File(), LockLevel::Shared);
  return lock.Status() != kStatusOk ? lock.Status() : manifest.Load();
}

inline BlockEntries Entries(Manifest& manifest) {
  const FileLockGuard lock(manifest.File(), LockLevel::Shared);
  return lock.Status() != kStatusOk ? BlockEntries() : manifest.Entries();
}
inline NameList Names(Manifest& manifest) {
  return NamesOf(Entries(manifest));
}

class ManifestTest : public testing::Test {
 protected:
  explicit ManifestTest(ScratchDirectory::Place place = ScratchDirectory::Place::Disk) : directory_(place) {}

  std::string NewPath() { return directory_.PathOf("manifest_v5." + std::to_string(++files_)); }
  std::string Bytes() const { return ReadFile(path_); }
  std::string SidePath() const { return path_ + ".next"; }
  static bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

  // Puts an entry as this process writes it at the moment.
  void AppendTo(ManifestImage& image, const std::string& name) const {
    image.Append(name, FilterOf(name), clock_.Now());
  }

  const ScratchDirectory directory_;
  const std::string path_ = directory_.PathOf("manifest_v5");
  FakeClock clock_;
  const std::string a_ = BlockName("A");
  const std::string b_ = BlockName("B");
  const std::string c_ = BlockName("C");
  const std::string d_ = BlockName("D");

 private:
  int files_ = 0;
};

}  // namespace Kestrun::Testing
