// storage/block_name.h: random names for new blocks.
#pragma once

#include <string>

namespace Kestrun {

// 31 characters of "1234567890ABCDEFGHIJKLMNOPQRSTUVWXYZ", drawn with the C library's rand, which the first
// call in a process seeds with the time. Processes that start in the same second draw the same names: the
// caller checks whether there is a file of that name. Safe from any thread as far as rand is.
std::string MakeBlockFileName();

// The name `drawn` with its last characters replaced by ones that no other process comes to: processes that
// start in the same second draw the same names one after the other.
std::string MakeUniqueAcrossProcesses(std::string drawn);

}  // namespace Kestrun
