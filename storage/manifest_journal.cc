#include "storage/manifest_journal.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <type_traits>

#include "format/file_magic.h"
#include "kestrun/status.h"
#include "storage/directory.h"
#include "storage/os_file.h"

namespace Kestrun {
namespace {

constexpr uint64_t kMaxSideFile = uint64_t{1} << 30;  // a manifest is far shorter

struct SideHeader {
  uint8_t magic[8];
  uint32_t version;
  uint32_t generation;
  uint64_t oldLength;
  uint64_t oldHash;
  uint64_t hash;  // of the fields before it and of the entries behind it
};
static_assert(sizeof(SideHeader) == 40);
static_assert(std::has_unique_object_representations_v<SideHeader>);

uint64_t HashOf(const SideHeader& header, const uint8_t* entries, size_t size) {
  return JournalHash(entries, size, JournalHash(&header, offsetof(SideHeader, hash)));
}

uint32_t WriteWhole(OsFile& file, const std::vector<uint8_t>& image) {
  const auto size = static_cast<ssize_t>(image.size());
  if (file.PWriteFully(image.data(), image.size(), 0) != size || file.Truncate(size) != 0) {
    return kStatusManifestWriteFailed;
  }
  return file.Sync() == 0 ? kStatusOk : kStatusSyncFailed;
}

}  // namespace

std::string JournalPath(const std::string& manifestPath) {
  return manifestPath + ".next";
}

uint64_t JournalHash(const void* data, size_t size, uint64_t begun) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  for (size_t i = 0; i < size; ++i) begun = (begun ^ bytes[i]) * 0x100000001B3u;
  return begun;
}

uint32_t WriteJournal(const std::string& path, const ManifestJournal& replacement) {
  SideHeader header = {};
  std::memcpy(header.magic, kFileMagic, kMagicSize);
  header.version = kFormatVersion;
  header.generation = replacement.generation;
  header.oldLength = replacement.oldLength;
  header.oldHash = replacement.oldHash;
  header.hash = HashOf(header, replacement.entries.data(), replacement.entries.size());

  std::vector<uint8_t> image(sizeof(header) + replacement.entries.size());
  std::memcpy(image.data(), &header, sizeof(header));
  if (!replacement.entries.empty()) {
    std::memcpy(image.data() + sizeof(header), replacement.entries.data(), replacement.entries.size());
  }

  std::shared_ptr<OsFile> file;
  if (OsFile::Open(path, kOpenReadWrite, &file) != kStatusOk) return kStatusManifestWriteFailed;
  uint32_t status = WriteWhole(*file, image);
  if (status == kStatusOk && !SyncDirectory(DirectoryOf(path))) status = kStatusSyncFailed;
  if (status != kStatusOk) IgnoreStatus(RemoveJournal(path));  // the next change of the manifest tries again
  return status;
}

bool MayHaveJournal(const std::string& path) {
  return access(path.c_str(), F_OK) == 0 || errno != ENOENT;
}

bool ReadJournal(const std::string& path, ManifestJournal* replacement, bool* unreadable) {
  bool ignored = false;
  if (unreadable == nullptr) unreadable = &ignored;
  *unreadable = MayHaveJournal(path);
  if (!*unreadable) return false;
  std::shared_ptr<OsFile> file;
  if (OsFile::Open(path, kOpenReadOnly, &file) != kStatusOk) return false;
  uint64_t size = 0;
  if (file->Size(&size) != 0) return false;
  std::vector<uint8_t> image;
  if (size >= sizeof(SideHeader) && size <= kMaxSideFile) {
    image.resize(size);
    const ssize_t count = file->PReadFully(image.data(), image.size(), 0);
    if (count < 0) return false;
    image.resize(static_cast<size_t>(count));
  }
  *unreadable = false;
  if (image.size() < sizeof(SideHeader)) return false;

  SideHeader header;
  std::memcpy(&header, image.data(), sizeof(header));
  const uint8_t* entries = image.data() + sizeof(header);
  if (std::memcmp(header.magic, kFileMagic, kMagicSize) != 0 || header.version != kFormatVersion)
    return false;
  if (header.hash != HashOf(header, entries, image.size() - sizeof(header))) return false;
  replacement->generation = header.generation;
  replacement->oldLength = header.oldLength;
  replacement->oldHash = header.oldHash;
  replacement->entries.assign(entries, entries + (image.size() - sizeof(header)));
  return true;
}

bool RemoveJournal(const std::string& path) {
  if (unlink(path.c_str()) == 0) {
    // A side file that came back with a loss of power would be compared with the manifest once more, which is
    // harmless unless the manifest has been truncated meanwhile.
    IgnoreStatus(SyncDirectory(DirectoryOf(path)));
    return true;
  }
  if (errno == ENOENT) return true;
  std::shared_ptr<OsFile> file;
  return OsFile::Open(path, kOpenReadWrite, &file) == kStatusOk && file->Truncate(0) == 0 &&
         file->Sync() == 0;
}

}  // namespace Kestrun
