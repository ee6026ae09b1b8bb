// The program store_worker in a process of its own, started with exec.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>

namespace Kestrun::Testing {

class Worker {
 public:
  Worker();
  // Ends the process.
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  // Gives a command, and waits for its answer.
  std::string Do(const std::string& command);
  // The two halves of Do, for several workers at once.
  void Begin(const std::string& command);
  std::string End();

  void Kill();

 private:
  pid_t id_ = -1;
  FILE* commands_ = nullptr;
  FILE* answers_ = nullptr;
};

}  // namespace Kestrun::Testing
