#include "tests/fault/power_loss_states_recorder.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace Kestrun::Testing {
namespace {

FileRecorder* current = nullptr;

// The headers of the log and the manifest.
constexpr size_t kHeaderSize = 24;

}  // namespace

FileRecorder::FileRecorder(std::string root) : FileRecorder(std::move(root), DiskImage()) {}

FileRecorder::FileRecorder(std::string root, const DiskImage& start) : root_(std::move(root)) {
  Event event;
  const auto addName = [&](const std::string& path, int file) {
    names_[path] = file;
    Change change = {Change::Kind::Name, file, 0, 0, nullptr, path};
    event.push_back(change);
    const size_t slash = path.rfind('/');
    event.push_back({Change::Kind::SyncNames, kNoFile, 0, 0, nullptr,
                     slash == std::string::npos ? "" : path.substr(0, slash)});
  };
  for (const std::string& directory : start.directories) addName(directory, kDirectory);
  for (const auto& [path, bytes] : start.files) {
    const int file = static_cast<int>(files_.size());
    files_.push_back(bytes);
    addName(path, file);
    event.push_back({Change::Kind::Size, file, bytes.size(), 0, nullptr, ""});
    AddPages(file, 0, bytes.size(), &event);
    event.push_back({Change::Kind::SyncFile, file, 0, 0, nullptr, ""});
  }
  Add(std::move(event));
  current = this;
}

FileRecorder::~FileRecorder() {
  current = nullptr;
}

FileRecorder* FileRecorder::Current() {
  return current;
}

size_t FileRecorder::SyncsOf(const std::string& name) const {
  const auto found = syncs_.find(name);
  return found == syncs_.end() ? 0 : found->second;
}

bool FileRecorder::IsOurs(const char* path, std::string* relative) const {
  const std::string whole = path;
  if (whole.compare(0, root_.size(), root_) != 0) return false;
  if (whole.size() > root_.size() && whole[root_.size()] != '/') return false;
  relative->clear();
  for (size_t i = root_.size(); i < whole.size(); ++i) {
    const bool doubled = whole[i] == '/' && (relative->empty() || relative->back() == '/');
    if (!doubled) *relative += whole[i];
  }
  while (!relative->empty() && relative->back() == '/') relative->pop_back();
  return true;
}

const FileRecorder::Handle* FileRecorder::Find(int descriptor) const {
  const auto found = handles_.find(descriptor);
  return found == handles_.end() ? nullptr : &found->second;
}

void FileRecorder::AddPages(int file, size_t begin, size_t end, Event* event) const {
  const std::string& bytes = files_[static_cast<size_t>(file)];
  for (size_t page = begin / kDiskPage; page * kDiskPage < end; ++page) {
    std::string content = page * kDiskPage < bytes.size() ? bytes.substr(page * kDiskPage, kDiskPage) : "";
    content.resize(kDiskPage);
    event->push_back(
        {Change::Kind::Page, file, page, 0, std::make_shared<const std::string>(std::move(content)), ""});
  }
}

void FileRecorder::TakeStores() {
  Event event;
  for (const Mapping& mapping : mappings_) Compare(mapping, &event);
  Add(std::move(event));
}

// A page that shows a new header together with other new bytes could also have been written back in between,
// with the other bytes alone: the header is what the store changes last.
void FileRecorder::Compare(const Mapping& mapping, Event* event) {
  std::string& bytes = files_[static_cast<size_t>(mapping.file)];
  if (bytes.size() < mapping.offset + mapping.length) bytes.resize(mapping.offset + mapping.length);
  for (size_t begin = 0; begin < mapping.length; begin += kDiskPage) {
    const size_t count = std::min(kDiskPage, mapping.length - begin);
    char* known = bytes.data() + mapping.offset + begin;
    const uint8_t* now = mapping.bytes + begin;
    if (std::memcmp(known, now, count) == 0) continue;
    const size_t offset = mapping.offset + begin;
    const size_t head = offset == 0 ? std::min(kHeaderSize, count) : 0;
    if (std::memcmp(known, now, head) != 0 && std::memcmp(known + head, now + head, count - head) != 0) {
      std::memcpy(known + head, now + head, count - head);
      AddPages(mapping.file, offset, offset + count, event);
    }
    std::memcpy(known, now, count);
    AddPages(mapping.file, offset, offset + count, event);
  }
}

