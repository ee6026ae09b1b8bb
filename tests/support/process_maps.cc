#include "tests/support/process_maps.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace Kestrun::Testing {
namespace {

std::vector<std::string> LinesOfMaps() {
  std::ifstream maps("/proc/self/maps");
  std::vector<std::string> lines;
  for (std::string line; std::getline(maps, line);) lines.push_back(line);
  return lines;
}

}  // namespace

std::vector<std::string> MappingsOf(const std::string& path) {
  std::vector<std::string> lines;
  for (const std::string& line : LinesOfMaps()) {
    if (line.find(path) != std::string::npos) lines.push_back(line);
  }
  return lines;
}

std::vector<int> DescriptorsOf(const std::string& path) {
  std::vector<int> descriptors;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry, gone) == path) {
      descriptors.push_back(std::stoi(entry.path().filename()));
    }
  }
  return descriptors;
}

size_t CountMappings() {
  return LinesOfMaps().size();
}

size_t CountDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

}  // namespace Kestrun::Testing
