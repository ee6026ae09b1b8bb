// kestrun/write_batch.h: writes that take effect together.
//
//   WriteBatch batch;
//   batch.Put("from", "60");
//   batch.Put("to", "40");
//   store->Write(batch);
//
// Ownership: a batch owns copies of its keys and values. It is bound to no store and
// may be written several times.
// Threads:   one thread at a time; a batch that nobody changes may be read from any number of threads.
// Failure:   statuses; copying may throw std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "kestrun/data_entry.h"
#include "kestrun/export.h"

namespace Kestrun {

class KESTRUN_EXPORT WriteBatch {
 public:
  WriteBatch();

  // Adds a write of `value` under `key` that lives for `ttl` seconds after the batch is written. After an
  // earlier operation on the same key in this batch, this one wins.
  //
  // kStatusInvalid   the key is empty, longer than 65,535 bytes or begins with the byte 0xFF, `ttl` is 0, or
  //                  the value is 4 GiB or longer
  // kStatusNoMemory  memory ran out; with both, nothing is added
  [[nodiscard]] uint32_t Put(std::string_view key, std::string_view value, unsigned int ttl = kTtlForever);
  // Adds a deletion of `key`. Statuses as Put.
  [[nodiscard]] uint32_t Delete(std::string_view key);

  void Clear();
  // The number of operations.
  size_t Count() const;
  // The bytes that the operations take in the log: 40, the key and the value for each.
  size_t ByteSize() const;

 private:
  friend class WriteBatchAccess;

  uint32_t Add(std::string_view key, std::string_view value, unsigned int ttl, bool deleted);

  std::string records_;  // as they will stand in the log, except for place, time and checksums
  size_t count_ = 0;
};

}  // namespace Kestrun
