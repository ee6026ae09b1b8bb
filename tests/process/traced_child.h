// A forked child that another process stops at every system call and, on demand, after every instruction.
#pragma once

#include <sys/types.h>

#include <functional>

namespace Kestrun::Testing {

class TracedChild {
 public:
  // Forks; the child stands before the first instruction of `body` and ends with its result as exit status.
  explicit TracedChild(const std::function<int()>& body);
  // Kills the child when it is still there.
  ~TracedChild();
  TracedChild(const TracedChild&) = delete;
  TracedChild& operator=(const TracedChild&) = delete;

  // Runs to the next stop: each system call gives one before it is carried out and one when it is done. False
  // when the child has ended.
  bool RunToStop();
  // Whether the last stop was one after a system call.
  bool IsAfterCall() const { return stops_ % 2 == 0; }
  // Carries out one instruction. False when that would be a system call, which is not carried out; the child
  // can only be killed then.
  bool StepInstruction();
  // SIGKILL, at this very place.
  void Kill();

  bool HasEnded() const { return ended_; }
  // Its exit status, or 128 and the number of the signal that ended it.
  int ExitStatus() const { return exitStatus_; }

 private:
  bool Resume(int request);

  pid_t id_;
  long stops_ = 0;
  bool inCall_ = false;
  bool ended_ = false;
  int exitStatus_ = 0;
};

}  // namespace Kestrun::Testing
