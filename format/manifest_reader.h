// format/manifest_reader.h: the one reader of the manifest, manifest_v5, and of its journal, manifest_v5.next
// (format/manifest_format.h).
//
// Ownership: a reader borrows its source, which must outlive it.
// Threads:   one at a time for each reader; the functions may run at any time.
// Failure:   what can't be right ends a walk; End and Offset say why and where. May throw std::bad_alloc.
// Units:     offsets are bytes from the start of the source, times are seconds since the Unix epoch.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "format/byte_source.h"
#include "format/byte_window.h"
#include "format/file_header.h"
#include "format/manifest_format.h"

namespace Kestrun {

using ManifestHeaderView = FileHeaderView<ManifestHeader>;
ManifestHeaderView ReadManifestHeader(ByteSource& source);

enum class ManifestEnd {
  Complete,  // the source ends after an entry
  CutEntry,  // the source ends inside the fixed part of an entry, which readers pass over
  TornEntry,  // the entry did not reach the disk before a loss of power (format/torn_entry.h); readers pass over it
  BadChecksum,  // the entry fails its checksum
  BadName,      // the name of the entry has no end, or leads out of the directory
  CutFilter,    // the source ends inside the filter of the entry
  Unreadable,   // the system can't read the entry
};

// The list that the walk gave is the manifest's.
inline bool IsWholeList(ManifestEnd end) {
  return end == ManifestEnd::Complete || end == ManifestEnd::CutEntry || end == ManifestEnd::TornEntry;
}

// A name is one that a store gives: 31 digits and capital letters.
bool IsBlockName(const std::string& name);

struct ManifestEntryView {
  ManifestEntry entry = {};
  uint64_t offset = 0;  // of the entry; its filter begins sizeof(ManifestEntry) after it
  std::string name;     // of the block, up to its NUL

  uint64_t FilterOffset() const { return offset + sizeof(ManifestEntry); }
};

class ManifestReader {
 public:
  // Walks the entries from `start` up to the end of the source, `end`. Entries out of a journal start at 0 of
  // a source that holds nothing else.
  ManifestReader(ByteSource& source, uint64_t end, uint64_t start = sizeof(ManifestHeader));

  // Goes to the next entry; false at the end of the walk. An entry of a BadName is handed out by Entry, but
  // ends the walk unless `acceptAnyName`.
  bool Next(bool acceptAnyName = false);
  const ManifestEntryView& Entry() const { return entry_; }
  // The filter of the entry; false when it is longer than `most` bytes or can't be read.
  bool ReadFilter(std::vector<uint8_t>* filter, uint64_t most = UINT64_MAX);

  // Why the walk ended, and where: after the last sound entry.
  ManifestEnd End() const { return end_; }
  uint64_t Offset() const { return offset_; }
  uint64_t Entries() const { return entries_; }

 private:
  ManifestEnd Examine(bool acceptAnyName);
  bool EndsTorn();

  ByteSource& source_;
  ByteWindow window_;
  uint64_t size_;
  uint64_t offset_;
  uint64_t entries_ = 0;
  ManifestEnd end_ = ManifestEnd::Complete;
  ManifestEntryView entry_;
};

// What a journal tells.
struct ManifestJournal {
  uint32_t generation = 0;
  uint64_t oldLength = 0;
  uint64_t oldHash = 0;
  std::vector<uint8_t> entries;
};

// A 64-bit hash of `size` bytes, begun with another hash.
uint64_t ManifestJournalHash(const void* data, size_t size, uint64_t begun = 0xCBF29CE484222325u);
// The bytes of a journal.
std::vector<uint8_t> ManifestJournalImage(const ManifestJournal& journal);

enum class JournalState {
  Complete,
  Incomplete,  // the manifest was not touched yet
  Unreadable,  // the system can't read it
};
JournalState ReadManifestJournal(ByteSource& source, ManifestJournal* journal);

// What a complete journal says of a manifest. A recovery finishes a rewrite that is Pending, and removes the
// journal in every case.
enum class RewriteState {
  OtherList,   // the journal's generation is neither the manifest's nor the next one
  NotBegun,    // the generation is not published, and the manifest's entries are the old ones
  Complete,    // the generation is published, and the entries are the new ones
  Superseded,  // the generation is published, and more follows the old entries: they were recorded since
  Pending,     // anything else: the list is what the journal holds
};

// Decides by the manifest's generation and the `size` bytes of its entries. Of an OtherList it needs no
// entries.
RewriteState ExamineRewrite(const ManifestJournal& journal, uint32_t generation, const uint8_t* entries,
                            size_t size);

}  // namespace Kestrun
