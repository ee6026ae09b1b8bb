#include "record/schema.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <unordered_map>
#include <utility>

#include "base/diagnostics.h"
#include "kestrun/status.h"
#include "record/schema_format.h"
#include "storage/directory.h"

namespace Kestrun {
namespace {

constexpr size_t kReadSize = 1024;

// The creation byte is held only while a file is read and a line is written; nothing is synced meanwhile. So
// it is waited for a little longer than for a lock. A process that still does not get it goes on without: one
// that was stopped at the wrong moment must not keep all others from working.
constexpr int kCreationRounds = 16;

// Of making a type that is read back as it was written. The second one fails
// only when another process interferes.
constexpr int kMaxCreationAttempts = 8;

// Holds the creation byte for a scope, when it is to be had.
class SchemaAppendLock {
 public:
  explicit SchemaAppendLock(OsFile& file) : file_(file), locked_(false) {
    for (int round = 0; round < kCreationRounds && !locked_; ++round) {
      locked_ = file_.LockByte(kSchemaCreationByte);
    }
  }
  // Tries once, and then until `deadline`.
  SchemaAppendLock(OsFile& file, std::chrono::steady_clock::time_point deadline)
      : file_(file), locked_(file_.LockByte(kSchemaCreationByte)) {
    while (!locked_ && std::chrono::steady_clock::now() < deadline) {
      locked_ = file_.LockByte(kSchemaCreationByte);
    }
  }
  ~SchemaAppendLock() {
    if (locked_) file_.UnlockByte(kSchemaCreationByte);
  }
  SchemaAppendLock(const SchemaAppendLock&) = delete;
  SchemaAppendLock& operator=(const SchemaAppendLock&) = delete;

  bool IsHeld() const { return locked_; }

 private:
  OsFile& file_;
  bool locked_;
};

}  // namespace

Schema::Schema(std::shared_ptr<OsFile> file) : file_(std::move(file)), metas_(file_->Path(), file_->Id()) {}

uint32_t Schema::Open(const std::string& path, Schema** out) {
  if (out == nullptr) return kStatusOk;

  std::unique_ptr<Schema> schema;
  if (const uint32_t status = OpenQuietly(path, &schema); status != kStatusOk) {
    Diagnostics::Printing().Print("Filed to open series meta file");
    return status;
  }
  *out = schema.release();
  return kStatusOk;
}

uint32_t Schema::OpenQuietly(const std::string& path, std::unique_ptr<Schema>* out) {
  const bool isNew = access(path.c_str(), F_OK) != 0;
  std::shared_ptr<OsFile> file;
  if (const uint32_t status = OsFile::Open(path, kOpenReadWrite, &file); status != kStatusOk) return status;
  // An empty file may be lost without harm: the first line syncs the name once more.
  if (isNew) IgnoreStatus(SyncDirectory(DirectoryOf(path)));

  std::unique_ptr<Schema> schema(new Schema(std::move(file)));
  IgnoreStatus(schema->Load());  // what can't be read now is read again when it is missed
  *out = std::move(schema);
  return kStatusOk;
}

bool Schema::Load() {
  return Read() != ReadResult::NotStarted;
}

// What the lines say is gathered first and entered last: where several lines carry one number or one text, a
// reader never sees an earlier one in the place of the last.
Schema::ReadResult Schema::Read() {
  if (file_->Seek(0, SEEK_SET) < 0) return ReadResult::NotStarted;

  std::unordered_map<std::string, RecordMeta*> byText;
  std::unordered_map<uint16_t, RecordMeta*> byId;
  const auto enter = [this, &byText, &byId](uint16_t id, const std::string& text) {
    RecordMeta* meta = metas_.Intern(id, text);
    if (meta == nullptr) return;
    byText[text] = meta;
    byId[id] = meta;
  };

  ReadResult result = ReadResult::Complete;
  SchemaLineReader lines;
  uint64_t done = 0;
  uint64_t size = 0;
  for (;;) {
    char buffer[kReadSize];
    const ssize_t count = file_->Read(buffer, sizeof(buffer));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) result = ReadResult::StoppedEarly;
    if (count <= 0) break;

    lines.Feed(buffer, static_cast<size_t>(count), enter);
    done += static_cast<uint64_t>(count);
    // More bytes than the file has: a device in its place, which would never come to an end.
    if (done > size && (file_->Size(&size) != 0 || done > size)) {
      result = ReadResult::StoppedEarly;
      break;
    }
  }

  for (const auto& [text, meta] : byText) metasByText_.Assign(text, meta);
  for (const auto& [id, meta] : byId) metasById_.Assign(id, meta);
  return result;
}

RecordMeta* Schema::GetOrCreateRecordMeta(const std::string& text) {
  if (!isUnsynced_) {
    if (RecordMeta* known = metasByText_.Find(text)) return known;
  }

  // The shared level, although a line may be written, and whether or not it is obtained: so do all others.
  const FileLockGuard lock(file_, LockLevel::Shared);
  // A line that an earlier call could not sync is still in the file and would now be found.
  if (isUnsynced_ && !SyncLines()) return nullptr;
  IgnoreStatus(Load());  // Create reads again and does not go on without
  if (RecordMeta* known = metasByText_.Find(text)) return known;
  return Create(text);
}

