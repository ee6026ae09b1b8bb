#include "storage/block_name.h"

#include <cstdlib>
#include <ctime>
#include <mutex>

#include "storage/manifest_format.h"

namespace Kestrun {

std::string MakeBlockFileName() {
  static std::once_flag seeded;
  std::call_once(seeded, [] { std::srand(static_cast<unsigned>(std::time(nullptr))); });

  static constexpr char kAlphabet[] = "1234567890ABCDEFGHIJKLMNOPQRSTUVWXYZ";
  static constexpr int kLetters = sizeof(kAlphabet) - 1;
  std::string name;
  name.reserve(kBlockNameLength + 1);
  for (size_t i = 0; i < kBlockNameLength; ++i) name += kAlphabet[std::rand() % kLetters];
  return name;
}

}  // namespace Kestrun
