// inspect/verify_file.h: the checks of store_verify.h that need only one file each.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "inspect/read_only_file.h"
#include "inspect/store_verify.h"

namespace Kestrun::Inspect {

void VerifyLog(const ReadOnlyFile& file, const std::string& name, VerifyReport* report);

// Checks the header only; false when it is such that a store does not read the records.
bool VerifyManifestHeader(const ReadOnlyFile& file, const std::string& name, VerifyReport* report);

// `filter` is the block's filter in the manifest; null when there is none to check.
void VerifyBlock(const ReadOnlyFile& file, const std::string& name, uint64_t pageSize,
                 const std::vector<uint8_t>* filter, VerifyReport* report);

void VerifySchema(const ReadOnlyFile& file, const std::string& name, VerifyReport* report);

}  // namespace Kestrun::Inspect
