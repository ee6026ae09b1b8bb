// What the process has open and mapped, as the system tells it.
#pragma once

#include <string>
#include <vector>

namespace Kestrun::Testing {

// The lines of /proc/self/maps that name the file.
std::vector<std::string> MappingsOf(const std::string& path);
// The descriptors that this process has open on the file.
std::vector<int> DescriptorsOf(const std::string& path);
// The number of all mappings, and of all descriptors.
size_t CountMappings();
size_t CountDescriptors();

}  // namespace Kestrun::Testing
