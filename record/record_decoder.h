// record/record_decoder.h: the values in the bytes of a stored record.
#pragma once

#include <cstdint>
#include <vector>

#include "kestrun/record_meta.h"
#include "kestrun/value.h"

namespace Kestrun {

// Appends the values that `size` bytes at `buffer` (from malloc, may be null) hold for `fields`, at most one
// for each, as the constructor of Record describes it. The result is the buffer that Binary values point
// into, and the caller owns it: `buffer` itself, or a larger one in its place where a value needs bytes
// after the end. When memory runs out std::bad_alloc is thrown and `buffer` is as it was.
unsigned char* DecodeRecord(const std::vector<Field*>& fields, unsigned char* buffer, uint32_t size,
                            std::vector<Value>* values);

}  // namespace Kestrun
