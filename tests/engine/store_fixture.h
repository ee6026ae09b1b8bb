// What the tests of the engine share: a store in a directory of its own, and what its files say.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "kestrun/lsdb.h"
#include "kestrun/status.h"
#include "tests/support/file_bytes.h"
#include "tests/support/file_image.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun::Testing {

using Strings = std::vector<std::string>;

// What the engine prints when the log has no room for an entry.
inline constexpr char kFull[] = "Wal is fullFailed to reserve write space\n";

// What Get gave.
struct Got {
  uint32_t status;
  bool valueSet;  // the out-value is no longer what it was before
  bool sizeSet;
  bool isNull;
  unsigned int size;
  std::string bytes;
};

class StoreTest : public ::testing::Test {
 protected:
  static constexpr unsigned int kLong = 0xFFFFFFFF;  // seconds
  static constexpr uint32_t kWalSize = 4096;

  StoreTest() : path_(directory_.PathOf("store")) {}

  std::unique_ptr<LSDBImpl> Open(uint32_t walSize = kWalSize) const {
    LSDBImpl* engine = nullptr;
    EXPECT_EQ(LSDBImpl::Open(path_, {walSize, 0}, &engine), kStatusOk);
    return std::unique_ptr<LSDBImpl>(engine);
  }

  static uint32_t Insert(LSDBImpl& engine, const std::string& key, const std::string& value,
                         unsigned int ttl = kLong) {
    return engine.Insert(Key(key), ttl, value.data(), static_cast<unsigned int>(value.size()));
  }
  static Got Get(LSDBImpl& engine, const std::string& key) {
    const char before = 0;
    const void* value = &before;
    unsigned int size = 0xDEAD;
    Got got = {engine.Get(Key(key), &value, &size), false, false, false, size, {}};
    got.valueSet = value != &before;
    got.sizeSet = size != 0xDEAD;
    got.isNull = value == nullptr;
    if (got.valueSet && !got.isNull) {
      got.bytes.assign(static_cast<const char*>(value), size);
      std::free(const_cast<void*>(value));
    }
    return got;
  }
  // The value, or a word in brackets that says what there is instead.
  static std::string Value(LSDBImpl& engine, const std::string& key) {
    const Got got = Get(engine, key);
    if (got.status != kStatusOk) return "<status " + std::to_string(got.status) + ">";
    return got.isNull ? "<none>" : got.bytes;
  }
  static Strings Keys(LSDBImpl& engine, const Key& from = Key::MinKey(), const Key& to = Key::MaxKey()) {
    Strings keys;
    EXPECT_EQ(engine.EnumerateKeys(from, to,
                                   [&keys](const Key& key) {
                                     keys.push_back(Text(key));
                                     return false;
                                   }),
              kStatusOk);
    return keys;
  }
  static std::string Text(const Key& key) {
    return std::string(reinterpret_cast<const char*>(key.Data()), key.Size());
  }

  static void Flush(LSDBImpl& engine) { ASSERT_EQ(engine.ResetWal(), kStatusOk); }
  // Writes the entries and flushes them into a block of their own.
  static void MakeBlock(LSDBImpl& engine, const std::vector<std::pair<std::string, std::string>>& entries) {
    for (const auto& [key, value] : entries) ASSERT_EQ(Insert(engine, key, value), kStatusOk);
    ASSERT_EQ(engine.ResetWal(), kStatusOk);
  }
  static void MakeBlocks(LSDBImpl& engine, int count) {
    for (int i = 0; i < count; ++i) {
      const std::string number = std::to_string(i);
      MakeBlock(engine, {{"key" + number, "value" + number}, {"shared", number}});
    }
  }

  std::string PathOf(const std::string& name) const { return path_ + "/" + name; }
  bool Exists(const std::string& name) const { return std::filesystem::exists(PathOf(name)); }

  // The names in the store's directory that contain `part`, sorted.
  Strings Files(const std::string& part = "") const {
    Strings names;
    for (const auto& entry : std::filesystem::directory_iterator(path_)) {
      const std::string name = entry.path().filename();
      if (name.find(part) != std::string::npos) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  Strings BlockFiles() const { return Files(".blk_v5"); }

  FileImage Manifest() const { return FileImage(ReadFile(PathOf("manifest_v5"))); }
  uint32_t Generation() const { return Manifest().Get32(12); }
  // The files of the blocks that the manifest lists, oldest first.
  Strings ListedBlocks() const {
    Strings names;
    const FileImage manifest = Manifest();
    for (size_t at = 128; at + 56 <= manifest.Bytes().size(); at += 56 + manifest.Get32(at + 48)) {
      names.push_back(std::string(manifest.Bytes().c_str() + at) + ".blk_v5");
    }
    return names;
  }
  // The filter of a listed block.
  std::string Filter(size_t index) const {
    const FileImage manifest = Manifest();
    size_t at = 128;
    for (; index > 0; --index) at += 56 + manifest.Get32(at + 48);
    return manifest.Bytes().substr(at + 56, manifest.Get32(at + 48));
  }
  uint32_t LogUsed() const { return FileImage(ReadFile(PathOf("wal_v5"))).Get32(12); }

  // Everything that lies in the store's directory, to be compared with a later state.
  std::vector<std::pair<std::string, std::string>> Contents() const {
    std::vector<std::pair<std::string, std::string>> contents;
    for (const std::string& name : Files()) {
      const bool isFile = std::filesystem::is_regular_file(PathOf(name));
      contents.emplace_back(name, isFile ? ReadFile(PathOf(name)) : "");
    }
    return contents;
  }

  ScratchDirectory directory_;
  std::string path_;
};

}  // namespace Kestrun::Testing
