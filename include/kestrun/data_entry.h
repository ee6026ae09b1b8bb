// kestrun/data_entry.h: where one entry of a store lies, and how long it lives.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kestrun/export.h"

namespace Kestrun {

// The longest time to live, in seconds: about 136 years. What is to stay for good gets it.
inline constexpr unsigned int kTtlForever = 4294967295;

// DataEntry describes the newest entry of a key, as LSDBImpl::GetDataEntry reports it. Its 32 bytes are laid
// out as in the files of the store; the bytes between the fields carry no meaning.
//
// An entry is alive while timestamp + ttl, taken in 64 bits, is at least the current second of the wall
// clock. No ttl means "for ever": 0 lasts for the second of writing, kTtlForever for about 136 years.
struct DataEntry {
  uint32_t valueOffset;  // bytes from the start of the file that holds the entry, log or block
  uint32_t valueSize;    // bytes
  bool deleted;          // the entry is a tombstone
  uint64_t timestamp;    // seconds since the Unix epoch at which the entry was written
  uint32_t ttl;          // seconds
};
static_assert(sizeof(DataEntry) == 32);
static_assert(offsetof(DataEntry, valueOffset) == 0 && offsetof(DataEntry, valueSize) == 4);
static_assert(offsetof(DataEntry, deleted) == 8 && offsetof(DataEntry, timestamp) == 16);
static_assert(offsetof(DataEntry, ttl) == 24);

}  // namespace Kestrun
