// record/schema.h: the record types of one series, numbered and kept in its file meta_v5.
//
// The file only grows: types are never removed or renumbered. A new type gets the number of known texts plus
// one, so the first is 1. A text that contains "#" or a line break is written as it is and read back as
// something else; it then counts as two texts, and numbers may be given twice. Nobody checks for it.
//
// Ownership: record types live until the process ends, whatever becomes of the schema. All handles on one
//            file hand out the same objects, handles on different files never do.
// Threads:   safe. A type that is known is found without any lock. Everything else happens between
//            OsFile::Lock and OsFile::Unlock on the file, whose mutex orders the threads of the process.
// Processes: several may use one file. Making a type takes the shared level and looking one up by number the
//            exclusive one, whether or not it is obtained; what keeps two makers apart is the creation byte.
// Failure:   null where there is no record type; std::bad_alloc is thrown, locks are released.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kestrun/record_meta.h"
#include "record/record_meta_index.h"
#include "record/record_meta_registry.h"
#include "storage/os_file.h"

namespace Kestrun {

// A process that adds a type has this byte of the file locked for writing, from reading what others added
// until its own line is written. It is the first byte after those that OsFile::Lock uses.
inline constexpr int64_t kSchemaCreationByte = 0x40000200;

class Schema {
 public:
  // Opens the file at `path`, created when missing, and reads it. A null `out` does nothing at all and is
  // kStatusOk. kStatusOpenFailed or kStatusStatFailed as OsFile::Open, with the message
  // "Filed to open series meta file".
  static uint32_t Open(const std::string& path, Schema** out);
  // The same without the message.
  static uint32_t OpenQuietly(const std::string& path, std::unique_ptr<Schema>* out);

  // Reads the whole file and enters its types beside those that are known already. False when the file could
  // not be read from its start; true also when reading stopped early, and what came before counts. The
  // caller holds the file's lock, unless nobody else knows the schema yet.
  bool Load();

  // The record type of `text`. When it is not known, not even after reading the file again, it is created:
  // its line is written and synced. Null when
  //
  // - `text` is not a record type;
  // - the file could not be read to its end;
  // - the line could not be written, and the file is as it was;
  // - the line could not be synced. It stays, since others may have seen it, and the next
  //   call tries once more.
  RecordMeta* GetOrCreateRecordMeta(const std::string& text);

  // The record type of `text` when it is known, its number leads to it and to no other, and every line that
  // this handle has written is synced; or null. Takes no lock.
  RecordMeta* FindUnambiguous(const std::string& text) const;

  // The record type of `text`, which is one and holds no '#', line break or NUL. It is created when it is
  // not known, and under a new number when its own has come to belong to another text as well: a record
  // of this type will be read as one. The creation byte is waited for `busyTimeout` milliseconds, and
  // nothing is written without it.
  //
  // kStatusLockFailed    another process has the creation byte
  // kStatusOpenFailed    the file could not be read to its end
  // kStatusCreateFailed  the line could not be written, or all 65,535 numbers are taken
  // kStatusSyncFailed    the line could not be synced; the next call tries once more
  [[nodiscard]] uint32_t GetOrCreateUnambiguous(const std::string& text, unsigned int busyTimeout,
                                                RecordMeta** out);

  // The record type with the number `id`, after reading the file again when it is not known. Takes no lock
  // against other processes, because lines are only added.
  //
  // kStatusRecordTypeUnknown  no line has this number
  // kStatusOpenFailed         it is not known, and the file could not be read to its end
  [[nodiscard]] uint32_t FindUnlocked(uint16_t id, RecordMeta** out);

  // The texts of the record types in the order of their numbers, after reading the file again.
  std::vector<std::string> Texts();

  // The record type with the number `id`, after reading the file again when it is not known; or null.
  RecordMeta* FindRecordMeta(uint16_t id);

 private:
  enum class ReadResult {
    Complete,
    StoppedEarly,  // a read failed
    NotStarted,    // the start of the file was not reached
  };

  explicit Schema(std::shared_ptr<OsFile> file);

  ReadResult Read();
  RecordMeta* Create(const std::string& text);
  uint32_t AppendNewType(const std::string& text);
  bool AppendLine(const std::string& line);
  bool SyncLines();

  std::shared_ptr<OsFile> file_;
  RecordMetaPool metas_;  // goes before the file
  RecordMetaIndex<std::string> metasByText_;
  RecordMetaIndex<uint16_t> metasById_;
  // Changed under the file's mutex: a line, or the file's name with it, may not be on the disk yet. Until it
  // is, no type is handed out by its text without a new attempt.
  std::atomic<bool> isUnsynced_ = false;
  bool isNameUnsynced_ = false;
};

}  // namespace Kestrun
