#include "block/block_writer.h"

#include <cstring>
#include <utility>

#include "base/page_size.h"
#include "format/block_format.h"
#include "format/checksum.h"
#include "format/file_magic.h"
#include "kestrun/status.h"
#include "storage/directory.h"

namespace Kestrun {

bool WriteFileHeader(BufferedWriter& out) {
  BlockFileHeader header = {};
  std::memcpy(header.magic, kFileMagic, kMagicSize);
  header.version = kFormatVersion;
  header.checksum = StoreChecksum(&header, BlockFileHeaderOffset::kChecksum);
  return out.Append(&header, sizeof(header)) && out.Flush();
}

namespace {

bool WriteSections(BufferedWriter& out, DataSectionWriter& data) {
  if (!data.WriteTo(out)) return false;
  const uint64_t pageSize = PageSize();
  KeyTabSectionWriter keys(data.Entries(), LayOutBlock(data.Size(), 0, 0, pageSize).keyTableOffset);
  if (!keys.WriteTo(out)) return false;
  EntrySectionWriter entries(data.Entries(),
                             LayOutBlock(data.Size(), keys.Size(), 0, pageSize).entryTableOffset);
  return entries.WriteTo(out);
}

}  // namespace

BlockWriter::BlockWriter(EntryCursor& cursor, BlockWriteOptions options)
    : data_(cursor, std::move(options.onExpired), options.isStrict, options.stop),
      headerFailure_(options.headerFailure) {}

// Nothing is on the disk yet when a block that offsets of 32 bits can't address is refused.
uint32_t BlockWriter::Measure() {
  return data_.Measure();
}

// The header, the sections, the disk, the block: a block that is handed out can be read after a loss of
// power.
uint32_t BlockWriter::Write(const std::shared_ptr<OsFile>& file, std::unique_ptr<Block>* out) {
  BufferedWriter output(file);
  if (!WriteFileHeader(output)) return headerFailure_;
  if (!WriteSections(output, data_)) {
    return data_.FoundDamage() ? kStatusBlockCorrupt : kStatusBlockWriteFailed;
  }
  if (file->Sync() != 0 || !SyncDirectory(DirectoryOf(file->Path()))) return kStatusSyncFailed;
  *out = std::make_unique<Block>(file, data_.TakeEntries());
  return kStatusOk;
}

uint32_t WriteBlock(const std::string& path, EntryCursor& cursor, BlockWriteOptions options,
                    std::unique_ptr<Block>* out) {
  BlockWriter writer(cursor, std::move(options));
  if (const uint32_t status = writer.Measure(); status != kStatusOk) return status;
  std::shared_ptr<OsFile> file;
  if (const uint32_t status = OsFile::Open(path, kOpenReadWrite, &file); status != kStatusOk) return status;
  return writer.Write(file, out);
}

}  // namespace Kestrun
