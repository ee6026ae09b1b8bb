// Runs a fuzz target over files, and over the files in directories, that the command line names. Fails when
// there is none.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/fuzz/fuzz_check.h"

int main(int count, char** arguments) {
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < count; ++i) {
    if (!std::filesystem::is_directory(arguments[i])) {
      files.emplace_back(arguments[i]);
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(arguments[i])) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());

  for (const auto& path : files) {
    std::ifstream file(path, std::ios::binary);
    if (!file.is_open()) {
      std::fprintf(stderr, "can't read %s\n", path.c_str());
      return 1;
    }
    const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    std::fprintf(stderr, "%s\n", path.c_str());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  std::fprintf(stderr, "%zu inputs\n", files.size());
  return files.empty() ? 1 : 0;
}
