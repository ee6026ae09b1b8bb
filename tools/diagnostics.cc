#include "tools/diagnostics.h"

#include <mutex>

#include "inspect/escape.h"
#include "kestrun/diagnostics.h"

namespace Kestrun::Tools {
namespace {

constexpr size_t kMax = 2048;

std::mutex mutex;
std::string said;  // guarded by mutex

}  // namespace

void CatchDiagnostics() {
  SetDiagnosticHandler(
      [](void*, std::string_view message) {
        const std::lock_guard<std::mutex> lock(mutex);
        said += message;
        if (said.size() > kMax) said.erase(0, said.size() - kMax);
      },
      nullptr);
}

std::string TakeDiagnostics() {
  const std::lock_guard<std::mutex> lock(mutex);
  std::string text;
  for (size_t begin = 0; begin < said.size();) {
    const size_t end = std::min(said.find('\n', begin), said.size());
    if (end > begin) text += (text.empty() ? "" : "; ") + Inspect::Printable(said.substr(begin, end - begin));
    begin = end + 1;
  }
  said.clear();
  return text;
}

}  // namespace Kestrun::Tools
