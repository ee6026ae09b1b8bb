#include "inspect/store_verify.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <set>

#include "base/clock.h"
#include "format/block_format.h"
#include "format/file_magic.h"
#include "format/manifest_reader.h"
#include "format/wal_reader.h"
#include "inspect/escape.h"
#include "inspect/orphan_block.h"
#include "inspect/store_directory.h"
#include "inspect/store_versions.h"
#include "inspect/type_check.h"
#include "inspect/verify_file.h"

namespace Kestrun::Inspect {
namespace {

// A filter of a store has at most 4097 bytes. Larger ones are read up to this size.
constexpr uint64_t kMaxFilter = uint64_t{16} << 20;

// Larger values are not looked at for what they may be.
constexpr uint32_t kMaxRecordLookedAt = 64 << 10;

class StoreVerifier {
 public:
  StoreVerifier(const std::string& directory, const StoreDirectory& files, uint64_t pageSize, uint64_t now,
                VerifyReport* report)
      : directory_(directory),
        files_(files),
        pageSize_(pageSize),
        now_(now),
        report_(report),
        present_(files.blocks.begin(), files.blocks.end()),
        leftovers_(directory, pageSize, now) {}

  void Run() {
    Log();
    if (files_.hasUnfinishedManifest) {
      UnfinishedManifest();
    } else {
      Manifest();
      Unlisted();
    }
    if (files_.hasSchema) {
      if (const auto file = Open(SchemaPath(directory_), kSchemaFileName)) {
        VerifySchema(*file, kSchemaFileName, report_);
      }
    }
    RecordTypes();
    for (const std::string& name : files_.damagedLogs) {
      report_->Damage(
          name, 0,
          "a store put aside what it could not read of a damaged log; 'kestrun recover --all-blocks' "
          "takes what is readable of it. Remove the file when that is done or not wanted");
    }
    for (const std::string& name : files_.legacy) {
      report_->Note(name, 0, "a file of an earlier format, which the next compaction removes");
    }
  }

 private:
  std::optional<ReadOnlyFile> Open(const std::string& path, const std::string& name) {
    std::string why;
    std::optional<ReadOnlyFile> file = ReadOnlyFile::Open(path, &why);
    if (file) return file;
    if (why == std::strerror(EACCES) || why == std::strerror(EPERM)) {
      if (report_->denied.empty()) report_->denied = name + ": " + why;
    } else {
      report_->Damage(name, 0, "the file can't be opened: " + why);
    }
    return file;
  }

  void Log() {
    if (!files_.hasLog) {
      report_->Damage(kWalFileName, 0, "the file is missing");
    } else if (const auto file = Open(LogPath(directory_), kWalFileName)) {
      log_ = true;
      VerifyLog(*file, kWalFileName, report_);
    }
  }

  void Manifest() {
    if (!files_.hasManifest) {
      report_->Damage(kManifestFileName, 0, "the file is missing");
      return;
    }
    const auto file = Open(ManifestPath(directory_), kManifestFileName);
    if (!file || !VerifyManifestHeader(*file, kManifestFileName, report_)) return;
    FileSource source(*file);
    ManifestReader reader(source, file->Size());
    while (listed_.size() < kMaxBlocks && reader.Next(true)) Record(&reader);
    if (listed_.size() == kMaxBlocks) {
      report_->Damage(kManifestFileName, reader.Offset(),
                      "the list is too long to be one of blocks; it was not read on");
    } else {
      ManifestEnding(reader);
    }
  }

  void ManifestEnding(const ManifestReader& reader) {
    const char* text = nullptr;
    switch (reader.End()) {
      case ManifestEnd::Complete:
        return;
      case ManifestEnd::CutEntry:
        text = "the file ends inside a record, which readers pass over";
        break;
      case ManifestEnd::BadChecksum:
      case ManifestEnd::TornEntry:
        text = "the record fails its checksum; no record from here on is readable";
        break;
      case ManifestEnd::CutFilter:
        text = "the file ends inside the filter of a record";
        break;
      case ManifestEnd::BadName:
      case ManifestEnd::Unreadable:
        text = "the record can't be read";
        break;
    }
    report_->Damage(kManifestFileName, reader.Offset(), text);
  }

