// Does to a store what it is told: commands on descriptor 3, one answer for each on descriptor 4. What the
// library prints goes to standard output as always.
//
//   open PATH WALSIZE, close, insert KEY VALUE, get KEY, delete KEY, contains KEY, flush, compact, clear,
//   scan, fill PREFIX COUNT
//
// The answer is the status, and what was read behind it. An operation that meets a lock is tried again.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <sstream>
#include <string>

#include "kestrun/lsdb.h"
#include "kestrun/status.h"

namespace {

std::unique_ptr<Kestrun::LSDBImpl> engine;

uint32_t UntilUnlocked(const std::function<uint32_t()>& operation) {
  for (;;) {
    const uint32_t status = operation();
    if (status != Kestrun::kStatusLockFailed) return status;
  }
}

uint32_t Insert(const std::string& key, const std::string& value) {
  return UntilUnlocked(
      [&] { return engine->Insert(key, 0xFFFFFFFF, value.data(), static_cast<unsigned>(value.size())); });
}

std::string Get(const std::string& key) {
  const void* value = nullptr;
  unsigned size = 0;
  const uint32_t status = UntilUnlocked([&] { return engine->Get(key, &value, &size); });
  std::string answer = std::to_string(status);
  if (value != nullptr) answer += " " + std::string(static_cast<const char*>(value), size);
  std::free(const_cast<void*>(value));
  return answer;
}

std::string Scan() {
  std::string keys;
  const auto collect = [&keys](const Kestrun::Key& key) {
    keys += " " + std::string(reinterpret_cast<const char*>(key.Data()), key.Size());
    return false;
  };
  const uint32_t status = UntilUnlocked(
      [&] { return engine->EnumerateKeys(Kestrun::Key::MinKey(), Kestrun::Key::MaxKey(), collect); });
  return std::to_string(status) + keys;
}

uint32_t Open(const std::string& path, uint32_t walSize) {
  Kestrun::LSDBImpl* opened = nullptr;
  const uint32_t status = Kestrun::LSDBImpl::Open(path, {walSize, 0}, &opened);
  engine.reset(opened);
  return status;
}

uint32_t Fill(const std::string& prefix, int count) {
  for (int i = 0; i < count; ++i) {
    const std::string number = std::to_string(i);
    if (const uint32_t status = Insert(prefix + number, "value of " + prefix + number); status != 0) {
      return status;
    }
  }
  return Kestrun::kStatusOk;
}

std::string Answer(const std::string& line) {
  std::istringstream words(line);
  std::string command;
  std::string first;
  std::string second;
  words >> command >> first >> second;
  if (command == "open") return std::to_string(Open(first, static_cast<uint32_t>(std::stoul(second))));
  if (command == "close") return engine.reset(), "0";
  if (command == "insert") return std::to_string(Insert(first, second));
  if (command == "get") return Get(first);
  if (command == "delete") return std::to_string(UntilUnlocked([&] { return engine->Delete(first); }));
  if (command == "contains") return engine->Contains(first) ? "yes" : "no";
  if (command == "flush") return std::to_string(UntilUnlocked([] { return engine->ResetWal(); }));
  if (command == "compact") return std::to_string(UntilUnlocked([] { return engine->ForceCompact(); }));
  if (command == "clear") return std::to_string(UntilUnlocked([] { return engine->Clear(); }));
  if (command == "scan") return Scan();
  if (command == "fill") return std::to_string(Fill(first, std::stoi(second)));
  return "?";
}

}  // namespace

int main() {
  FILE* commands = fdopen(3, "r");
  FILE* answers = fdopen(4, "w");
  if (commands == nullptr || answers == nullptr) return 2;
  char* line = nullptr;
  size_t capacity = 0;
  while (getline(&line, &capacity, commands) > 0) {
    std::string text(line);
    if (text.back() == '\n') text.pop_back();
    std::fprintf(answers, "%s\n", Answer(text).c_str());
    std::fflush(answers);
  }
  std::free(line);
  return 0;
}
