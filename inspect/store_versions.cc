#include "inspect/store_versions.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <set>

#include "format/crc32c.h"
#include "format/manifest_reader.h"
#include "format/wal_reader.h"
#include "inspect/block_file.h"
#include "inspect/read_only_file.h"
#include "inspect/store_directory.h"

namespace Kestrun::Inspect {
namespace {

uint64_t ModifiedAt(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return 0;
  return static_cast<uint64_t>(status.st_mtim.tv_sec) * 1000000000 +
         static_cast<uint64_t>(status.st_mtim.tv_nsec);
}

void CountDamage(VersionSource* source, const std::string& what, uint64_t count = 1) {
  source->unreadable += count;
  if (source->damage.empty()) source->damage = what;
}

// What holds one entry, and perhaps many.
void CountUnknown(VersionSource* source, const std::string& what) {
  CountDamage(source, what);
  source->mayLackMore = true;
}

}  // namespace

// The entries of one file in the order of their keys; the versions of one key, the newest first.
class StoreVersions::Stream {
 public:
  virtual ~Stream() = default;
  // Goes to the next version; false at the end.
  virtual bool Next() = 0;
  // Goes to the next older version of the same key; false, without moving, when there is none.
  virtual bool NextOfSameKey() { return false; }
  virtual const VersionView& Version() const = 0;
  virtual bool ReadValue(const VersionView& version, std::string* value, uint64_t most) = 0;
};

namespace {

// Bytes of a log without its beginning: offset `base` of the log is the file's first byte.
class ShiftedSource final : public ByteSource {
 public:
  ShiftedSource(const ReadOnlyFile& file, uint64_t base) : file_(file), base_(base) {}

  ssize_t ReadAt(uint64_t offset, void* buffer, size_t length) override {
    return offset < base_ ? 0 : file_.ReadSome(offset - base_, buffer, length);
  }
  bool Size(uint64_t* size) override {
    *size = base_ + file_.Size();
    return true;
  }
  uint64_t Base() const { return base_; }

 private:
  const ReadOnlyFile& file_;
  uint64_t base_;
};

// Where in its log the bytes of a file stood, from the first sound record's own place; 0 when there is none.
uint64_t FindBase(const ReadOnlyFile& file) {
  FileWindow window(file);
  uint8_t bytes[sizeof(WalRecord)];
  WalRecord record;
  for (uint64_t at = 0; window.ReadAt(at, bytes, sizeof(bytes)); ++at) {
    std::memcpy(&record, bytes, sizeof(record));
    const uint64_t head = at + sizeof(record) + record.keySize;
    if (record.valueOffset < head || record.keySize == 0) continue;
    if (CheckWalRecord(bytes, at, file.Size(), file.Size(), &record) == WalEnd::Complete) {
      return record.valueOffset - head;
    }
  }
  return 0;
}

}  // namespace

// The records of a log are in the order of their writing: they are gathered and sorted.
class StoreVersions::LogStream final : public Stream {
 public:
  LogStream(ReadOnlyFile file, size_t number, VersionSource* source)
      : file_(std::move(file)), source_(file_, source->isPutAside ? FindBase(file_) : 0), number_(number) {
    if (source->isPutAside) {
      headerIsSound_ = true;
      Gather(source_.Base(), source_.Base() + file_.Size(), source);
    } else {
      GatherLog(source);
    }
    std::stable_sort(records_.begin(), records_.end(), [](const Record& a, const Record& b) {
      return a.key != b.key ? a.key < b.key : a.offset > b.offset;
    });
    source->entries = records_.size();
  }

  bool Next() override {
    if (next_ == records_.size()) return false;
    const Record& record = records_[next_++];
    view_ = {record.key,       number_,        record.offset + sizeof(WalRecord) + record.key.size(),
             record.valueSize, record.deleted, record.timestamp,
             record.ttl};
    return true;
  }
  bool NextOfSameKey() override {
    return next_ != records_.size() && records_[next_].key == records_[next_ - 1].key && Next();
  }
  const VersionView& Version() const override { return view_; }

