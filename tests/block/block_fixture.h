// What the tests of block files share: files in a directory of their own, loaded, and a log to write from.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "block/block.h"
#include "kestrun/status.h"
#include "storage/wal.h"
#include "tests/support/block_image.h"
#include "tests/support/file_bytes.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun::Testing {

class BlockTest : public ::testing::Test {
 protected:
  std::string PathOf(const std::string& name) const { return directory_.PathOf(name); }

  // Writes `bytes` as a block file; its path.
  std::string Store(const std::string& name, const std::string& bytes) const {
    WriteFile(PathOf(name), bytes);
    return PathOf(name);
  }

  // Null where the status is not success.
  static std::unique_ptr<Block> Load(const std::string& path, uint32_t* status) {
    Block* block = nullptr;
    *status = Block::Load(path, &block);
    EXPECT_EQ(block != nullptr, *status == kStatusOk);
    return std::unique_ptr<Block>(block);
  }
  static std::unique_ptr<Block> Load(const std::string& path) {
    uint32_t status = kStatusOk;
    std::unique_ptr<Block> block = Load(path, &status);
    EXPECT_EQ(status, kStatusOk);
    return block;
  }
  static uint32_t LoadStatus(const std::string& path) {
    uint32_t status = kStatusOk;
    Load(path, &status);
    return status;
  }

  std::unique_ptr<Wal> OpenWal(uint32_t walSize = 64 * 1024, const std::string& name = "wal_v5") const {
    Wal* wal = nullptr;
    EXPECT_EQ(Wal::Open(PathOf(name), {walSize, 0}, &wal), kStatusOk);
    return std::unique_ptr<Wal>(wal);
  }

  // The file that WriteFromWal makes of the log.
  std::unique_ptr<Block> WriteFromWal(Wal& wal, const std::string& name) const {
    Block* block = nullptr;
    EXPECT_EQ(Block::WriteFromWal(PathOf(name), wal, &block), kStatusOk);
    return std::unique_ptr<Block>(block);
  }
  std::unique_ptr<Block> WriteFromBlocks(const std::vector<std::string>& sources,
                                         const std::string& name) const {
    Block* block = nullptr;
    EXPECT_EQ(Block::WriteFromBlocks(PathOf(name), sources, &block), kStatusOk);
    return std::unique_ptr<Block>(block);
  }

  static std::vector<std::string> KeysOf(const Block& block, const Key& from = Key::MinKey(),
                                         const Key& to = Key::MaxKey()) {
    std::vector<std::string> keys;
    block.ForEachInRange(from, to, [&keys](const Key& key) {
      keys.emplace_back(reinterpret_cast<const char*>(key.Data()), key.Size());
      return false;
    });
    return keys;
  }

  struct Value {
    uint32_t status;
    bool isNull;
    std::string bytes;
  };
  static Value ReadValue(const Block& block, const Key& key) {
    DataEntry entry = {};
    if (const uint32_t status = block.Lookup(key, &entry); status != kStatusOk) return {status, true, {}};
    char untouched = 0;
    void* value = &untouched;
    Value result = {block.ReadValue(entry, &value), value == nullptr, {}};
    if (value != nullptr && value != &untouched) {
      result.bytes.assign(static_cast<const char*>(value), entry.valueSize);
      std::free(value);
    }
    return result;
  }

  static uint32_t Insert(Wal& wal, const std::string& key, const std::string& value,
                         uint32_t ttl = 0xFFFFFFFF) {
    return wal.Insert(Key(key), ttl, value.data(), static_cast<uint32_t>(value.size()));
  }

  ScratchDirectory directory_;
};

}  // namespace Kestrun::Testing
