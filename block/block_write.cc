// How new block files come about: from the log, and from other blocks.
#include <cstdio>
#include <cstring>
#include <utility>

#include "base/page_size.h"
#include "block/block.h"
#include "block/buffered_writer.h"
#include "block/section_writer.h"
#include "format/block_format.h"
#include "format/checksum.h"
#include "format/file_magic.h"
#include "kestrun/status.h"
#include "storage/directory.h"

namespace Kestrun {
namespace {

// Nothing is on the disk yet when a block that offsets of 32 bits can't address is refused.
uint32_t MeasureBlock(DataSectionWriter& data) {
  if (const uint32_t status = data.Measure(); status != kStatusOk) return status;
  const BlockTotals& totals = data.Totals();
  const BlockLayout layout =
      LayOutBlock(data.Size(), sizeof(SectionHeader) + totals.keyBytes,
                  sizeof(SectionHeader) + totals.entries * sizeof(BlockDataEntry), PageSize());
  return layout.fileSize < kBlockSizeLimit ? kStatusOk : kStatusBlockWriteFailed;
}

bool WriteFileHeader(BufferedWriter& out) {
  BlockFileHeader header = {};
  std::memcpy(header.magic, kFileMagic, kMagicSize);
  header.version = kFormatVersion;
  header.checksum = StoreChecksum(&header, BlockFileHeaderOffset::kChecksum);
  return out.Append(&header, sizeof(header)) && out.Flush();
}

bool WriteSections(BufferedWriter& out, DataSectionWriter& data) {
  if (!data.WriteTo(out)) return false;
  const uint64_t pageSize = PageSize();
  KeyTabSectionWriter keys(data.Entries(), LayOutBlock(data.Size(), 0, 0, pageSize).keyTableOffset);
  if (!keys.WriteTo(out)) return false;
  EntrySectionWriter entries(data.Entries(),
                             LayOutBlock(data.Size(), keys.Size(), 0, pageSize).entryTableOffset);
  return entries.WriteTo(out);
}

// The header, the sections, the disk, the block: a block that is handed out can be read after a loss of
// power.
uint32_t WriteBlock(const std::shared_ptr<OsFile>& file, DataSectionWriter& data, uint32_t headerFailure,
                    Block** out) {
  BufferedWriter output(file);
  if (!WriteFileHeader(output)) return headerFailure;
  if (!WriteSections(output, data)) return kStatusBlockWriteFailed;
  if (file->Sync() != 0 || !SyncDirectory(DirectoryOf(file->Path()))) return kStatusSyncFailed;
  *out = new Block(file, std::move(data.Entries()));
  return kStatusOk;
}

}  // namespace

uint32_t Block::WriteFromWal(const std::string& path, Wal& wal, Block** out) {
  DataSectionWriterWithWal data(wal);
  if (const uint32_t status = MeasureBlock(data); status != kStatusOk) return status;
  std::shared_ptr<OsFile> file;
  if (const uint32_t status = OsFile::Open(path, kOpenReadWrite, &file); status != kStatusOk) return status;
  return WriteBlock(file, data, kStatusCreateFailed, out);
}

uint32_t Block::WriteFromBlocks(const std::string& path, const std::vector<std::string>& sources,
                                Block** out) {
  std::vector<BlockSource> files;
  for (const std::string& source : sources) files.push_back({source, nullptr});
  return WriteFromBlocks(path, files, out);
}

uint32_t Block::WriteFromBlocks(const std::string& path, const std::vector<BlockSource>& sources,
                                Block** out) {
  DataSectionWriterWithBlocks data(sources);
  if (const uint32_t status = MeasureBlock(data); status != kStatusOk) return status;
  std::shared_ptr<OsFile> file;
  if (const uint32_t status = OsFile::Open(path, kOpenReadWrite, &file); status != kStatusOk) {
    std::printf("Failed to open destination file: %s", path.c_str());
    return status;
  }
  // Callers tell the two writers apart by the status of an unwritten header.
  return WriteBlock(file, data, kStatusBlockWriteFailed, out);
}

uint32_t Block::Merge(const std::string& path, const std::vector<BlockSource>& sources,
                      const MergeOptions& options, Block** out) {
  if (options.keepsHidden) return kStatusBlockWriteFailed;
  return WriteFromBlocks(path, sources, out);
}

}  // namespace Kestrun
