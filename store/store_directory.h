// store/store_directory.h: tells a store from other directories, without opening it.
#pragma once

#include <cstdint>
#include <string>

#include "base/diagnostics.h"

namespace Kestrun {

enum class DirectoryState {
  Missing,     // there is no such directory
  Empty,       // or nothing in it
  Incomplete,  // what a creation leaves that was killed: an empty log or manifest, or one of them, and no block
  Store,
};

// kStatusNotAStore     the path is no directory, or one with other files and no whole store, or with part of
//                      a store; the message says what is missing or damaged
// kStatusNoPermission  the system does not allow to look
// kStatusOpenFailed    the directory can't be read
// May throw std::bad_alloc.
uint32_t ExamineDirectory(const std::string& path, const Diagnostics& diagnostics, DirectoryState* state);

}  // namespace Kestrun