void FileRecorder::Opened(int descriptor, const char* path, int flags) {
  std::string relative;
  if (!IsOurs(path, &relative)) return;
  if ((flags & O_TMPFILE) == O_TMPFILE) {
    handles_[descriptor] = {static_cast<int>(files_.size()), ""};
    files_.emplace_back();
    return;
  }
  if (relative.empty()) {
    handles_[descriptor] = {kDirectory, ""};
    return;
  }
  const auto known = names_.find(relative);
  if (known != names_.end()) {
    if ((flags & O_TRUNC) != 0) Unknown("open with O_TRUNC", path);
    handles_[descriptor] = {known->second, relative};
    return;
  }
  const int file = static_cast<int>(files_.size());
  files_.emplace_back();
  names_[relative] = file;
  handles_[descriptor] = {file, relative};
  Add({{Change::Kind::Name, file, 0, 0, nullptr, relative}});
}

void FileRecorder::Closed(int descriptor) {
  handles_.erase(descriptor);
}

void FileRecorder::Written(int descriptor, const void* bytes, size_t count, int64_t offset) {
  const Handle* handle = Find(descriptor);
  if (handle == nullptr || count == 0) return;
  std::string& content = files_[static_cast<size_t>(handle->file)];
  const size_t begin = static_cast<size_t>(offset);
  Event event;
  if (begin + count > content.size()) {
    content.resize(begin + count);
    event.push_back({Change::Kind::Size, handle->file, content.size(), 0, nullptr, ""});
  }
  std::memcpy(content.data() + begin, bytes, count);
  AddPages(handle->file, begin, begin + count, &event);
  Add(std::move(event));
}

void FileRecorder::Cut(int descriptor, int64_t length) {
  const Handle* handle = Find(descriptor);
  if (handle == nullptr) return;
  std::string& content = files_[static_cast<size_t>(handle->file)];
  const size_t before = content.size();
  const size_t after = static_cast<size_t>(length);
  if (before == after) return;
  content.resize(after);
  Event event;
  event.push_back({Change::Kind::Size, handle->file, after, 0, nullptr, ""});
  if (after < before) AddPages(handle->file, after, before, &event);
  Add(std::move(event));
}

void FileRecorder::Synced(int descriptor) {
  const Handle* handle = Find(descriptor);
  if (handle == nullptr) return;
  if (handle->file == kDirectory) {
    Add({{Change::Kind::SyncNames, kNoFile, 0, 0, nullptr, handle->path}});
  } else {
    Add({{Change::Kind::SyncFile, handle->file, 0, 0, nullptr, ""}});
    ++syncs_[handle->path.substr(handle->path.rfind('/') + 1)];
  }
}

void FileRecorder::Linked(const char* oldPath, const char* newPath) {
  std::string relative;
  if (!IsOurs(newPath, &relative)) return;
  int descriptor = -1;
  const Handle* handle =
      std::sscanf(oldPath, "/proc/self/fd/%d", &descriptor) == 1 ? Find(descriptor) : nullptr;
  if (handle == nullptr) return Unknown("linkat of a named file", newPath);
  names_[relative] = handle->file;
  Add({{Change::Kind::Name, handle->file, 0, 0, nullptr, relative}});
}

void FileRecorder::Unlinked(const char* path) {
  std::string relative;
  if (!IsOurs(path, &relative)) return;
  names_.erase(relative);
  Add({{Change::Kind::Name, kNoFile, 0, 0, nullptr, relative}});
}