  void Record(ManifestReader* reader) {
    const ManifestEntryView& record = reader->Entry();
    if (!IsBlockName(record.name)) {
      report_->Damage(kManifestFileName, record.offset,
                      "\"" + Printable(record.name) + "\" is not the name of a block");
      return;
    }
    const std::string fileName = record.name + kBlockFileSuffix;
    if (!listed_.insert(record.name).second) {
      report_->Damage(kManifestFileName, record.offset, fileName + " is listed twice");
      return;
    }
    leftovers_.AddBlock(record.name, true);
    if (present_.count(record.name) == 0) {
      report_->Damage(kManifestFileName, record.offset, fileName + " is listed and missing");
      return;
    }
    std::vector<uint8_t> filter;
    const bool hasFilter = reader->ReadFilter(&filter, kMaxFilter);
    if (!hasFilter) {
      report_->Damage(kManifestFileName, record.FilterOffset(),
                      "the filter of " + fileName + ", " + std::to_string(record.entry.filterSize) +
                          " bytes, is far larger than any that a store makes");
    }
    if (const auto file = Open(BlockPath(directory_, record.name), fileName)) {
      VerifyBlock(*file, fileName, pageSize_, hasFilter ? &filter : nullptr, report_);
    }
  }

  // What a broken-off change of the manifest left is finished by the next opening; until then the manifest
  // does not tell which blocks belong to the store.
  void UnfinishedManifest() {
    report_->Note(std::string(kManifestFileName) + kManifestJournalSuffix, 0,
                  "a compaction was broken off; the next opening of the store sets its list of blocks right. "
                  "Open it once and verify again");
    for (const std::string& name : files_.blocks) {
      if (const auto file = Open(BlockPath(directory_, name), name + kBlockFileSuffix)) {
        VerifyBlock(*file, name + kBlockFileSuffix, pageSize_, nullptr, report_);
      }
    }
  }

  void Unlisted() {
    std::vector<std::string> unlisted;
    for (const std::string& name : files_.blocks) {
      if (listed_.count(name) == 0) unlisted.push_back(name);
    }
    if (unlisted.empty()) return;
    for (const std::string& name : unlisted) leftovers_.AddBlock(name, false);
    RememberLog();
    for (const std::string& name : unlisted) leftovers_.Run(name, report_);
  }

  void RememberLog() {
    std::string why;
    const auto file = log_ ? ReadOnlyFile::Open(LogPath(directory_), &why) : std::nullopt;
    if (!file) return;
    FileSource source(*file);
    const WalHeaderView header = ReadWalHeader(source);
    if (!header.Usable()) return;
    WalReader reader(source, header.header.used, file->Size());
    while (reader.Next()) leftovers_.AddLogEntry(reader.Record().key, reader.Record().header.timestamp);
  }

  // Records whose type nobody can tell, or whose fields are not those of their
  // type, are unreachable as records.
  void RecordTypes() {
    std::string damage;
    const std::map<uint16_t, std::string> types = ReadRecordTypeTexts(directory_, &damage);
    TypeCheck check(types, !types.empty() || !damage.empty());
    std::string why;
    VersionOptions options;
    options.pageSize = pageSize_;
    const auto versions = StoreVersions::Open(directory_, options, &why);
    if (versions == nullptr) return;
    std::vector<VersionView> group;
    std::string value;
    while (versions->NextKey(&group)) {
      if (group.front().deleted || !IsAlive(group.front().timestamp, group.front().ttl, now_)) continue;
      const bool looked =
          group.front().valueSize <= kMaxRecordLookedAt && versions->ReadValue(group.front(), &value);
      check.Add(looked ? value : std::string());
    }
    for (const TypeFinding& finding : check.Findings()) {
      const std::string text =
          TypeCheck::TextOf(finding) +
          (finding.guess.empty() ? "" : "; 'kestrun recover' guesses '" + finding.guess + "'");
      if (finding.isDamage) {
        report_->Damage(kSchemaFileName, 0, text);
      } else {
        report_->Note(kSchemaFileName, 0, text);
      }
    }
  }

