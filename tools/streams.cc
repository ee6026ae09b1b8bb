#include "tools/streams.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/failure.h"

namespace Kestrun::Tools {
namespace {

FILE* data = nullptr;
char diagnostics[64 * 1024];
bool dataIsClosed = false;
bool progressIsShown = false;

[[noreturn]] void FailToWrite() {
  throw SystemFailure(std::string("standard output can't be written: ") + std::strerror(errno));
}

void ClearProgress() {
  if (!progressIsShown) return;
  std::fputs("\r\033[K", stderr);
  progressIsShown = false;
}

}  // namespace

void PrepareStreams() {
  dataIsClosed = fcntl(STDOUT_FILENO, F_GETFD) < 0;
  int descriptor = open("/dev/null", O_RDWR);
  while (descriptor >= 0 && descriptor <= 2) descriptor = open("/dev/null", O_RDWR);
  if (descriptor > 2) close(descriptor);

  const int saved = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  data = saved < 0 ? nullptr : fdopen(saved, "w");
  if (data == nullptr || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) std::abort();
  // Kept back until FlushDiagnostics, which sees from it whether a line end is missing.
  setvbuf(stdout, diagnostics, _IOFBF, sizeof(diagnostics));
}

void WriteData(std::string_view bytes) {
  if (dataIsClosed) throw SystemFailure("standard output is closed");
  if (bytes.empty()) return;  // and its data may be null
  if (std::fwrite(bytes.data(), 1, bytes.size(), data) != bytes.size()) FailToWrite();
}

void WriteLine(std::string_view text) {
  WriteData(text);
  WriteData("\n");
}

void FinishData() {
  if (std::fflush(data) != 0) FailToWrite();
}

void FlushDiagnostics() {
  const size_t pending = __fpending(stdout);
  if (pending == 0) return;
  ClearProgress();
  if (pending <= sizeof(diagnostics) && diagnostics[pending - 1] != '\n') std::fputc('\n', stdout);
  std::fflush(stdout);
}

void PrintMessage(std::string_view text) {
  FlushDiagnostics();
  ClearProgress();
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fputc('\n', stderr);
}

void ShowProgress(std::string_view text) {
  FlushDiagnostics();
  if (text.empty()) {
    ClearProgress();
  } else {
    std::fprintf(stderr, "\r%.*s\033[K", static_cast<int>(text.size()), text.data());
    progressIsShown = true;
  }
  std::fflush(stderr);
}

bool StandardErrorIsTerminal() {
  return isatty(STDERR_FILENO) == 1;
}

}  // namespace Kestrun::Tools
