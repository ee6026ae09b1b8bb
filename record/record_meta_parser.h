// record/record_meta_parser.h: RecordMeta::Create for those who must know why there is no record type.
#pragma once

#include <memory>
#include <string>

#include "kestrun/record_meta.h"

namespace Kestrun {

// As RecordMeta::Create, but null means only that `text` is not a record type. Throws std::bad_alloc.
std::unique_ptr<RecordMeta> ParseRecordMeta(unsigned short id, const std::string& text);

}  // namespace Kestrun
