// tools/dump_output.h: what `dump` writes: rows of 16 bytes in hexadecimal and as characters with the field
// that they belong to, or one JSON object for each field.
#pragma once

#include <cstdint>
#include <string>

namespace Kestrun::Tools {

// All files of the store, log first. False when the directory holds none, with the reason in `*why`.
bool DumpStore(const std::string& directory, uint64_t pageSize, bool json, std::string* why);

// Throws StoreFailure when the file can't be read.
void DumpOneFile(const std::string& path, uint64_t pageSize, bool json);

}  // namespace Kestrun::Tools