void FileRecorder::DirectoryMade(const char* path) {
  std::string relative;
  if (!IsOurs(path, &relative)) return;
  names_[relative] = kDirectory;
  Add({{Change::Kind::Name, kDirectory, 0, 0, nullptr, relative}});
}

void FileRecorder::Mapped(void* address, size_t length, int descriptor, int64_t offset) {
  const Handle* handle = Find(descriptor);
  if (handle == nullptr) return;
  mappings_.push_back(
      {static_cast<const uint8_t*>(address), length, handle->file, static_cast<size_t>(offset)});
}

void FileRecorder::Unmapped(void* address) {
  const auto position = std::find_if(mappings_.begin(), mappings_.end(),
                                     [address](const Mapping& mapping) { return mapping.bytes == address; });
  if (position != mappings_.end()) mappings_.erase(position);
}

void FileRecorder::SyncedMapping(void* address, size_t length) {
  const auto* bytes = static_cast<const uint8_t*>(address);
  for (const Mapping& mapping : mappings_) {
    if (bytes < mapping.bytes || bytes >= mapping.bytes + mapping.length) continue;
    const size_t begin = mapping.offset + static_cast<size_t>(bytes - mapping.bytes);
    Add({{Change::Kind::SyncPages, mapping.file, begin / kDiskPage,
          (begin + length + kDiskPage - 1) / kDiskPage, nullptr, ""}});
    return;
  }
}

void FileRecorder::Unknown(const char* function, int descriptor) {
  if (Find(descriptor) != nullptr) notUnderstood_ += std::string(function) + "; ";
}

void FileRecorder::Unknown(const char* function, const char* path) {
  std::string relative;
  if (IsOurs(path, &relative)) notUnderstood_ += std::string(function) + " " + relative + "; ";
}

}  // namespace Kestrun::Testing

// The linker sends the program's calls of FUNCTION to __wrap_FUNCTION; __real_FUNCTION is the system's.
using Kestrun::Testing::FileRecorder;

extern "C" {

int __real_open(const char* path, int flags, ...);
int __real_close(int descriptor);
ssize_t __real_write(int descriptor, const void* bytes, size_t count);
ssize_t __real_pwrite(int descriptor, const void* bytes, size_t count, off_t offset);
int __real_ftruncate(int descriptor, off_t length);
int __real_fallocate(int descriptor, int mode, off_t offset, off_t length);
int __real_fsync(int descriptor);
int __real_fdatasync(int descriptor);
int __real_linkat(int oldDirectory, const char* oldPath, int newDirectory, const char* newPath, int flags);
int __real_rename(const char* oldPath, const char* newPath);
int __real_unlink(const char* path);
int __real_remove(const char* path);
int __real_mkdir(const char* path, mode_t mode);
void* __real_mmap(void* hint, size_t length, int protection, int flags, int descriptor, off_t offset);
int __real_munmap(void* address, size_t length);
int __real_msync(void* address, size_t length, int flags);

int __wrap_open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  FileRecorder* recorder = FileRecorder::Current();
  if (recorder != nullptr) recorder->TakeStores();
  const int descriptor = __real_open(path, flags, mode);
  if (recorder != nullptr && descriptor >= 0) recorder->Opened(descriptor, path, flags);
  return descriptor;
}

int __wrap_close(int descriptor) {
  FileRecorder* recorder = FileRecorder::Current();
  if (recorder != nullptr) recorder->Closed(descriptor);
  return __real_close(descriptor);
}

ssize_t __wrap_write(int descriptor, const void* bytes, size_t count) {
  if (FileRecorder* recorder = FileRecorder::Current()) recorder->Unknown("write", descriptor);
  return __real_write(descriptor, bytes, count);
}

ssize_t __wrap_pwrite(int descriptor, const void* bytes, size_t count, off_t offset) {
  FileRecorder* recorder = FileRecorder::Current();
  if (recorder != nullptr) recorder->TakeStores();
  const ssize_t written = __real_pwrite(descriptor, bytes, count, offset);
  if (recorder != nullptr && written > 0) {
    recorder->Written(descriptor, bytes, static_cast<size_t>(written), offset);
  }
  return written;
}

