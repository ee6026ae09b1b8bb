#include "format/manifest_reader.h"

#include <algorithm>
#include <cstring>

#include "format/checksum.h"
#include "format/file_magic.h"
#include "format/torn_entry.h"

namespace Kestrun {
namespace {

constexpr size_t kListWindow = 64 << 10;

constexpr uint64_t kMaxJournal = uint64_t{1} << 30;  // a manifest is far shorter

uint64_t HashOf(const ManifestJournalHeader& header, const uint8_t* entries, size_t size) {
  return ManifestJournalHash(entries, size, ManifestJournalHash(&header, ManifestJournalHeaderOffset::kHash));
}

}  // namespace

ManifestHeaderView ReadManifestHeader(ByteSource& source) {
  return ReadFileHeader<ManifestHeader>(source, ManifestHeaderOffset::kChecksum);
}

bool IsBlockName(const std::string& name) {
  return name.size() == kBlockNameLength && std::all_of(name.begin(), name.end(), [](char letter) {
           return (letter >= '0' && letter <= '9') || (letter >= 'A' && letter <= 'Z');
         });
}

ManifestReader::ManifestReader(ByteSource& source, uint64_t end, uint64_t start)
    : source_(source), window_(source, kListWindow), size_(end), offset_(start) {}

bool ManifestReader::Next(bool acceptAnyName) {
  if (offset_ >= size_) return false;
  end_ = Examine(acceptAnyName);
  if (end_ == ManifestEnd::BadChecksum && EndsTorn()) end_ = ManifestEnd::TornEntry;
  if (end_ != ManifestEnd::Complete) return false;
  ++entries_;
  offset_ = entry_.FilterOffset() + entry_.entry.filterSize;
  return true;
}

ManifestEnd ManifestReader::Examine(bool acceptAnyName) {
  uint8_t bytes[sizeof(ManifestEntry)];
  if (size_ - offset_ < sizeof(bytes)) return ManifestEnd::CutEntry;
  if (!window_.Copy(offset_, bytes, sizeof(bytes))) return ManifestEnd::Unreadable;
  ManifestEntry& entry = entry_.entry;
  std::memcpy(&entry, bytes, sizeof(entry));
  if (entry.checksum != StoreChecksum(bytes, ManifestEntryOffset::kChecksum)) return ManifestEnd::BadChecksum;

  entry_.offset = offset_;
  entry_.name.assign(entry.name, strnlen(entry.name, sizeof(entry.name)));
  const bool usable = entry_.name.size() < sizeof(entry.name) && entry_.name.find('/') == std::string::npos;
  if (!usable && !acceptAnyName) return ManifestEnd::BadName;
  return entry.filterSize > size_ - entry_.FilterOffset() ? ManifestEnd::CutFilter : ManifestEnd::Complete;
}

// Whether everything after the sound entries is one whose bytes were lost with the power.
bool ManifestReader::EndsTorn() {
  if (size_ - offset_ > kMaxManifestEntry) return false;
  std::vector<uint8_t> tail(static_cast<size_t>(size_ - offset_));
  return ReadExactly(source_, offset_, tail.data(), tail.size()) &&
         IsTornEntry(tail.data(), tail.size(), offset_);
}

bool ManifestReader::ReadFilter(std::vector<uint8_t>* filter, uint64_t most) {
  filter->clear();
  if (entry_.entry.filterSize > most) return false;
  filter->resize(entry_.entry.filterSize);
  return window_.Copy(entry_.FilterOffset(), filter->data(), filter->size());
}

uint64_t ManifestJournalHash(const void* data, size_t size, uint64_t begun) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  for (size_t i = 0; i < size; ++i) begun = (begun ^ bytes[i]) * 0x100000001B3u;
  return begun;
}

std::vector<uint8_t> ManifestJournalImage(const ManifestJournal& journal) {
  ManifestJournalHeader header = {};
  std::memcpy(header.magic, kFileMagic, kMagicSize);
  header.version = kFormatVersion;
  header.generation = journal.generation;
  header.oldLength = journal.oldLength;
  header.oldHash = journal.oldHash;
  header.hash = HashOf(header, journal.entries.data(), journal.entries.size());

  std::vector<uint8_t> image(sizeof(header) + journal.entries.size());
  std::memcpy(image.data(), &header, sizeof(header));
  if (!journal.entries.empty()) {
    std::memcpy(image.data() + sizeof(header), journal.entries.data(), journal.entries.size());
  }
  return image;
}

JournalState ReadManifestJournal(ByteSource& source, ManifestJournal* journal) {
  uint64_t size = 0;
  if (!source.Size(&size)) return JournalState::Unreadable;
  if (size < sizeof(ManifestJournalHeader) || size > kMaxJournal) return JournalState::Incomplete;
  std::vector<uint8_t> image(static_cast<size_t>(size));
  const ssize_t count = source.ReadAt(0, image.data(), image.size());
  if (count < 0) return JournalState::Unreadable;
  image.resize(static_cast<size_t>(count));
  if (image.size() < sizeof(ManifestJournalHeader)) return JournalState::Incomplete;

  ManifestJournalHeader header;
  std::memcpy(&header, image.data(), sizeof(header));
  const uint8_t* entries = image.data() + sizeof(header);
  const size_t entriesSize = image.size() - sizeof(header);
  if (std::memcmp(header.magic, kFileMagic, kMagicSize) != 0 || header.version != kFormatVersion ||
      header.hash != HashOf(header, entries, entriesSize)) {
    return JournalState::Incomplete;
  }
  journal->generation = header.generation;
  journal->oldLength = header.oldLength;
  journal->oldHash = header.oldHash;
  journal->entries.assign(entries, entries + entriesSize);
  return JournalState::Complete;
}

RewriteState ExamineRewrite(const ManifestJournal& journal, uint32_t generation, const uint8_t* entries,
                            size_t size) {
  const bool isPublished = generation == journal.generation;
  if (!isPublished && generation + 1 != journal.generation) return RewriteState::OtherList;
  const bool beginsAsOld =
      size >= journal.oldLength && ManifestJournalHash(entries, journal.oldLength) == journal.oldHash;
  if (!isPublished) {
    return beginsAsOld && size == journal.oldLength ? RewriteState::NotBegun : RewriteState::Pending;
  }
  if (std::equal(entries, entries + size, journal.entries.begin(), journal.entries.end())) {
    return RewriteState::Complete;
  }
  return beginsAsOld && size > journal.oldLength ? RewriteState::Superseded : RewriteState::Pending;
}

}  // namespace Kestrun
