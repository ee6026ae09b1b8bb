// store/write_batch_access.h: how the store sees the inside of a batch.
#pragma once

#include <string_view>

#include "kestrun/write_batch.h"

namespace Kestrun {

class WriteBatchAccess {
 public:
  // The operations as log records back to back, for Wal::AppendBatch.
  static std::string_view Records(const WriteBatch& batch) { return batch.records_; }
};

}  // namespace Kestrun