int __wrap_ftruncate(int descriptor, off_t length) {
  FileRecorder* recorder = FileRecorder::Current();
  if (recorder != nullptr) recorder->TakeStores();
  const int result = __real_ftruncate(descriptor, length);
  if (recorder != nullptr && result == 0) recorder->Cut(descriptor, length);
  return result;
}

// Reserving space changes nothing that can be read.
int __wrap_fallocate(int descriptor, int mode, off_t offset, off_t length) {
  FileRecorder* recorder = FileRecorder::Current();
  if (recorder != nullptr && mode != FALLOC_FL_KEEP_SIZE) recorder->Unknown("fallocate", descriptor);
  return __real_fallocate(descriptor, mode, offset, length);
}

int __wrap_fsync(int descriptor) {
  FileRecorder* recorder = FileRecorder::Current();
  if (recorder != nullptr) recorder->TakeStores();
  const int result = __real_fsync(descriptor);
  if (recorder != nullptr && result == 0) recorder->Synced(descriptor);
  return result;
}

int __wrap_fdatasync(int descriptor) {
  if (FileRecorder* recorder = FileRecorder::Current()) recorder->Unknown("fdatasync", descriptor);
  return __real_fdatasync(descriptor);
}

int __wrap_linkat(int oldDirectory, const char* oldPath, int newDirectory, const char* newPath, int flags) {
  FileRecorder* recorder = FileRecorder::Current();
  if (recorder != nullptr) recorder->TakeStores();
  const int result = __real_linkat(oldDirectory, oldPath, newDirectory, newPath, flags);
  if (recorder != nullptr && result == 0) recorder->Linked(oldPath, newPath);
  return result;
}

int __wrap_rename(const char* oldPath, const char* newPath) {
  if (FileRecorder* recorder = FileRecorder::Current()) recorder->Unknown("rename", newPath);
  return __real_rename(oldPath, newPath);
}

int __wrap_unlink(const char* path) {
  FileRecorder* recorder = FileRecorder::Current();
  if (recorder != nullptr) recorder->TakeStores();
  const int result = __real_unlink(path);
  if (recorder != nullptr && result == 0) recorder->Unlinked(path);
  return result;
}

int __wrap_remove(const char* path) {
  FileRecorder* recorder = FileRecorder::Current();
  if (recorder != nullptr) recorder->TakeStores();
  const int result = __real_remove(path);
  if (recorder != nullptr && result == 0) recorder->Unlinked(path);
  return result;
}

int __wrap_mkdir(const char* path, mode_t mode) {
  FileRecorder* recorder = FileRecorder::Current();
  if (recorder != nullptr) recorder->TakeStores();
  const int result = __real_mkdir(path, mode);
  if (recorder != nullptr && result == 0) recorder->DirectoryMade(path);
  return result;
}

void* __wrap_mmap(void* hint, size_t length, int protection, int flags, int descriptor, off_t offset) {
  void* address = __real_mmap(hint, length, protection, flags, descriptor, offset);
  FileRecorder* recorder = FileRecorder::Current();
  const bool storable = (protection & PROT_WRITE) != 0 && (flags & MAP_SHARED) != 0;
  if (recorder != nullptr && address != MAP_FAILED && storable) {
    recorder->Mapped(address, length, descriptor, offset);
  }
  return address;
}

int __wrap_munmap(void* address, size_t length) {
  FileRecorder* recorder = FileRecorder::Current();
  if (recorder != nullptr) {
    recorder->TakeStores();
    recorder->Unmapped(address);
  }
  return __real_munmap(address, length);
}

int __wrap_msync(void* address, size_t length, int flags) {
  FileRecorder* recorder = FileRecorder::Current();
  if (recorder != nullptr) recorder->TakeStores();
  const int result = __real_msync(address, length, flags);
  if (recorder != nullptr && result == 0) recorder->SyncedMapping(address, length);
  return result;
}

}  // extern "C"
