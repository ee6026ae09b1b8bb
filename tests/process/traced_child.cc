#include "tests/process/traced_child.h"

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace Kestrun::Testing {
namespace {

// glibc names this request on some architectures only; the kernel gives it this number on all that have it.
constexpr int kStepBeforeCall = 32;  // PTRACE_SYSEMU_SINGLESTEP

constexpr int kSystemCallStop = SIGTRAP | 0x80;

void Require(bool condition, const char* what) {
  if (condition) return;
  std::perror(what);
  std::abort();
}

}  // namespace

TracedChild::TracedChild(const std::function<int()>& body) {
  std::fflush(stdout);
  id_ = fork();
  Require(id_ >= 0, "fork");
  if (id_ == 0) {
    Require(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0, "ptrace");
    raise(SIGSTOP);
    _exit(body());
  }
  int status = 0;
  Require(waitpid(id_, &status, 0) == id_ && WIFSTOPPED(status), "waitpid");
  const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL;
  Require(ptrace(PTRACE_SETOPTIONS, id_, nullptr, options) == 0, "ptrace");
}

TracedChild::~TracedChild() {
  Kill();
}

bool TracedChild::Resume(int request) {
  if (ended_) return false;
  int signal = 0;
  for (;;) {
    Require(ptrace(static_cast<__ptrace_request>(request), id_, nullptr, static_cast<long>(signal)) == 0,
            "ptrace");
    int status = 0;
    Require(waitpid(id_, &status, 0) == id_, "waitpid");
    if (WIFEXITED(status) || WIFSIGNALED(status)) {
      ended_ = true;
      exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return false;
    }
    if (WSTOPSIG(status) == kSystemCallStop) {
      inCall_ = true;
      return true;
    }
    if (WSTOPSIG(status) == SIGTRAP) {
      inCall_ = false;
      return true;
    }
    signal = WSTOPSIG(status);  // its own affair
  }
}

bool TracedChild::RunToStop() {
  ++stops_;
  return Resume(PTRACE_SYSCALL);
}

bool TracedChild::StepInstruction() {
  return Resume(kStepBeforeCall) && !inCall_;
}

void TracedChild::Kill() {
  if (ended_) return;
  kill(id_, SIGKILL);
  int status = 0;
  Require(waitpid(id_, &status, 0) == id_, "waitpid");
  ended_ = true;
  exitStatus_ = 128 + SIGKILL;
}

}  // namespace Kestrun::Testing
