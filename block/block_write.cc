// Writes new block files from the log and from other blocks.
#include <utility>

#include "base/page_size.h"
#include "block/block.h"
#include "block/block_writer.h"
#include "block/log_cursor.h"
#include "block/merge_cursor.h"
#include "block/stream_block.h"
#include "kestrun/status.h"

namespace Kestrun {

uint32_t Block::WriteFromWal(const std::string& path, Wal& wal, Block** out) {
  LogCursor cursor(wal);
  BlockWriteOptions options;
  options.headerFailure = kStatusCreateFailed;  // Compat: block-header-status
  std::unique_ptr<Block> block;
  const uint32_t status = WriteBlock(path, cursor, std::move(options), &block);
  if (status == kStatusOk) *out = block.release();
  return status;
}

uint32_t Block::WriteFromBlocks(const std::string& path, const std::vector<std::string>& sources, Block** out,
                                const Diagnostics& diagnostics) {
  std::vector<BlockSource> files;
  for (const std::string& source : sources) files.push_back({source, nullptr});
  return WriteFromBlocks(path, files, out, diagnostics);
}

uint32_t Block::WriteFromBlocks(const std::string& path, const std::vector<BlockSource>& sources, Block** out,
                                const Diagnostics& diagnostics) {
  MergeCursor cursor(sources);
  BlockWriteOptions options;
  options.onExpired = [&diagnostics] { diagnostics.Print("TTL verification failed"); };
  BlockWriter writer(cursor, std::move(options));
  if (const uint32_t status = writer.Measure(); status != kStatusOk) return status;
  std::shared_ptr<OsFile> file;
  if (const uint32_t status = OsFile::Open(path, kOpenReadWrite, &file); status != kStatusOk) {
    diagnostics.Printf("Failed to open destination file: %s", path.c_str());
    return status;
  }
  std::unique_ptr<Block> block;
  const uint32_t status = writer.Write(file, &block);
  if (status == kStatusOk) *out = block.release();
  return status;
}

uint32_t Block::Merge(const std::string& path, const std::vector<BlockSource>& sources,
                      const MergeOptions& options, Block** out, std::shared_ptr<const BlockFilter>* filter) {
  MergeCursor cursor(sources, options.keepsHidden ? DeadEntries::Keep : DeadEntries::Drop);
  if (filter != nullptr) filter->reset();
  std::unique_ptr<Block> block;
  uint64_t entries = 0;
  uint32_t status = cursor.CountEntries(&entries);
  if (status != kStatusOk) return status;
  if (entries > options.maxIndexed) {
    std::shared_ptr<OsFile> file;
    std::shared_ptr<const BlockTable> table;
    status = StreamBlock(path, cursor, options.stop, &file);
    if (status == kStatusOk) status = BlockTable::Learn(file, PageSize(), &table, filter);
    if (status == kStatusOk) *out = new Block(std::move(file), std::move(table));
    return status == kStatusInvalid ? kStatusBlockWriteFailed : status;
  }
  BlockWriteOptions writing;
  writing.isStrict = true;
  writing.stop = options.stop;
  status = WriteBlock(path, cursor, std::move(writing), &block);
  if (status == kStatusOk) *out = block.release();
  return status;
}

}  // namespace Kestrun
