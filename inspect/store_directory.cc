#include "inspect/store_directory.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "format/file_names.h"

namespace Kestrun::Inspect {
namespace {

void Sort(const std::string& name, StoreDirectory* directory) {
  const size_t suffixSize = std::strlen(kBlockFileSuffix);
  if (name == kWalFileName) {
    directory->hasLog = true;
  } else if (name == kManifestFileName) {
    directory->hasManifest = true;
  } else if (name == kSchemaFileName) {
    directory->hasSchema = true;
  } else if (name == std::string(kManifestFileName) + kManifestJournalSuffix) {
    directory->hasUnfinishedManifest = true;
  } else if (name.size() > suffixSize && name.ends_with(kBlockFileSuffix)) {
    directory->blocks.push_back(name.substr(0, name.size() - suffixSize));
  } else if (name.starts_with(std::string(kWalFileName) + kDamagedLogMark)) {
    directory->damagedLogs.push_back(name);
  } else if (name == kLegacyWalFileName || name.find(kLegacyBlockFileMark) != std::string::npos) {
    directory->legacy.push_back(name);
  } else {
    directory->others.push_back(name);
  }
}

}  // namespace

std::optional<StoreDirectory> ListStore(const std::string& directory, std::string* why) {
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(directory.c_str()), &closedir);
  if (stream == nullptr) {
    *why = std::strerror(errno);
    return std::nullopt;
  }
  StoreDirectory found;
  for (;;) {
    errno = 0;
    const struct dirent* entry = readdir(stream.get());
    if (entry == nullptr) break;
    const std::string name = entry->d_name;
    if (name != "." && name != "..") Sort(name, &found);
  }
  if (errno != 0) {
    *why = std::strerror(errno);
    return std::nullopt;
  }
  for (auto* names : {&found.blocks, &found.damagedLogs, &found.legacy, &found.others})
    std::sort(names->begin(), names->end());
  return found;
}

std::string LogPath(const std::string& directory) {
  return directory + "/" + kWalFileName;
}

std::string ManifestPath(const std::string& directory) {
  return directory + "/" + kManifestFileName;
}

std::string SchemaPath(const std::string& directory) {
  return directory + "/" + kSchemaFileName;
}

std::string BlockPath(const std::string& directory, const std::string& name) {
  return directory + "/" + name + kBlockFileSuffix;
}

}  // namespace Kestrun::Inspect
