#include "tests/support/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>

namespace Kestrun::Testing {
namespace {

void Require(bool condition, const char* what) {
  if (condition) return;
  std::perror(what);
  std::abort();
}

bool ReadAll(int descriptor, void* bytes, size_t size) {
  for (size_t done = 0; done < size;) {
    const ssize_t count = read(descriptor, static_cast<char*>(bytes) + done, size - done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    done += static_cast<size_t>(count);
  }
  return true;
}

bool WriteAll(int descriptor, const void* bytes, size_t size) {
  for (size_t done = 0; done < size;) {
    const ssize_t count = write(descriptor, static_cast<const char*>(bytes) + done, size - done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    done += static_cast<size_t>(count);
  }
  return true;
}

int RunChild(const std::function<int(ChildLink&)>& body, ChildLink& parent) {
  try {
    return body(parent);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "child: %s\n", error.what());
    return 127;
  }
}

}  // namespace

ChildLink::~ChildLink() {
  close(readEnd_);
  close(writeEnd_);
}

bool ChildLink::Signal() {
  return Send(std::string());
}

bool ChildLink::Await() {
  std::string text;
  return Receive(&text);
}

bool ChildLink::Send(const std::string& text) {
  const auto size = static_cast<uint32_t>(text.size());
  return WriteAll(writeEnd_, &size, sizeof(size)) && WriteAll(writeEnd_, text.data(), text.size());
}

bool ChildLink::Receive(std::string* text) {
  uint32_t size = 0;
  if (!ReadAll(readEnd_, &size, sizeof(size))) return false;
  text->resize(size);
  return ReadAll(readEnd_, text->data(), size);
}

ChildProcess::ChildProcess(const std::function<int(ChildLink&)>& body) {
  // Writing to a process that is gone is an answer, not the end of the test program.
  signal(SIGPIPE, SIG_IGN);
  int toChild[2];
  int toParent[2];
  Require(pipe2(toChild, O_CLOEXEC) == 0 && pipe2(toParent, O_CLOEXEC) == 0, "pipe");
  std::fflush(stdout);
  id_ = fork();
  Require(id_ >= 0, "fork");
  if (id_ == 0) {
    close(toChild[1]);
    close(toParent[0]);
    ChildLink parent(toChild[0], toParent[1]);
    _exit(RunChild(body, parent));
  }
  close(toChild[0]);
  close(toParent[1]);
  link_ = new ChildLink(toParent[0], toChild[1]);
}

ChildProcess::~ChildProcess() {
  if (!waited_) {
    Kill();
    Wait();
  }
  delete link_;
}

void ChildProcess::Kill() {
  if (!waited_) kill(id_, SIGKILL);
}

int ChildProcess::Wait() {
  if (waited_) return status_;
  int status = 0;
  pid_t ended;
  do {
    ended = waitpid(id_, &status, 0);
  } while (ended < 0 && errno == EINTR);
  Require(ended == id_, "waitpid");
  waited_ = true;
  status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  return status_;
}

bool DropStandardOutput() {
  static char buffer[1 << 16];
  if (std::freopen("/dev/null", "w", stdout) == nullptr) return false;
  std::setvbuf(stdout, buffer, _IOFBF, sizeof(buffer));
  return true;
}

}  // namespace Kestrun::Testing