  const std::string& directory_;
  const StoreDirectory& files_;
  uint64_t pageSize_;
  uint64_t now_;
  VerifyReport* report_;
  std::set<std::string> present_;
  std::set<std::string> listed_;
  LeftoverCheck leftovers_;
  bool log_ = false;
};

// The first bytes and the size of a file, nothing when it can't be read.
std::string Beginning(const std::string& path) {
  constexpr size_t kHeaderBytes = 24;
  std::string why;
  const auto file = ReadOnlyFile::Open(path, &why);
  if (!file) return why;
  std::string bytes(kHeaderBytes, '\0');
  if (!file->ReadAt(0, bytes.data(), bytes.size())) bytes.clear();
  return bytes + std::to_string(file->Size());
}

}  // namespace

void VerifyReport::Add(Severity severity, const std::string& file, uint64_t offset, const std::string& text) {
  if (findings.size() < kMaxFindings) findings.push_back({severity, Printable(file), offset, text});
}

void VerifyReport::Damage(const std::string& file, uint64_t offset, const std::string& text) {
  ++damages;
  Add(Severity::Damage, file, offset, text);
}

void VerifyReport::Note(const std::string& file, uint64_t offset, const std::string& text) {
  ++notes;
  Add(Severity::Note, file, offset, text);
}

bool VerifyManifestHeader(const ReadOnlyFile& file, const std::string& name, VerifyReport* report) {
  FileSource source(file);
  const ManifestHeaderView view = ReadManifestHeader(source);
  if (!view.complete) {
    report->Damage(name, 0,
                   "the file has " + std::to_string(file.Size()) + " bytes and ends inside its header");
    return false;
  }
  if (!view.checksumMatches) {
    report->Damage(name, ManifestHeaderOffset::kChecksum, "the header fails its checksum");
  }
  if (!view.magicMatches) {
    report->Damage(name, ManifestHeaderOffset::kMagic, "the file does not begin as a file of a store");
  }
  if (!view.Usable()) return false;
  if (view.header.version != kFormatVersion) {
    report->Damage(name, ManifestHeaderOffset::kVersion,
                   "the version is " + std::to_string(view.header.version) + " and not " +
                       std::to_string(kFormatVersion));
  }
  if (view.header.headerSize != sizeof(ManifestHeader)) {
    report->Damage(name, ManifestHeaderOffset::kHeaderSize,
                   "the header's size is told as " + std::to_string(view.header.headerSize));
  }
  return true;
}

bool VerifyStore(const std::string& directory, uint64_t pageSize, uint64_t now, VerifyReport* report,
                 std::string* why) {
  const std::optional<StoreDirectory> files = ListStore(directory, why);
  if (!files) return false;
  if (!files->HoldsPartOfStore()) {
    *why = "the directory holds neither a log nor a manifest";
    return false;
  }
  StoreVerifier(directory, *files, pageSize, now, report).Run();
  return true;
}

std::string StoreFingerprint(const std::string& directory) {
  std::string why;
  const std::optional<StoreDirectory> files = ListStore(directory, &why);
  if (!files) return why;
  std::string bytes = Beginning(LogPath(directory)) + "|" + Beginning(ManifestPath(directory)) + "|";
  bytes += Beginning(SchemaPath(directory));
  for (const std::string& name : files->blocks) bytes += "|" + name;
  return bytes;
}

}  // namespace Kestrun::Inspect
