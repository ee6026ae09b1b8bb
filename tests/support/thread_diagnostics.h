// What the library prints, told apart by the thread that printed it.
#pragma once

#include <cstdio>
#include <string>

namespace Kestrun::Testing {

// While one of these lives nothing that is printed to standard output with stdio comes out; each thread takes
// what it has printed itself. It is made and destroyed while no other thread prints.
class ThreadDiagnostics {
 public:
  ThreadDiagnostics();
  ~ThreadDiagnostics();
  ThreadDiagnostics(const ThreadDiagnostics&) = delete;
  ThreadDiagnostics& operator=(const ThreadDiagnostics&) = delete;

  // What the calling thread has printed since it asked last.
  static std::string Take();

 private:
  FILE* saved_;
  FILE* stream_;
};

}  // namespace Kestrun::Testing
