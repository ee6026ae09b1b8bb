#include "storage/manifest_journal.h"

#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

#include "kestrun/status.h"
#include "storage/directory.h"
#include "storage/os_file.h"
#include "storage/os_file_source.h"

namespace Kestrun {
namespace {

uint32_t WriteWhole(OsFile& file, const std::vector<uint8_t>& image) {
  const auto size = static_cast<ssize_t>(image.size());
  if (file.PWriteFully(image.data(), image.size(), 0) != size || file.Truncate(size) != 0) {
    return kStatusManifestWriteFailed;
  }
  return file.Sync() == 0 ? kStatusOk : kStatusSyncFailed;
}

}  // namespace

std::string JournalPath(const std::string& manifestPath) {
  return manifestPath + kManifestJournalSuffix;
}

uint32_t WriteJournal(const std::string& path, const ManifestJournal& journal) {
  std::shared_ptr<OsFile> file;
  if (OsFile::Open(path, kOpenReadWrite, &file) != kStatusOk) return kStatusManifestWriteFailed;
  uint32_t status = WriteWhole(*file, ManifestJournalImage(journal));
  if (status == kStatusOk && !SyncDirectory(DirectoryOf(path))) status = kStatusSyncFailed;
  if (status != kStatusOk) IgnoreStatus(RemoveJournal(path));  // the next change of the manifest tries again
  return status;
}

bool MayHaveJournal(const std::string& path) {
  return access(path.c_str(), F_OK) == 0 || errno != ENOENT;
}

bool ReadJournal(const std::string& path, ManifestJournal* journal, bool* unreadable) {
  bool ignored = false;
  if (unreadable == nullptr) unreadable = &ignored;
  *unreadable = MayHaveJournal(path);
  if (!*unreadable) return false;
  std::shared_ptr<OsFile> file;
  if (OsFile::Open(path, kOpenReadOnly, &file) != kStatusOk) return false;
  OsFileSource source(*file);
  const JournalState state = ReadManifestJournal(source, journal);
  *unreadable = state == JournalState::Unreadable;
  return state == JournalState::Complete;
}

bool RemoveJournal(const std::string& path) {
  if (unlink(path.c_str()) == 0) {
    // A journal that comes back after a loss of power is compared with the manifest once more, which is
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
