#include "storage/block_name.h"

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <mutex>

#include "base/clock.h"
#include "format/manifest_format.h"

namespace Kestrun {
namespace {

constexpr char kAlphabet[] = "1234567890ABCDEFGHIJKLMNOPQRSTUVWXYZ";
constexpr int kLetters = sizeof(kAlphabet) - 1;

// So many letters hold the microsecond of the clock and the number of the process.
constexpr size_t kUniqueSuffixLength = 16;
static_assert(kUniqueSuffixLength < kBlockNameLength);

// Writes `number` to the letters before `end`, the last digit first. Returns where it begins.
char* PutNumber(uint64_t number, size_t letters, char* end) {
  for (size_t i = 0; i < letters; ++i, number /= kLetters) *--end = kAlphabet[number % kLetters];
  return end;
}

}  // namespace

std::string MakeBlockFileName() {
  static std::once_flag seeded;
  std::call_once(seeded, [] { std::srand(static_cast<unsigned>(std::time(nullptr))); });

  std::string name;
  name.reserve(kBlockNameLength + 1);
  for (size_t i = 0; i < kBlockNameLength; ++i) name += kAlphabet[std::rand() % kLetters];
  return name;
}

std::string MakeUniqueAcrossProcesses(std::string drawn) {
  constexpr size_t kProcessLetters = 5;
  char* end = drawn.data() + drawn.size();
  end = PutNumber(static_cast<uint64_t>(getpid()), kProcessLetters, end);
  PutNumber(NowMicroseconds(), kUniqueSuffixLength - kProcessLetters, end);
  return drawn;
}

}  // namespace Kestrun
