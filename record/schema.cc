#include "record/schema.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <unordered_map>
#include <utility>

#include "kestrun/status.h"
#include "record/schema_format.h"
#include "storage/directory.h"

namespace Kestrun {
namespace {

constexpr size_t kReadSize = 1024;

// Whoever holds the creation byte is about to let go of it: a file is read and a line written meanwhile, and
// nothing is forced to the disk. So it is waited for a little longer than for a lock. Who still does not get
// it goes on without: a process that was stopped at the wrong moment must not keep all others from working.
constexpr int kCreationRounds = 16;

// Holds the creation byte for a scope, when it is to be had.
class SchemaAppendLock {
 public:
  explicit SchemaAppendLock(OsFile& file) : file_(file), locked_(false) {
    for (int round = 0; round < kCreationRounds && !locked_; ++round) {
      locked_ = file_.LockByte(kSchemaCreationByte);
    }
  }
  ~SchemaAppendLock() {
    if (locked_) file_.UnlockByte(kSchemaCreationByte);
  }
  SchemaAppendLock(const SchemaAppendLock&) = delete;
  SchemaAppendLock& operator=(const SchemaAppendLock&) = delete;

 private:
  OsFile& file_;
  bool locked_;
};

}  // namespace

Schema::Schema(std::shared_ptr<OsFile> file) : file_(std::move(file)), metas_(file_->Path(), file_->Id()) {}

uint32_t Schema::Open(const std::string& path, Schema** out) {
  if (out == nullptr) return kStatusOk;

  const bool isNew = access(path.c_str(), F_OK) != 0;
  std::shared_ptr<OsFile> file;
  if (const uint32_t status = OsFile::Open(path, kOpenReadWrite, &file); status != kStatusOk) {
    std::printf("Filed to open series meta file");
    return status;
  }
  // An empty file may be lost without harm: the first line forces the name to the disk once more.
  if (isNew) IgnoreStatus(SyncDirectory(DirectoryOf(path)));

  std::unique_ptr<Schema> schema(new Schema(std::move(file)));
  IgnoreStatus(schema->Load());  // what can't be read now is read again when it is missed
  *out = schema.release();
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
  if (RecordMeta* known = metasByText_.Find(text)) return known;

  // The shared level, although a line may be written, and whether or not it is obtained: so do all others.
  const FileLockGuard lock(file_, LockLevel::Shared);
  // A line that an earlier call could not force to the disk is still in the file and would now be found.
  if (isUnsynced_ && !ForceToDisk()) return nullptr;
  IgnoreStatus(Load());  // Create reads again and does not go on without
  if (RecordMeta* known = metasByText_.Find(text)) return known;
  return Create(text);
}

// Reads the file to its true end, chooses the number and writes the line, all of it with the creation byte,
// so that no two processes choose the same number. The line is forced to the disk without the byte, as that
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
  if (!ForceToDisk()) return nullptr;

  metasByText_.Assign(text, meta);
  metasById_.Assign(meta->id, meta);
  return meta;
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

  // Half a line would swallow the next one. It goes, unless somebody has written behind it.
  uint64_t now = 0;
  if (written > 0 && file_->Size(&now) == 0 && now == end + static_cast<uint64_t>(written)) {
    IgnoreStatus(file_->Truncate(static_cast<int64_t>(end)));  // nothing is left to try
  }
  return false;
}

// With the first line the name of the file must last, too: whoever created it may not have got that far.
bool Schema::ForceToDisk() {
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
