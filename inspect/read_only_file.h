// inspect/read_only_file.h: a file that is looked at and never changed, read with positioned reads only.
//
// Nothing is mapped: a file that shrinks while it is read gives short reads, never a signal. Offsets and
// sizes are 64-bit. No lock is taken.
//
// Ownership: a ReadOnlyFile owns its descriptor and only moves.
// Threads:   reading is safe from any thread; a FileWindow belongs to one.
// Failure:   a false result; Open also says why.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "format/byte_source.h"

namespace Kestrun::Inspect {

class ReadOnlyFile {
 public:
  // Opens a regular file; empty when it is anything else or can't be opened, with the reason in `*why`.
  static std::optional<ReadOnlyFile> Open(const std::string& path, std::string* why);

  ReadOnlyFile(ReadOnlyFile&& other) noexcept;
  ReadOnlyFile& operator=(ReadOnlyFile&& other) noexcept;
  ~ReadOnlyFile();

  // Bytes, as the file was when it was opened.
  uint64_t Size() const { return size_; }
  const std::string& Path() const { return path_; }
  // Reads exactly `size` bytes; false when the file holds fewer there or the system can't read them.
  bool ReadAt(uint64_t offset, void* out, size_t size) const;
  // Reads up to `size` bytes and returns how many: fewer only at the end of the file,
  // -1 when the system can't.
  ssize_t ReadSome(uint64_t offset, void* out, size_t size) const;

 private:
  ReadOnlyFile(int descriptor, uint64_t size, std::string path);

  int descriptor_;
  uint64_t size_;
  std::string path_;
};

// The file as the readers of format/ take it. Nothing behind the size that the file had is read.
class FileSource final : public ByteSource {
 public:
  explicit FileSource(const ReadOnlyFile& file) : file_(file) {}

  ssize_t ReadAt(uint64_t offset, void* buffer, size_t length) override;
  bool Size(uint64_t* size) override;

 private:
  const ReadOnlyFile& file_;
};

// Reads a file that is mostly walked forward in small pieces with few system calls.
class FileWindow {
 public:
  explicit FileWindow(const ReadOnlyFile& file, size_t size = size_t{64} << 10)
      : file_(file), windowSize_(size) {}

  // As ReadOnlyFile::ReadAt.
  bool ReadAt(uint64_t offset, void* out, size_t size);

 private:
  const ReadOnlyFile& file_;
  size_t windowSize_;
  uint64_t start_ = 0;
  std::vector<uint8_t> bytes_;
};

}  // namespace Kestrun::Inspect
