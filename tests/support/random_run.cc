#include "tests/support/random_run.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Kestrun::Testing {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr uint64_t kSlowness = 4;
#elif defined(__aarch64__)
constexpr uint64_t kSlowness = 8;
#else
constexpr uint64_t kSlowness = 1;
#endif

uint64_t DrawSeed() {
  const char* given = std::getenv("KESTRUN_TEST_SEED");
  const uint64_t seed =
      given == nullptr || *given == '\0' ? std::random_device()() : std::strtoull(given, nullptr, 0);
  std::fprintf(stderr, "seed: KESTRUN_TEST_SEED=%" PRIu64 "\n", seed);
  return seed;
}

}  // namespace

uint64_t TestSeed() {
  static const uint64_t seed = DrawSeed();
  return seed;
}

uint64_t TestSize(uint64_t usual, uint64_t full) {
  const char* scale = std::getenv("KESTRUN_TEST_SCALE");
  if (scale == nullptr || *scale == '\0') return usual / kSlowness;
  if (std::strcmp(scale, "full") == 0) return full;
  const double factor = std::strtod(scale, nullptr);
  return factor > 0 ? static_cast<uint64_t>(static_cast<double>(usual) * factor) : usual;
}

std::mt19937_64 TestRandom(uint64_t stream) {
  return std::mt19937_64(Mix(TestSeed()) ^ Mix(stream + 1));
}

uint64_t Mix(uint64_t number) {
  number += 0x9E3779B97F4A7C15u;
  number = (number ^ (number >> 30)) * 0xBF58476D1CE4E5B9u;
  number = (number ^ (number >> 27)) * 0x94D049BB133111EBu;
  return number ^ (number >> 31);
}

}  // namespace Kestrun::Testing
