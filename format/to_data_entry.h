// format/to_data_entry.h: what callers see of an entry.
#pragma once

#include "kestrun/data_entry.h"

namespace Kestrun {

// Of a log's record, a block's entry or an index's record. The valueOffset stays what it is: it counts from
// the start of the file that holds the value.
template <typename Record>
DataEntry ToDataEntry(const Record& record) {
  DataEntry entry = {};
  entry.valueOffset = record.valueOffset;
  entry.valueSize = record.valueSize;
  entry.deleted = record.deleted != 0;
  entry.timestamp = record.timestamp;
  entry.ttl = record.ttl;
  return entry;
}

}  // namespace Kestrun
