// tools/interrupt.h: Ctrl-C during work that says what it has done.
#pragma once

namespace Kestrun::Tools {

// While one exists, SIGINT and SIGTERM only set a flag, and calls that wait return.
class InterruptGuard {
 public:
  InterruptGuard();
  ~InterruptGuard();
  InterruptGuard(const InterruptGuard&) = delete;
  InterruptGuard& operator=(const InterruptGuard&) = delete;
};

// Whether such a signal came since the outermost guard was made.
bool WasInterrupted();

}  // namespace Kestrun::Tools
