#include "tests/support/thread_diagnostics.h"

#include <cstdlib>
#include <utility>

namespace Kestrun::Testing {
namespace {

thread_local std::string printed;

// Called by the thread that prints, because the stream has no buffer.
ssize_t Keep(void* /*cookie*/, const char* bytes, size_t size) {
  printed.append(bytes, size);
  return static_cast<ssize_t>(size);
}

}  // namespace

ThreadDiagnostics::ThreadDiagnostics() : saved_(stdout) {
  std::fflush(stdout);
  cookie_io_functions_t functions = {};
  functions.write = &Keep;
  stream_ = fopencookie(nullptr, "w", functions);
  if (stream_ == nullptr) std::abort();
  std::setvbuf(stream_, nullptr, _IONBF, 0);
  stdout = stream_;
}

ThreadDiagnostics::~ThreadDiagnostics() {
  stdout = saved_;
  std::fclose(stream_);
}

std::string ThreadDiagnostics::Take() {
  return std::exchange(printed, std::string());
}

}  // namespace Kestrun::Testing