  // What the records promise was compared when they were gathered.
  bool ReadValue(const VersionView& version, std::string* value, uint64_t most) override {
    value->resize(static_cast<size_t>(std::min<uint64_t>(version.valueSize, most)));
    return ReadExactly(source_, version.valueOffset, value->data(), value->size());
  }

 private:
  struct Record {
    std::string key;
    uint64_t offset;
    uint32_t valueSize;
    bool deleted;
    uint64_t timestamp;
    uint32_t ttl;
  };

  void GatherLog(VersionSource* source) {
    const WalHeaderView header = ReadWalHeader(source_);
    headerIsSound_ = header.Usable() && header.header.used >= kWalFirstRecord;
    if (!headerIsSound_) CountUnknown(source, "its header is damaged");
    const uint64_t used = headerIsSound_ ? header.header.used : file_.Size();
    if (used > file_.Size()) CountUnknown(source, "it is cut off at " + std::to_string(file_.Size()));
    Gather(kWalFirstRecord, std::min(used, file_.Size()), source);
  }

  // Goes on after what is broken. Where the header does not tell where the log ends, what is older than the
  // records before it is from an earlier filling.
  void Gather(uint64_t start, uint64_t used, VersionSource* source) {
    std::optional<uint32_t> epoch;
    uint64_t newest = 0;
    for (uint64_t offset = start; offset != 0 && offset < used;) {
      WalReader reader(source_, used, used, offset);
      while (reader.Next()) {
        const WalRecordView& record = reader.Record();
        const bool stale = (IsMarked(record.header) && epoch && *epoch != EpochOf(record.header)) ||
                           (!headerIsSound_ && record.header.timestamp < newest);
        if (stale && !headerIsSound_) return;
        if (stale) continue;
        if (IsMarked(record.header)) epoch = EpochOf(record.header);
        newest = std::max(newest, record.header.timestamp);
        records_.push_back({record.key, record.offset, record.header.valueSize, record.header.deleted != 0,
                            record.header.timestamp, record.header.ttl});
      }
      if (reader.End() == WalEnd::Complete) {
        if (headerIsSound_ && reader.Offset() < used) {
          CountUnknown(source, "bytes from " + std::to_string(reader.Offset()) + " on are no record");
        }
        return;
      }
      const uint64_t broken = reader.Offset();
      if (reader.End() == WalEnd::OtherEpoch && headerIsSound_) {
        offset = reader.ToldEnd();
        continue;
      }
      if (reader.End() == WalEnd::BadContent) {
        CountDamage(source, "the record at " + std::to_string(broken) + " is not what was written");
        offset = reader.ToldEnd();
        continue;
      }
      // Free space begins where no header tells.
      if (!headerIsSound_ && IsZero(broken)) return;
      CountUnknown(source, "the record at " + std::to_string(broken) + " is broken");
      offset = FindNextWalRecord(source_, used, used, broken);
    }
  }

  bool IsZero(uint64_t offset) const {
    uint8_t bytes[sizeof(WalRecord)];
    return file_.ReadAt(offset - source_.Base(), bytes, sizeof(bytes)) &&
           std::all_of(std::begin(bytes), std::end(bytes), [](uint8_t byte) { return byte == 0; });
  }

  ReadOnlyFile file_;
  ShiftedSource source_;
  size_t number_;
  bool headerIsSound_ = false;
  std::vector<Record> records_;
  size_t next_ = 0;
  VersionView view_;
};

// The entries of a block are in the order of their keys, unless something is damaged.
class StoreVersions::BlockStream final : public Stream {
 public:
  BlockStream(ReadOnlyFile file, uint64_t pageSize, size_t number, VersionSource* source)
      : file_(std::move(file)), block_(file_, pageSize), number_(number) {
    if (!block_.HeaderComplete() || !block_.HeaderChecksumMatches())
      CountDamage(source, "its header is damaged", 0);
    if (!block_.Usable()) {
      if (!block_.FindTables()) {
        CountUnknown(source, "it is cut short or damaged, and its tables can't be found");
      } else if (block_.CutEntries() != 0) {
        CountDamage(source, "it is cut short at byte " + std::to_string(file_.Size()), block_.CutEntries());
      } else {
        CountDamage(source, "the headers of its sections are damaged", 0);
      }
    }
    Examine(source);
    if (!block_.CountIsKnown()) RequireLastKey(source);
  }

