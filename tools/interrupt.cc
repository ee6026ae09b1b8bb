#include "tools/interrupt.h"

#include <csignal>

namespace Kestrun::Tools {
namespace {

volatile std::sig_atomic_t interrupted = 0;
int guards = 0;
struct sigaction oldInterrupt = {};
struct sigaction oldTerminate = {};

}  // namespace

InterruptGuard::InterruptGuard() {
  if (guards++ != 0) return;
  interrupted = 0;
  struct sigaction action = {};
  action.sa_handler = [](int) { interrupted = 1; };
  sigaction(SIGINT, &action, &oldInterrupt);
  sigaction(SIGTERM, &action, &oldTerminate);
}

InterruptGuard::~InterruptGuard() {
  if (--guards != 0) return;
  sigaction(SIGINT, &oldInterrupt, nullptr);
  sigaction(SIGTERM, &oldTerminate, nullptr);
}

bool WasInterrupted() {
  return interrupted != 0;
}

}  // namespace Kestrun::Tools
