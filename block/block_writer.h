// block/block_writer.h: writes a new block file from a cursor's entries.
//
// A flush and a merge are this one loop over different cursors.
//
// Ownership: borrows the cursor.
// Threads:   one thread at a time. The caller sees to it that the cursor's sources stay as they are.
// Failure:   statuses; may throw std::bad_alloc. After a failure what was written stays.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "block/block.h"
#include "block/section_writer.h"
#include "kestrun/status.h"

namespace Kestrun {

struct BlockWriteOptions {
  // What an unwritten file header gives; everything else that can't be written gives kStatusBlockWriteFailed.
  uint32_t headerFailure = kStatusBlockWriteFailed;
  // If set, an entry that expires while the block is written is left out, and this is called for it.
  std::function<void()> onExpired;
  // A value that its file does not hold ends the writing with kStatusBlockCorrupt. Otherwise
  // its entry is left out.
  bool isStrict = false;
  // If set, the writing ends with kStatusBlockWriteFailed soon after it becomes true.
  const std::atomic<bool>* stop = nullptr;
};

// Writes the header of a block file. False when it could not be written.
bool WriteFileHeader(BufferedWriter& out);

class BlockWriter {
 public:
  BlockWriter(EntryCursor& cursor, BlockWriteOptions options);

  // Walks the cursor. Nothing has been written when it fails.
  //
  // kStatusBlockWriteFailed  a source can't be read, or the block would reach 4 GiB
  uint32_t Measure();

  // Writes what was measured, and syncs the file and its name. The file is written from
  // its start and not cut.
  //
  // kStatusBlockWriteFailed  a section could not be written, or a value not be read
  // kStatusSyncFailed        the file or its directory could not be synced
  // options.headerFailure
  uint32_t Write(const std::shared_ptr<OsFile>& file, std::unique_ptr<Block>* out);

 private:
  DataSectionWriter data_;
  uint32_t headerFailure_;
};

// Measures, makes the file `path` and writes it. The statuses of both, and
// kStatusOpenFailed, kStatusStatFailed.
uint32_t WriteBlock(const std::string& path, EntryCursor& cursor, BlockWriteOptions options,
                    std::unique_ptr<Block>* out);

}  // namespace Kestrun
