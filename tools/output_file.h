// tools/output_file.h: a file that appears when it is complete.
//
// Failure: throws SystemFailure.
#pragma once

#include <string>
#include <string_view>

namespace Kestrun::Tools {

// Throws SystemFailure where `path`, which is to be made, lies in the directory of the
// store, however it is written.
void RequireOutside(const std::string& store, const std::string& path);

// Written beside its name and renamed. What is not committed leaves nothing. A file that is replaced gives
// its permissions to the new one.
class OutputFile {
 public:
  explicit OutputFile(const std::string& path);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // The name under which it is written.
  const std::string& PartialPath() const { return partial_; }
  void Write(std::string_view bytes);
  // Syncs the file and gives it its name.
  void Commit();

 private:
  [[noreturn]] void Fail();
  void Flush();

  std::string path_;
  std::string partial_;
  std::string buffer_;
  int descriptor_ = -1;
};

}  // namespace Kestrun::Tools
