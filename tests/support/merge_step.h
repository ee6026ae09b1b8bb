// What the thread of a store does when it is woken.
#pragma once

#include <cstdint>
#include <string>

namespace Kestrun::Testing {

// Merges the blocks of the store in the directory `path` once, as the thread of a Store with autoCompact
// would do it next, and on the calling thread, so that what is killed or fails is at the same place in every
// run. The status of the merge; kStatusOk also when there was nothing to merge. For ScriptedStore::SetMerge.
uint32_t MergeOnce(const std::string& path);

// How many merges of this process have changed the list of blocks.
int MergesDone();

}  // namespace Kestrun::Testing
