// tools/record_type.h: record types on the command line and in a store's schema file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "kestrun/record.h"
#include "kestrun/record_meta.h"

namespace Kestrun::Tools {

// The record type that `text` describes. The library passes over what it does not understand in a text; on a
// command line that would hide slips, so this throws UsageError, which says what is wrong, unless
//
// - the text has a type name and at least one field, each with a name of its own and a known token;
// - no name begins or ends with a blank, which would belong to it;
// - a '*' field is the last, for only there is it read back;
// - the text has no '#', line end or NUL, which the schema file can't hold.
std::unique_ptr<RecordMeta> ParseRecordType(const std::string& text);

// The token of a type, such as "%i4"; "none" for a field that stores nothing.
const char* TokenOf(ValueType type);

using RecordTypes = std::map<uint16_t, std::unique_ptr<RecordMeta>>;
// The record types of a store by their ids, as the store reads them: the last line of an id counts. Empty
// without a schema file. The store is not opened and no schema file is made.
RecordTypes ReadRecordTypes(const std::string& store);

}  // namespace Kestrun::Tools
