#include "tests/fault/power_loss_states_recorder.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

namespace Kestrun::Testing {
namespace {

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
  SetCallObserver(this);
}

FileRecorder::~FileRecorder() {
  SetCallObserver(nullptr);
}

bool FileRecorder::Before(Call& call) {
  switch (call.function) {
    case Function::Open:
    case Function::PWrite:
    case Function::FTruncate:
    case Function::FSync:
    case Function::LinkAt:
    case Function::Unlink:
    case Function::Remove:
    case Function::MkDir:
    case Function::MSync:
      TakeStores();
      break;
    case Function::MUnmap:
      TakeStores();
      Unmapped(call.argument);
      break;
    case Function::Close:
      Closed(call.descriptor);
      break;
    case Function::FAllocate:
      if (call.flags != FALLOC_FL_KEEP_SIZE) Unknown("fallocate", call.descriptor);
      break;
    case Function::Write:
      Unknown("write", call.descriptor);
      break;
    case Function::PosixFAllocate:
      Unknown("posix_fallocate", call.descriptor);
      break;
    case Function::FDataSync:
      Unknown("fdatasync", call.descriptor);
      break;
    case Function::CopyFileRange:
      Unknown("copy_file_range", call.descriptor);
      break;
    case Function::Rename:
      Unknown("rename", call.newPath);
      break;
    case Function::RenameAt2:
      Unknown("renameat2", call.newPath);
      break;
    case Function::RmDir:
      Unknown("rmdir", call.path);
      break;
    default:  // changes no file
      break;
  }
  return true;
}

void FileRecorder::After(const Call& call, int64_t result) {
  if (result == -1) return;
  switch (call.function) {
    case Function::Open:
      Opened(static_cast<int>(result), call.path, call.flags);
      break;
    case Function::PWrite:
      Written(call.descriptor, call.bytes, static_cast<size_t>(result), call.offset);
      break;
    case Function::FTruncate:
      Cut(call.descriptor, call.offset);
      break;
    case Function::FSync:
      Synced(call.descriptor);
      break;
    case Function::LinkAt:
      Linked(call.path, call.newPath);
      break;
    case Function::Unlink:
    case Function::Remove:
      Unlinked(call.path);
      break;
    case Function::MkDir:
      DirectoryMade(call.path);
      break;
    case Function::MMap:
      if ((call.flags & PROT_WRITE) != 0 && (call.flags & MAP_SHARED) != 0) {
        Mapped(reinterpret_cast<const uint8_t*>(result), call.count, call.descriptor, call.offset);
      }
      break;
    case Function::MSync:
      SyncedMapping(call.argument, call.count);
      break;
    default:
      break;
  }
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

void FileRecorder::Mapped(const uint8_t* bytes, size_t length, int descriptor, int64_t offset) {
  const Handle* handle = Find(descriptor);
  if (handle == nullptr) return;
  mappings_.push_back({bytes, length, handle->file, static_cast<size_t>(offset)});
}

void FileRecorder::Unmapped(const void* address) {
  const auto position = std::find_if(mappings_.begin(), mappings_.end(),
                                     [address](const Mapping& mapping) { return mapping.bytes == address; });
  if (position != mappings_.end()) mappings_.erase(position);
}

void FileRecorder::SyncedMapping(const void* address, size_t length) {
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
