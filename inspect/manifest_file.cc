#include "inspect/manifest_file.h"

#include <algorithm>
#include <cstring>

#include "format/checksum.h"
#include "format/file_magic.h"

namespace Kestrun::Inspect {

bool ManifestRecordView::IsValidName() const {
  return name.size() == kBlockNameLength && std::all_of(name.begin(), name.end(), [](char letter) {
           return (letter >= '0' && letter <= '9') || (letter >= 'A' && letter <= 'Z');
         });
}

ManifestHeaderView ReadManifestHeader(const ReadOnlyFile& file) {
  ManifestHeaderView view;
  uint8_t bytes[sizeof(ManifestHeader)];
  if (!file.ReadAt(0, bytes, sizeof(bytes))) return view;
  std::memcpy(&view.header, bytes, sizeof(bytes));
  view.complete = true;
  view.checksumMatches = view.header.checksum == StoreChecksum(bytes, ManifestHeaderOffset::kChecksum);
  view.magicMatches = std::memcmp(bytes, kFileMagic, kMagicSize) == 0;
  return view;
}

ManifestScan ScanManifest(const ReadOnlyFile& file,
                          const std::function<bool(const ManifestRecordView&)>& visit) {
  ManifestScan scan;
  FileWindow window(file);
  ManifestRecordView record;
  const auto endWith = [&scan](ManifestEnd end) {
    scan.end = end;
    return scan;
  };

  while (scan.endOffset < file.Size()) {
    record.offset = scan.endOffset;
    uint8_t bytes[sizeof(ManifestEntry)];
    if (file.Size() - record.offset < sizeof(bytes)) return endWith(ManifestEnd::TornRecord);
    if (!window.ReadAt(record.offset, bytes, sizeof(bytes))) return endWith(ManifestEnd::Unreadable);
    std::memcpy(&record.entry, bytes, sizeof(bytes));
    if (record.entry.checksum != StoreChecksum(bytes, ManifestEntryOffset::kChecksum)) {
      return endWith(ManifestEnd::BadChecksum);
    }
    if (record.entry.filterSize > file.Size() - record.FilterOffset()) return endWith(ManifestEnd::CutFilter);

    const char* name = record.entry.name;
    record.name.assign(name, strnlen(name, sizeof(record.entry.name)));
    ++scan.records;
    scan.endOffset = record.FilterOffset() + record.entry.filterSize;
    if (!visit(record)) return endWith(ManifestEnd::Stopped);
  }
  return scan;
}

bool ReadFilter(const ReadOnlyFile& file, const ManifestRecordView& record, std::vector<uint8_t>* filter) {
  filter->clear();
  if (record.entry.filterSize > kMaxFilter) return false;
  filter->resize(record.entry.filterSize);
  return file.ReadAt(record.FilterOffset(), filter->data(), filter->size());
}

}  // namespace Kestrun::Inspect
