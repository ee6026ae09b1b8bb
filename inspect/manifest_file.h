// inspect/manifest_file.h: reads the list of blocks of a store, manifest_v5.
//
// Threads: as the file. Failure: what can't be read ends a scan; the result says where and why.
// Units:   offsets are bytes from the start of the file, times are seconds since the Unix epoch.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "format/manifest_format.h"
#include "inspect/read_only_file.h"

namespace Kestrun::Inspect {

// A change of the manifest that has not been finished lies beside it under the manifest's name and this
// ending; the next opening of the store finishes or drops it.
inline constexpr char kUnfinishedManifestEnding[] = ".next";

// A filter of a store has at most 4097 bytes. Larger ones are read up to this size.
inline constexpr uint64_t kMaxFilter = uint64_t{16} << 20;

// A hostile manifest can name far more blocks than there are files. Lists of them end here.
inline constexpr size_t kMaxBlocks = size_t{1} << 20;

struct ManifestHeaderView {
  ManifestHeader header = {};
  bool complete = false;  // the file holds all of it; otherwise nothing else is set
  bool checksumMatches = false;
  bool magicMatches = false;

  // A store opens this manifest as far as its header goes.
  bool Usable() const { return complete && checksumMatches && magicMatches; }
};

struct ManifestRecordView {
  ManifestEntry entry = {};
  uint64_t offset = 0;  // of the record; its filter begins sizeof(ManifestEntry) behind it
  std::string name;     // of the block, up to its NUL

  uint64_t FilterOffset() const { return offset + sizeof(ManifestEntry); }
  // The name is one that a store gives: 31 digits and capital letters. A name that is not must not be made
  // part of a path.
  bool IsValidName() const;
};

enum class ManifestEnd {
  Complete,     // the file ends behind a record
  Stopped,      // the visitor asked for it
  TornRecord,   // the file ends inside the fixed part of the record at endOffset, which readers pass over
  BadChecksum,  // the record at endOffset fails its checksum
  CutFilter,    // the file ends inside the filter of the record at endOffset
  Unreadable,   // the file can't be read at endOffset
};

struct ManifestScan {
  ManifestEnd end = ManifestEnd::Complete;
  uint64_t endOffset = sizeof(ManifestHeader);  // behind the last whole record
  uint64_t records = 0;
};

ManifestHeaderView ReadManifestHeader(const ReadOnlyFile& file);

// Visits the records, oldest block first, up to the first that can't be right. The visitor returns false to
// stop.
ManifestScan ScanManifest(const ReadOnlyFile& file,
                          const std::function<bool(const ManifestRecordView&)>& visit);

// The filter of a record; false when it can't be read or is larger than kMaxFilter.
bool ReadFilter(const ReadOnlyFile& file, const ManifestRecordView& record, std::vector<uint8_t>* filter);

}  // namespace Kestrun::Inspect
