// record/record_meta_registry.h: the record types that schemas hand out.
//
// Records keep plain pointers to their types, so these live until the process ends. One object serves every
// schema that knows the same number and text, and every reload of its file: memory grows with the different
// record types that a process meets, not with how often it meets them.
#pragma once

#include <cstdint>
#include <string>

#include "kestrun/record_meta.h"

namespace Kestrun {

// The record type with this number and this text; null when `text` is not a record type. Safe from any
// thread, and in the child of a fork. Throws std::bad_alloc.
RecordMeta* InternRecordMeta(uint16_t id, const std::string& text);

}  // namespace Kestrun
