#include "tools/streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "tools/failure.h"

namespace Kestrun::Tools {
namespace {

constexpr size_t kDataPiece = 256 << 10;

std::string* data = nullptr;
bool inputIsClosed = false;
bool outputIsClosed = false;
bool progressIsShown = false;
int writeError = 0;  // of the data that was handed over before a message
Verbosity verbosity = Verbosity::Normal;

// Whether all of `bytes` was written.
bool WriteAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = write(descriptor, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

void ClearProgress() {
  if (!progressIsShown) return;
  WriteAll(STDERR_FILENO, "\r\033[K");
  progressIsShown = false;
}

// A failure is kept for FlushData.
void HandOverData() {
  if (data == nullptr || data->empty()) return;
  ClearProgress();
  if (!WriteAll(STDOUT_FILENO, *data)) writeError = errno;
  data->clear();
}

}  // namespace

void PrepareStreams() {
  inputIsClosed = fcntl(STDIN_FILENO, F_GETFD) < 0;
  outputIsClosed = fcntl(STDOUT_FILENO, F_GETFD) < 0;
  int descriptor = open("/dev/null", O_RDWR);
  while (descriptor >= 0 && descriptor <= 2) descriptor = open("/dev/null", O_RDWR);
  if (descriptor > 2) close(descriptor);
  data = new std::string;  // lives until the process ends
  data->reserve(kDataPiece + (64 << 10));
}

bool StandardInputIsClosed() {
  return inputIsClosed;
}

void WriteData(std::string_view bytes) {
  if (outputIsClosed) throw SystemFailure("standard output is closed");
  data->append(bytes);
  if (data->size() >= kDataPiece) FlushData();
}

void WriteLine(std::string_view text) {
  WriteData(text);
  WriteData("\n");
}

void FlushData() {
  HandOverData();
  if (writeError == 0) return;
  throw SystemFailure(std::string("standard output can't be written: ") +
                      std::strerror(std::exchange(writeError, 0)));
}

void SetVerbosity(Verbosity wanted) {
  verbosity = wanted;
}

// What stands before the message comes first, wherever both go. That it can't be
// written is told by FlushData.
void PrintMessage(std::string_view text) {
  HandOverData();
  ClearProgress();
  WriteAll(STDERR_FILENO, std::string(text) + "\n");
}

void PrintAccount(std::string_view text) {
  if (verbosity != Verbosity::Quiet) PrintMessage(text);
}

void PrintDetail(std::string_view text) {
  if (verbosity == Verbosity::Verbose) PrintMessage(text);
}

void ShowProgress(std::string_view text) {
  if (text.empty()) {
    ClearProgress();
  } else {
    WriteAll(STDERR_FILENO, "\r" + std::string(text) + "\033[K");
    progressIsShown = true;
  }
}

bool StandardInputIsTerminal() {
  return isatty(STDIN_FILENO) == 1;
}

bool StandardOutputIsTerminal() {
  return isatty(STDOUT_FILENO) == 1;
}

bool ShowsProgress() {
  return verbosity != Verbosity::Quiet && isatty(STDERR_FILENO) == 1;
}

void Confirm(const std::string& what, const std::string& unchanged, bool yes) {
  if (yes) return;
  if (!StandardInputIsTerminal()) {
    throw UsageError("this asks on a terminal only (" + what + "?); give --yes to do it without being asked");
  }
  PrintMessage(what + "? [y/N]");
  std::string answer;
  char letter = 0;
  while (read(STDIN_FILENO, &letter, 1) == 1 && letter != '\n') answer += letter;
  const bool isYes = answer == "y" || answer == "Y" || answer == "yes" || answer == "Yes" || answer == "YES";
  if (!isYes) throw Declined(unchanged);
}

}  // namespace Kestrun::Tools
