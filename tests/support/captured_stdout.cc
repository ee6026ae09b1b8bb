#include "tests/support/captured_stdout.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace Kestrun::Testing {
namespace {

int Checked(int result, const char* what) {
  if (result >= 0) return result;
  std::perror(what);
  std::abort();
}

}  // namespace

CapturedStdout::CapturedStdout() {
  std::fflush(stdout);
  char path[] = "/tmp/kestrun-stdout-XXXXXX";
  file_ = Checked(mkstemp(path), path);
  unlink(path);
  saved_ = Checked(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3), "dup");
  Checked(dup2(file_, STDOUT_FILENO), "dup2");
}

CapturedStdout::~CapturedStdout() {
  if (testing::Test::HasFailure()) Take();
  std::fflush(stdout);
  Checked(dup2(saved_, STDOUT_FILENO), "dup2");
  close(saved_);
  close(file_);
  if (!testing::Test::HasFailure()) return;
  std::fwrite(taken_.data(), 1, taken_.size(), stdout);
  std::fflush(stdout);
}

std::string CapturedStdout::Take() {
  std::fflush(stdout);
  std::string text;
  const off_t size = lseek(file_, 0, SEEK_END);
  if (size > 0) {
    text.resize(static_cast<size_t>(size));
    text.resize(
        static_cast<size_t>(Checked(static_cast<int>(pread(file_, text.data(), text.size(), 0)), "pread")));
  }
  // Standard output shares the file's position, so the next text begins at 0 again.
  Checked(ftruncate(file_, 0), "ftruncate");
  lseek(file_, 0, SEEK_SET);
  taken_ += text;
  return text;
}

}  // namespace Kestrun::Testing