  bool Next() override {
    const uint64_t count = block_.EntryCount();
    while (next_ < (inOrder_ ? count : order_.size())) {
      if (ReadAt(inOrder_ ? next_++ : order_[next_++])) {
        view_ = {
            key_,      number_, entry_.valueOffset, entry_.valueSize, entry_.deleted != 0, entry_.timestamp,
            entry_.ttl};
        return true;
      }
    }
    return false;
  }
  const VersionView& Version() const override { return view_; }

  bool ReadValue(const VersionView& version, std::string* value, uint64_t most) override {
    BlockDataEntry entry = entry_;
    entry.valueOffset = static_cast<uint32_t>(version.valueOffset);
    entry.valueSize = version.valueSize;
    if (!block_.ReadValue(entry, value, most)) return false;
    return value->size() < version.valueSize || ContentMatches(entry, key_, *value);
  }

 private:
  // Reads a sound entry and its key.
  bool ReadAt(uint64_t index) {
    bool checksumMatches = false;
    return block_.ReadEntry(index, &entry_, &checksumMatches) && checksumMatches && entry_.keySize != 0 &&
           block_.ValueFits(entry_) && block_.ReadKey(entry_, &key_);
  }

  // Where nothing tells how many entries there are, the key of the last one must end the key table.
  void RequireLastKey(VersionSource* source) {
    const uint64_t count = block_.EntryCount();
    const uint64_t keys = block_.KeyTable().header.size;
    const bool isWhole =
        count != 0 && ReadAt(count - 1) && uint64_t{entry_.keyOffset} + entry_.keySize == keys;
    if (block_.KeyTableSizeIsKnown() && isWhole) return;
    if (block_.KeyTableSizeIsKnown()) CountDamage(source, "entries are missing");
    source->mayLackMore = true;
  }

  // Counts what is sound, and sorts it where it is out of order.
  void Examine(VersionSource* source) {
    const uint64_t count = block_.EntryCount();
    std::string last;
    std::vector<std::pair<std::string, uint64_t>> keys;
    for (uint64_t i = 0; i < count; ++i) {
      if (!ReadAt(i)) {
        CountDamage(source, "entry " + std::to_string(i) + " is damaged");
        continue;
      }
      ++source->entries;
      if (source->entries > 1 && key_ <= last) inOrder_ = false;
      last = key_;
    }
    if (inOrder_) return;
    if (source->damage.empty()) source->damage = "its keys are out of order";
    // A hostile file may give every entry the same long key.
    constexpr uint64_t kMaxKeyBytes = uint64_t{256} << 20;
    uint64_t keyBytes = 0;
    for (uint64_t i = 0; i < count && keyBytes < kMaxKeyBytes; ++i) {
      if (!ReadAt(i)) continue;
      keys.emplace_back(key_, i);
      keyBytes += key_.size();
    }
    if (keys.size() < source->entries) {
      CountDamage(source, "too many keys are out of order", source->entries - keys.size());
      source->entries = keys.size();
    }
    // Of one key what stands last is newest, as for a store that loads the block.
    std::sort(keys.begin(), keys.end(), [](const auto& a, const auto& b) {
      return a.first != b.first ? a.first < b.first : a.second > b.second;
    });
    for (size_t i = 0; i < keys.size(); ++i) {
      if (i == 0 || keys[i].first != keys[i - 1].first) order_.push_back(keys[i].second);
    }
  }

