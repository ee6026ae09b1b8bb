#include "tools/diagnostics.h"

#include <mutex>

#include "inspect/escape.h"
#include "kestrun/diagnostics.h"

namespace Kestrun::Tools {
namespace {

constexpr size_t kMax = 2048;

// How the lines begin that say that data is out of reach.
constexpr std::string_view kLogDamage = "Log file ";
constexpr std::string_view kSetAside = "The log is damaged at byte ";

// Guarded by mutex.
std::mutex mutex;
std::string said;
std::string logDamage;
std::string setAside;

// The lines, as one, without control characters.
std::string Take(std::string* lines) {
  const std::lock_guard<std::mutex> lock(mutex);
  std::string text;
  for (size_t begin = 0; begin < lines->size();) {
    const size_t end = std::min(lines->find('\n', begin), lines->size());
    if (end > begin)
      text += (text.empty() ? "" : "; ") + Inspect::Printable(lines->substr(begin, end - begin));
    begin = end + 1;
  }
  lines->clear();
  return text;
}

}  // namespace

void CatchDiagnostics() {
  SetDiagnosticHandler(
      [](void*, std::string_view message) {
        const std::lock_guard<std::mutex> lock(mutex);
        std::string& kind = message.starts_with(kLogDamage)  ? logDamage
                            : message.starts_with(kSetAside) ? setAside
                                                             : said;
        kind += message;
        if (kind.size() > kMax) kind.erase(0, kind.size() - kMax);
      },
      nullptr);
}

std::string TakeDiagnostics() {
  return Take(&said);
}

std::string TakeLogDamage() {
  return Take(&logDamage);
}

std::string TakeSetAside() {
  return Take(&setAside);
}

}  // namespace Kestrun::Tools