// Reads the file to its true end, chooses the number and writes the line, all of it with the creation byte,
// so that no two processes choose the same number. The line is synced without the byte, as that
// may take long, and before the type is handed out: no record may be stored whose type can still be lost.
RecordMeta* Schema::Create(const std::string& text) {
  RecordMeta* meta = nullptr;
  {
    const SchemaAppendLock creation(*file_);
    if (Read() != ReadResult::Complete) return nullptr;
    if (RecordMeta* known = metasByText_.Find(text)) return known;

    const uint64_t id = uint64_t{metasByText_.Count()} + 1;
    meta = metas_.Intern(static_cast<uint16_t>(id), text);
    if (meta == nullptr) return nullptr;
    if (!AppendLine(SchemaLine(id, text))) return nullptr;
  }
  if (!SyncLines()) return nullptr;

  metasByText_.Assign(text, meta);
  metasById_.Assign(meta->id, meta);
  return meta;
}

RecordMeta* Schema::FindUnambiguous(const std::string& text) const {
  if (isUnsynced_) return nullptr;
  RecordMeta* meta = metasByText_.Find(text);
  return meta != nullptr && metasById_.Find(meta->id) == meta ? meta : nullptr;
}

// What was written is read back. A process that did not get the creation byte may have written a line of the
// same number meanwhile, and of two such lines the later one counts. A line that was cut off by a loss of
// power swallows the one after it; the next attempt then finds a whole line before its own.
uint32_t Schema::GetOrCreateUnambiguous(const std::string& text, unsigned int busyTimeout, RecordMeta** out) {
  if ((*out = FindUnambiguous(text)) != nullptr) return kStatusOk;

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(busyTimeout);
  const FileLockGuard lock(file_, LockLevel::ThreadOnly);
  for (int attempt = 0; attempt < kMaxCreationAttempts; ++attempt) {
    // A line that an earlier call could not sync is still in the file and would now be found.
    if (isUnsynced_ && !SyncLines()) return kStatusSyncFailed;
    {
      const SchemaAppendLock creation(*file_, deadline);
      if (!creation.IsHeld()) return kStatusLockFailed;
      if (Read() != ReadResult::Complete) return kStatusOpenFailed;
      if (FindUnambiguous(text) == nullptr) {
        if (const uint32_t status = AppendNewType(text); status != kStatusOk) return status;
      }
    }
    if (isUnsynced_ && !SyncLines()) return kStatusSyncFailed;
    if (Read() != ReadResult::Complete) return kStatusOpenFailed;
    if ((*out = FindUnambiguous(text)) != nullptr) return kStatusOk;
  }
  return kStatusCreateFailed;
}

// The number of known texts plus one, as Create, or the next one after it that no line has.
uint32_t Schema::AppendNewType(const std::string& text) {
  uint64_t id = uint64_t{metasByText_.Count()} + 1;
  while (id <= UINT16_MAX && metasById_.Find(static_cast<uint16_t>(id)) != nullptr) ++id;
  if (id > UINT16_MAX) return kStatusCreateFailed;
  return AppendLine(SchemaLine(id, text)) ? kStatusOk : kStatusCreateFailed;
}

uint32_t Schema::FindUnlocked(uint16_t id, RecordMeta** out) {
  if ((*out = metasById_.Find(id)) != nullptr) return kStatusOk;

  const FileLockGuard lock(file_, LockLevel::ThreadOnly);
  const ReadResult result = Read();
  if ((*out = metasById_.Find(id)) != nullptr) return kStatusOk;
  return result == ReadResult::Complete ? kStatusRecordTypeUnknown : kStatusOpenFailed;
}

std::vector<std::string> Schema::Texts() {
  const FileLockGuard lock(file_, LockLevel::ThreadOnly);
  IgnoreStatus(Load());  // what is known is listed even if the file can't be read at the moment
  std::map<uint16_t, std::string> byId;
  metasById_.ForEach([&byId](uint16_t id, const RecordMeta* meta) { byId[id] = meta->text; });

  std::vector<std::string> texts;
  texts.reserve(byId.size());
  for (auto& entry : byId) texts.push_back(std::move(entry.second));
  return texts;
}

// Writes at the true end of the file: after a failed read or beside a process without the byte, any other
// place might hold lines already.
bool Schema::AppendLine(const std::string& line) {
  uint64_t end = 0;
  if (file_->Size(&end) != 0) return false;

  const ssize_t written = file_->PWriteFully(line.data(), line.size(), static_cast<int64_t>(end));
  if (written == static_cast<ssize_t>(line.size())) {
    isUnsynced_ = true;
    isNameUnsynced_ = isNameUnsynced_ || end == 0;
    return true;
  }

  // Half a line would swallow the next one. It goes, unless another process has written after it.
  uint64_t now = 0;
  if (written > 0 && file_->Size(&now) == 0 && now == end + static_cast<uint64_t>(written)) {
    IgnoreStatus(file_->Truncate(static_cast<int64_t>(end)));  // nothing is left to try
  }
  return false;
}

// With the first line the name of the file must last, too: the process that created it may
// not have got that far.
bool Schema::SyncLines() {
  if (file_->Sync() != 0) return false;
  if (isNameUnsynced_ && !SyncDirectory(DirectoryOf(file_->Path()))) return false;
  isUnsynced_ = false;
  isNameUnsynced_ = false;
  return true;
}

RecordMeta* Schema::FindRecordMeta(uint16_t id) {
  if (RecordMeta* known = metasById_.Find(id)) return known;

  // The exclusive level, although nothing is written, and whether or not it is obtained: so do all others.
  const FileLockGuard lock(file_, LockLevel::Exclusive);
  IgnoreStatus(Load());
  return metasById_.Find(id);
}

}  // namespace Kestrun