  ReadOnlyFile file_;
  BlockFile block_;
  size_t number_;
  bool inOrder_ = true;
  std::vector<uint64_t> order_;
  uint64_t next_ = 0;
  BlockDataEntry entry_ = {};
  std::string key_;
  VersionView view_;
};

namespace {

// The names that a manifest lists, its journal taken into account. `*damage` says why it does not decide.
std::vector<std::string> ReadList(const std::string& directory, bool hasJournal, std::string* damage) {
  std::vector<std::string> names;
  std::string why;
  const auto file = ReadOnlyFile::Open(ManifestPath(directory), &why);
  if (!file) {
    *damage = "the manifest can't be opened: " + why;
    return names;
  }
  FileSource source(*file);
  const ManifestHeaderView header = ReadManifestHeader(source);
  if (!header.Usable()) {
    *damage = "the header of the manifest is damaged";
    return names;
  }
  const auto gather = [&](ManifestReader* reader) {
    while (names.size() < kMaxBlocks && reader->Next()) {
      if (IsBlockName(reader->Entry().name)) {
        names.push_back(reader->Entry().name);
      } else {
        *damage = "the manifest lists what is no block";
      }
    }
    if (!IsWholeList(reader->End())) *damage = "an entry of the manifest is damaged";
  };

  ManifestJournal journal;
  const std::string journalPath = ManifestPath(directory) + kManifestJournalSuffix;
  if (const auto journalFile = hasJournal ? ReadOnlyFile::Open(journalPath, &why) : std::nullopt) {
    FileSource journalSource(*journalFile);
    std::vector<uint8_t> entries(static_cast<size_t>(file->Size() - sizeof(ManifestHeader)));
    const bool pending = ReadManifestJournal(journalSource, &journal) == JournalState::Complete &&
                         file->ReadAt(sizeof(ManifestHeader), entries.data(), entries.size()) &&
                         ExamineRewrite(journal, header.header.generation, entries.data(), entries.size()) ==
                             RewriteState::Pending;
    if (pending) {
      MemorySource memory(journal.entries.data(), journal.entries.size());
      ManifestReader reader(memory, journal.entries.size(), 0);
      gather(&reader);
      return names;
    }
  }
  ManifestReader reader(source, file->Size());
  gather(&reader);
  return names;
}

}  // namespace

StoreVersions::~StoreVersions() = default;

std::unique_ptr<StoreVersions> StoreVersions::Open(const std::string& directory,
                                                   const VersionOptions& options, std::string* why) {
  const std::optional<StoreDirectory> files = ListStore(directory, why);
  if (!files) return nullptr;
  if (!files->HoldsPartOfStore() && files->blocks.empty()) {
    *why = "the directory holds no part of a store";
    return nullptr;
  }
  std::unique_ptr<StoreVersions> versions(new StoreVersions);
  const std::vector<std::string> listed =
      ReadList(directory, files->hasUnfinishedManifest, &versions->manifestDamage_);
  versions->manifestDecides_ = versions->manifestDamage_.empty();
  versions->positionDecides_ = versions->manifestDecides_;

  // A listed block whose file is gone is told all the same.
  std::set<std::string> seen;
  for (const std::string& name : listed) {
    if (seen.insert(name).second) versions->AddBlock(directory, name, options.pageSize, true);
  }
  // What may bring deleted keys back counts only where nothing else decides, or where it is asked for.
  const bool takesOthers = !versions->manifestDecides_ || options.allBlocks;
  for (const std::string& name : files->blocks) {
    if (!seen.insert(name).second) continue;
    if (takesOthers) {
      versions->positionDecides_ = false;
      versions->AddBlock(directory, name, options.pageSize, false);
    } else {
      versions->AddLeft(name, false);
    }
  }
  for (const std::string& name : files->damagedLogs) {
    if (takesOthers) {
      versions->positionDecides_ = false;
      versions->AddPutAside(directory, name);
    } else {
      versions->AddLeft(name, true);
    }
  }
  versions->AddLog(directory);
  for (size_t i = 0; i < versions->streams_.size(); ++i) {
    if (versions->streams_[i] != nullptr && versions->streams_[i]->Next()) versions->heap_.push_back(i);
  }
  const auto later = [&](size_t a, size_t b) {
    return versions->streams_[a]->Version().key > versions->streams_[b]->Version().key;
  };
  std::make_heap(versions->heap_.begin(), versions->heap_.end(), later);
  return versions;
}

void StoreVersions::AddLeft(const std::string& name, bool isPutAside) {
  VersionSource source;
  source.name = name;
  source.isPutAside = isPutAside;
  source.present = true;
  source.left = true;
  sources_.push_back(source);
  streams_.emplace_back();
  modified_.push_back(0);
}

void StoreVersions::AddPutAside(const std::string& directory, const std::string& name) {
  VersionSource source;
  source.name = name;
  source.isPutAside = true;
  AddLogFile(directory + "/" + name, source);
}

void StoreVersions::AddLog(const std::string& directory) {
  VersionSource source;
  source.name = kWalFileName;
  source.isLog = true;
  AddLogFile(LogPath(directory), source);
}

void StoreVersions::AddLogFile(const std::string& path, VersionSource source) {
  std::string why;
  std::unique_ptr<Stream> stream;
  if (auto file = ReadOnlyFile::Open(path, &why)) {
    source.present = true;
    source.fileSize = file->Size();
    stream = std::make_unique<LogStream>(std::move(*file), sources_.size(), &source);
  } else {
    CountUnknown(&source, why);
  }
  sources_.push_back(source);
  streams_.push_back(std::move(stream));
  modified_.push_back(ModifiedAt(path));
}

void StoreVersions::AddBlock(const std::string& directory, const std::string& name, uint64_t pageSize,
                             bool listed) {
  VersionSource source;
  source.name = name;
  source.listed = listed && manifestDecides_;
  const std::string path = BlockPath(directory, name);
  std::string why;
  std::unique_ptr<Stream> stream;
  if (auto file = ReadOnlyFile::Open(path, &why)) {
    source.present = true;
    source.fileSize = file->Size();
    stream = std::make_unique<BlockStream>(std::move(*file), pageSize, sources_.size(), &source);
  } else {
    CountUnknown(&source, why);
  }
  sources_.push_back(source);
  streams_.push_back(std::move(stream));
  modified_.push_back(ModifiedAt(path));
}

bool StoreVersions::IsNewer(const VersionView& a, const VersionView& b) const {
  // Versions of one file are in order already.
  if (a.source == b.source) return false;
  if (sources_[a.source].isLog || sources_[b.source].isLog) return sources_[a.source].isLog;
  if (positionDecides_) return a.source > b.source;
  if (a.timestamp != b.timestamp) return a.timestamp > b.timestamp;
  // Of the same second, what the manifest lists was still the store's when the others were not.
  const bool aIsListed = sources_[a.source].listed;
  const bool bIsListed = sources_[b.source].listed;
  if (aIsListed != bIsListed) return aIsListed;
  if (aIsListed) return a.source > b.source;
  return modified_[a.source] != modified_[b.source] ? modified_[a.source] > modified_[b.source]
                                                    : a.source > b.source;
}

bool StoreVersions::NextKey(std::vector<VersionView>* versions) {
  const auto later = [this](size_t a, size_t b) {
    return streams_[a]->Version().key > streams_[b]->Version().key;
  };
  versions->clear();
  // Those that gave the last key go on only now, so that their values could be read.
  for (const size_t number : at_) {
    if (!streams_[number]->Next()) continue;
    heap_.push_back(number);
    std::push_heap(heap_.begin(), heap_.end(), later);
  }
  at_.clear();
  if (heap_.empty()) return false;

  key_ = streams_[heap_.front()]->Version().key;
  while (!heap_.empty() && streams_[heap_.front()]->Version().key == key_) {
    const size_t number = heap_.front();
    std::pop_heap(heap_.begin(), heap_.end(), later);
    heap_.pop_back();
    at_.push_back(number);
    do {
      versions->push_back(streams_[number]->Version());
    } while (streams_[number]->NextOfSameKey());
  }
  std::stable_sort(versions->begin(), versions->end(),
                   [this](const VersionView& a, const VersionView& b) { return IsNewer(a, b); });
  for (VersionView& version : *versions) version.key = key_;
  return true;
}

bool StoreVersions::ReadValue(const VersionView& version, std::string* value, uint64_t most) {
  if (streams_[version.source]->ReadValue(version, value, most)) return true;
  CountDamage(&sources_[version.source], "the value of an entry is not what was written");
  return false;
}

}  // namespace Kestrun::Inspect
