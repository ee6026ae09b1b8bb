// recover.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "base/clock.h"
#include "format/file_names.h"
#include "format/schema_reader.h"
#include "inspect/escape.h"
#include "inspect/store_directory.h"
#include "inspect/store_versions.h"
#include "inspect/type_check.h"
#include "kestrun/status.h"
#include "tools/bytes_text.h"
#include "tools/failure.h"
#include "tools/interrupt.h"
#include "tools/json_writer.h"
#include "tools/output_file.h"
#include "tools/progress.h"
#include "tools/quantities.h"
#include "tools/store_access.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

constexpr size_t kRecoveryBatchBytes = 256 << 10;
constexpr uint32_t kRecoveryLog = 4 << 20;

// Blocks are open all at once.
void AllowManyFiles() {
  struct rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

void RemoveStoreFiles(const std::string& directory) {
  std::string why;
  const auto files = Inspect::ListStore(directory, &why);
  if (!files) return;
  for (const std::string& block : files->blocks) unlink(Inspect::BlockPath(directory, block).c_str());
  unlink(Inspect::SchemaPath(directory).c_str());
  unlink((Inspect::ManifestPath(directory) + kManifestJournalSuffix).c_str());
  unlink(Inspect::ManifestPath(directory).c_str());
  unlink(Inspect::LogPath(directory).c_str());
  rmdir(directory.c_str());
}

class Recovery {
 public:
  Recovery(const Invocation& line, const std::string& target)
      : line_(line),
        target_(target),
        partial_(target + ".partial"),
        now_(static_cast<uint64_t>(std::time(nullptr))) {}
  ~Recovery() {
    store_.reset();
    if (!committed_ && made_) RemoveStoreFiles(partial_);
  }

  int Run() {
    AllowManyFiles();
    Inspect::VersionOptions options;
    options.allBlocks = line_.Has("--all-blocks");
    std::string why;
    versions_ = Inspect::StoreVersions::Open(line_.Store(), options, &why);
    if (versions_ == nullptr) throw StoreFailure(kStatusNotAStore, ShownPath(line_.Store()) + ": " + why);
    types_ = Inspect::ReadRecordTypeTexts(line_.Store(), &typeDamage_);
    hadTypes_ = !types_.empty() || !typeDamage_.empty();
    check_ = std::make_unique<Inspect::TypeCheck>(types_, hadTypes_);

    RequireRoomForName();
    Open();
    const InterruptGuard guard;
    TakeAll();
    WriteTypes();
    Commit();
    Tell();
    return Lost() ? kExitNotFound : kExitDone;
  }

 private:
  void RequireRoomForName() {
    struct stat status = {};
    if (lstat(target_.c_str(), &status) == 0) {
      throw StoreFailure(kStatusStoreExists, ShownPath(target_) + ": there is something of that name");
    }
    // What a killed recovery has left.
    if (lstat(partial_.c_str(), &status) == 0) RemoveStoreFiles(partial_);
  }

  void Open() {
    StoreOptions options;
    // Every entry fits that fitted before.
    options.logSize = kRecoveryLog;
    for (const Inspect::VersionSource& source : versions_->Sources()) {
      if (source.isLog)
        options.logSize =
            static_cast<uint32_t>(std::clamp<uint64_t>(source.fileSize, kRecoveryLog, UINT32_MAX));
    }
    options.errorIfExists = true;
    options.autoCompact = false;
    const uint32_t status = Store::Open(partial_, options, &store_);
    if (status != kStatusOk) throw StoreFailure(status, ShownPath(partial_), partial_);
    made_ = true;
    capacity_ = options.logSize;
  }

  void TakeAll() {
    Progress progress("recovering", 0);
    std::vector<Inspect::VersionView> versions;
    uint64_t keys = 0;
    while (versions_->NextKey(&versions)) {
      if (WasInterrupted()) throw Interrupted("interrupted; " + ShownPath(target_) + " was not made");
      TakeKey(versions);
      progress.Update(0, ++keys);
    }
    Write();
  }

  // The newest version that can be read counts. Is it a tombstone or too old, nothing does.
  void TakeKey(const std::vector<Inspect::VersionView>& versions) {
    const std::string key(versions.front().key);
    bool decided = false;
    for (const Inspect::VersionView& version : versions) {
      if (decided) {
        ++dropped_;
        Detail("dropped", key, "a newer version counts", version);
        continue;
      }
      if (version.deleted || !IsAlive(version.timestamp, version.ttl, now_)) {
        decided = true;
        ++dropped_;
        Detail("dropped", key, version.deleted ? "deleted" : "expired", version);
      } else if (!WhyNoKey(key).empty()) {
        ++dropped_;
        Detail("dropped", key, "no key of a store", version);
      } else if (versions_->ReadValue(version, &value_)) {
        decided = true;
        Put(key, version);
      } else {
        Detail("unreadable", key, "the value is damaged", version);
      }
    }
  }

  void Put(const std::string& key, const Inspect::VersionView& version) {
    constexpr uint64_t kHeader = 40;
    if (kHeader + key.size() + value_.size() + 128 > capacity_)
      Grow(kHeader + key.size() + value_.size() + 128);
    const uint64_t end = version.timestamp + version.ttl;
    const auto ttl =
        version.ttl == kTtlForever ? kTtlForever : static_cast<uint32_t>(std::max<uint64_t>(1, end - now_));
    if (batch_.Count() != 0 && batch_.ByteSize() + kHeader + key.size() + value_.size() > kRecoveryBatchBytes)
      Write();
    Require(batch_.Put(key, value_, ttl), "taking \"" + Inspect::Printable(key) + "\"");
    ++taken_;
    ++takenFrom_[version.source];
    check_->Add(value_);
    Detail("taken", key, "", version);
  }

  // For a block may hold what the log of today does not.
  void Grow(uint64_t needed) {
    Write();
    capacity_ = std::min<uint64_t>(needed, UINT32_MAX);
    Reopen();
  }

  void Reopen() {
    store_.reset();
    StoreOptions options;
    options.logSize = static_cast<uint32_t>(capacity_);
    options.autoCompact = false;
    Require(Store::Open(partial_, options, &store_), ShownPath(partial_), partial_);
    unopened_ = 0;
  }

  void Write() {
    if (batch_.Count() == 0) return;
    Require(store_->Write(batch_), ShownPath(partial_) + ": writing", partial_);
    unopened_ += batch_.ByteSize();
    batch_.Clear();
    // A store keeps blocks that it has written in memory; opened anew it has none.
    if (unopened_ >= 4 * capacity_) Reopen();
  }

  void Detail(const char* fate, const std::string& key, const char* why,
              const Inspect::VersionView& version) const {
    if (!line_.Has("--verbose")) return;
    PrintDetail(std::string(fate) + "  " + Shown(line_, key) + "  " +
                versions_->Sources()[version.source].name + " at " + std::to_string(version.valueOffset) +
                (why[0] == '\0' ? "" : std::string("  ") + why));
  }

  // The types that are known, and guesses for those that were lost.
  void WriteTypes() {
    for (const Inspect::TypeFinding& finding : check_->Findings()) {
      const bool isLost = finding.text.empty() && !hadTypes_;
      if ((!finding.isDamage && !isLost) || finding.guess.empty()) continue;
      types_[finding.id] = finding.guess;
      guessed_.push_back(finding);
    }
    if (types_.empty()) return;
    std::string lines;
    for (const auto& [id, text] : types_) lines += SchemaLine(id, text);
    OutputFile file(Inspect::SchemaPath(partial_));
    file.Write(lines);
    file.Commit();
  }

  void Commit() {
    Require(store_->Flush(), ShownPath(partial_) + ": writing", partial_);
    Require(store_->Sync(), ShownPath(partial_) + ": writing", partial_);
    store_.reset();
    if (rename(partial_.c_str(), target_.c_str()) != 0) {
      throw SystemFailure(ShownPath(target_) + " can't be made: " + std::strerror(errno));
    }
    committed_ = true;
    const size_t slash = target_.find_last_of('/');
    const std::string parent = slash == std::string::npos ? "." : slash == 0 ? "/" : target_.substr(0, slash);
    const int descriptor = open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) return;
    fsync(descriptor);
    close(descriptor);
  }

  uint64_t Unreadable() const {
    uint64_t count = 0;
    for (const Inspect::VersionSource& source : versions_->Sources()) count += source.unreadable;
    return count;
  }

  // Of a log that was damaged, and not taken.
  bool LeftPutAside() const {
    const auto& sources = versions_->Sources();
    return std::any_of(sources.begin(), sources.end(),
                       [](const Inspect::VersionSource& source) { return source.isPutAside && source.left; });
  }

  bool MayLackMore() const {
    const auto& sources = versions_->Sources();
    return std::any_of(sources.begin(), sources.end(),
                       [](const Inspect::VersionSource& source) { return source.mayLackMore; });
  }

  bool Lost() const {
    return Unreadable() != 0 || MayLackMore() || LeftPutAside() || !guessed_.empty() || !typeDamage_.empty();
  }

  static const char* StateOf(const Inspect::VersionSource& source) {
    return source.left ? "left" : !source.present ? "missing" : !source.damage.empty() ? "damaged" : "sound";
  }

  void Tell() const {
    if (IsJson(line_)) {
      JsonWriter json;
      json.BeginObject().Name("taken").Number(taken_).Name("dropped").Number(dropped_);
      json.Name("unreadable").Number(Unreadable()).Name("unreadableIsExact").Bool(!MayLackMore());
      json.Name("blocks").BeginArray();
      for (size_t i = 0; i < versions_->Sources().size(); ++i) AddSource(i, &json);
      json.EndArray().Name("guessedTypes").BeginArray();
      for (const Inspect::TypeFinding& type : guessed_) json.Text(type.guess);
      WriteJsonLine(json.EndArray().EndObject());
    }
    for (const Inspect::VersionSource& source : versions_->Sources()) {
      const std::string name =
          source.isLog || source.isPutAside ? source.name : source.name + kBlockFileSuffix;
      if (source.left) {
        PrintAccount(name +
                     (source.isPutAside ? ": left, because it was put aside of a damaged log"
                                        : ": left, because the manifest does not list it") +
                     "; --all-blocks takes it");
      } else if (!source.damage.empty()) {
        PrintAccount(name + ": " + source.damage + "; " + Counted(source.entries, "entry", "entries") +
                     " readable, " + AmountText(source.unreadable, source.mayLackMore) + " not");
      }
    }
    if (!versions_->ManifestDecides()) {
      PrintAccount(versions_->ManifestDamage() +
                   ": all blocks count, ordered by time; deleted keys may be back");
    }
    if (!typeDamage_.empty()) PrintAccount(std::string(kSchemaFileName) + ": " + typeDamage_);
    for (const Inspect::TypeFinding& type : guessed_) {
      PrintAccount("record type " + std::to_string(type.id) + " was " +
                   (type.text.empty() ? "lost" : "damaged, '" + Inspect::Printable(type.text) + "'") +
                   "; guessed from " + Counted(type.misfits, "value", "values") + ": '" + type.guess + "'");
    }
    PrintAccount("took " + Counted(taken_, "entry", "entries") + ", dropped " +
                 Counted(dropped_, "version", "versions") + ", could not read " +
                 AmountText(Unreadable(), MayLackMore()));
    if (Unreadable() != 0 || MayLackMore()) {
      PrintAccount("what could not be read is missing, or older versions may have come back in its place");
    }
  }

  void AddSource(size_t number, JsonWriter* json) const {
    const Inspect::VersionSource& source = versions_->Sources()[number];
    if (source.isLog && source.damage.empty()) return;  // it is told where something is wrong with it
    const auto taken = takenFrom_.find(number);
    json->BeginObject().Name("name").Bytes(source.name).Name("state").Text(StateOf(source));
    json->Name("listed").Bool(source.listed).Name("entries").Number(source.entries);
    json->Name("taken").Number(taken == takenFrom_.end() ? 0 : taken->second);
    json->Name("unreadable").Number(source.unreadable);
    json->Name("unreadableIsExact").Bool(!source.mayLackMore);
    if (!source.damage.empty()) json->Name("damage").Bytes(source.damage);
    json->EndObject();
  }

  const Invocation& line_;
  std::string target_;
  std::string partial_;
  uint64_t now_;
  std::unique_ptr<Inspect::StoreVersions> versions_;
  std::unique_ptr<Inspect::TypeCheck> check_;
  std::map<uint16_t, std::string> types_;
  std::string typeDamage_;
  bool hadTypes_ = false;
  std::vector<Inspect::TypeFinding> guessed_;
  std::unique_ptr<Store> store_;
  uint64_t capacity_ = 0;  // of the log
  uint64_t unopened_ = 0;  // bytes written since the store was opened
  bool made_ = false;
  bool committed_ = false;
  WriteBatch batch_;
  std::string value_;
  uint64_t taken_ = 0;
  uint64_t dropped_ = 0;
  std::map<size_t, uint64_t> takenFrom_;
};

}  // namespace

int RunRecover(const Invocation& line) {
  std::string target = line.positionals[1];
  while (target.size() > 1 && target.back() == '/') target.pop_back();
  if (target.empty()) throw UsageError("NEW is the directory of the new store and can't be empty");
  RequireAnyPartOfStore(line.Store());
  RequireOutside(line.Store(), target);
  return Recovery(line, target).Run();
}

}  // namespace Kestrun::Tools
