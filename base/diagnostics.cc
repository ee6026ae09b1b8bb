#include "base/diagnostics.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "kestrun/diagnostics.h"

namespace Kestrun {
namespace {

constexpr size_t kMaxPiece = 4096;

// The handler and its context change together: readers take both or, while they change, neither.
std::atomic<uint32_t> version{0};  // odd while the two are being changed
std::atomic<DiagnosticHandler> currentHandler{nullptr};
std::atomic<void*> currentContext{nullptr};

DiagnosticHandler LoadHandler(void** context) {
  for (;;) {
    const uint32_t before = version.load(std::memory_order_acquire);
    const DiagnosticHandler handler = currentHandler.load(std::memory_order_acquire);
    *context = currentContext.load(std::memory_order_acquire);
    if (before % 2 == 0 && version.load(std::memory_order_acquire) == before) return handler;
  }
}

}  // namespace

void SetDiagnosticHandler(DiagnosticHandler handler, void* context) {
  uint32_t seen = version.load(std::memory_order_relaxed);
  for (;;) {
    if (seen % 2 != 0) {
      seen = version.load(std::memory_order_relaxed);
    } else if (version.compare_exchange_weak(seen, seen + 1, std::memory_order_acquire)) {
      break;
    }
  }
  currentHandler.store(handler, std::memory_order_release);
  currentContext.store(context, std::memory_order_release);
  version.store(seen + 2, std::memory_order_release);
}

const Diagnostics& Diagnostics::Printing() {
  static constexpr Diagnostics diagnostics(true);
  return diagnostics;
}

const Diagnostics& Diagnostics::HandlerOnly() {
  static constexpr Diagnostics diagnostics(false);
  return diagnostics;
}

void Diagnostics::Print(std::string_view piece) const {
  void* context = nullptr;
  const DiagnosticHandler handler = LoadHandler(&context);
  if (handler != nullptr) {
    handler(context, piece);
  } else if (prints_) {
    std::fwrite(piece.data(), 1, piece.size(), stdout);
  }
}

void Diagnostics::Printf(const char* format, ...) const {
  void* context = nullptr;
  const DiagnosticHandler handler = LoadHandler(&context);
  if (handler == nullptr && !prints_) return;
  va_list args;
  va_start(args, format);
  if (handler == nullptr) {
    std::vprintf(format, args);
  } else {
    char text[kMaxPiece];
    const int length = std::vsnprintf(text, sizeof(text), format, args);
    const auto size = static_cast<size_t>(length < 0 ? 0 : length);
    handler(context, {text, size < sizeof(text) ? size : sizeof(text) - 1});
  }
  va_end(args);
}

}  // namespace Kestrun
