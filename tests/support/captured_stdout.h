// Catches what the process writes to standard output, printf of the library included.
#pragma once

#include <string>

namespace Kestrun::Testing {

class CapturedStdout {
 public:
  CapturedStdout();
  // Standard output is what it was before. When the test has failed, what was written meanwhile follows
  // there: the failure's own message is part of it.
  ~CapturedStdout();
  CapturedStdout(const CapturedStdout&) = delete;
  CapturedStdout& operator=(const CapturedStdout&) = delete;

  // What was written since the last call, or since the beginning.
  std::string Take();

 private:
  int saved_;
  int file_;
  std::string taken_;
};

}  // namespace Kestrun::Testing
