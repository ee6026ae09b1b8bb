// The seed and the size of tests that draw at random.
#pragma once

#include <cstdint>
#include <random>

namespace Kestrun::Testing {

// KESTRUN_TEST_SEED, or a new one with each run of the program; printed to standard error when it is first
// asked for. The same seed gives the same operations, not the same interleaving of threads.
uint64_t TestSeed();

// How much a test does: `usual`, unless KESTRUN_TEST_SCALE says otherwise. "full" asks for `full`, a number
// multiplies `usual`. Sanitizers make everything slower: their builds do a quarter of `usual`.
// Builds for 64-bit Arm, which run under emulation mostly, do an eighth.
uint64_t TestSize(uint64_t usual, uint64_t full);

// A generator for one of several threads or processes of a test.
std::mt19937_64 TestRandom(uint64_t stream);

// 64 bits that are mixed well, always the same for the same number.
uint64_t Mix(uint64_t number);

}  // namespace Kestrun::Testing
