// Runs the real program and catches what it writes.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace Kestrun::Testing {

struct Ran {
  int status = -1;  // the exit status; 128 and the signal's number when a signal ended it
  std::string out;
  std::string err;
};

// With `input` on standard input, which is no terminal.
Ran RunKestrun(const std::vector<std::string>& arguments, const std::string& input = std::string());

// With standard input and standard error on a terminal; `typed` is waiting there.
Ran RunKestrunOnTerminal(const std::vector<std::string>& arguments, const std::string& typed = std::string());

// With the descriptors of `closed` closed.
Ran RunKestrunWithout(const std::vector<int>& closed, const std::vector<std::string>& arguments);

// With standard output going to the file `path`.
Ran RunKestrunInto(const std::string& path, const std::vector<std::string>& arguments);

// Started and not waited for.
class RunningKestrun {
 public:
  explicit RunningKestrun(const std::vector<std::string>& arguments);
  ~RunningKestrun();
  RunningKestrun(const RunningKestrun&) = delete;
  RunningKestrun& operator=(const RunningKestrun&) = delete;

  void Signal(int signal);
  Ran Wait();

 private:
  pid_t id_;
  int out_;
  int err_;
};

}  // namespace Kestrun::Testing
