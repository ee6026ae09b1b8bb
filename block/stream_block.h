// block/stream_block.h: writes a new block file of any size with little memory.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "block/entry_cursor.h"
#include "storage/os_file.h"

namespace Kestrun {

// Walks the cursor twice, which must give the same both times: to learn the sizes of the sections, and to
// write all three side by side. Syncs the file and its name; `*file` is the open file. `stop`, if set, ends
// the writing when it becomes true. An existing file is overwritten from its start and not cut; after a
// failure what was written stays. May throw std::bad_alloc.
//
// kStatusOpenFailed, kStatusStatFailed  the file can't be opened or inspected
// kStatusBlockCorrupt      a value that its file does not hold
// kStatusBlockWriteFailed  a source can't be read, a section could not be written, the block would reach 4
//                          GiB, or the writing was stopped
// kStatusSyncFailed        the file could not be synced
uint32_t StreamBlock(const std::string& path, EntryCursor& cursor, const std::atomic<bool>* stop,
                     std::shared_ptr<OsFile>* file);

}  // namespace Kestrun
