// tools/input.h: values and rows from files and from standard input.
//
// Failure: throws InputError when a file can't be read.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace Kestrun::Tools {

// A value of the command line that means standard input.
inline constexpr char kStandardInput[] = "-";

// The size of the largest value that an entry can tell.
inline constexpr uint64_t kMaxValue = 4294967295;

// All of standard input. Throws InputError when it has more than `most` bytes.
std::string ReadStandardInput(uint64_t most);

// A file that is read line by line, and again. What "-" names is standard input, copied to a file without a
// name when it can't be read twice.
class InputFile {
 public:
  explicit InputFile(const std::string& path);

  // Bytes; what is copied from standard input counts in full.
  uint64_t Size() const { return size_; }
  uint64_t Position() const { return position_; }
  void Seek(uint64_t position);
  // The next line with its line end; false at the end of the file.
  bool ReadLine(std::string* line);
  // The path, or "standard input".
  const std::string& Name() const { return name_; }

 private:
  struct Close {
    void operator()(FILE* file) const { std::fclose(file); }
  };

  std::unique_ptr<FILE, Close> file_;
  std::string name_;
  uint64_t size_ = 0;
  uint64_t position_ = 0;
};

}  // namespace Kestrun::Tools
