// record/record_meta_registry.h: the record types that schemas hand out, one set of
// objects for each schema file.
//
// Records keep plain pointers to their types, so these live until the process ends. The handles that a
// process has on one file share the objects, and so does every reload: memory grows with the different record
// types of a file, not with how often it is read. A RecordMeta is not const, and a caller who changes one
// changes it for its file alone.
//
// A file is told by its device and inode number while a handle is open on it. Once none is, the number may
// come to belong to another file, so a set is only taken up again by a file that nobody has changed since:
// its size and times are those that the last handle left. Any other file starts a new set.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "kestrun/record_meta.h"
#include "storage/inode_registry.h"

namespace Kestrun {

struct RecordMetaSet;

// The record types of one schema file, for as long as a handle on it is open.
// Threads: safe, and in the child of a fork.
class RecordMetaPool {
 public:
  // For the file at `path` that was opened and found to be `id`. Throws std::bad_alloc.
  RecordMetaPool(const std::string& path, const InodeId& id);
  // Before the file is closed: afterwards its inode number may be that of another one.
  ~RecordMetaPool();
  RecordMetaPool(const RecordMetaPool&) = delete;
  RecordMetaPool& operator=(const RecordMetaPool&) = delete;

  // The record type with this number and this text; null when `text` is not
  // a record type. Throws std::bad_alloc.
  RecordMeta* Intern(uint16_t id, const std::string& text);

 private:
  const std::string path_;
  const InodeId id_;
  std::shared_ptr<RecordMetaSet> set_;
};

}  // namespace Kestrun
