// tools/input.h: standard input and files, read from beginning to end.
//
// Failure: throws InputError when something can't be read, and Interrupted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Kestrun::Tools {

// A value of the command line that means standard input.
inline constexpr char kStandardInput[] = "-";

// All of standard input. Throws InputError when it is closed or has more than `most` bytes. On a terminal a
// hint tells that it is being read.
std::string ReadStandardInput(uint64_t most);

// A file, or standard input, read forward in large pieces.
class InputFile {
 public:
  explicit InputFile(const std::string& path);
  ~InputFile();
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  // Reads up to `size` bytes; 0 at the end only.
  size_t Read(char* buffer, size_t size);
  // Bytes; 0 when it is not known.
  uint64_t Size() const { return size_; }
  uint64_t Position() const { return position_; }
  // The path as it may be shown, or "standard input".
  const std::string& Name() const { return name_; }

 private:
  int descriptor_ = -1;
  std::string name_;
  uint64_t size_ = 0;
  uint64_t position_ = 0;
};

}  // namespace Kestrun::Tools
