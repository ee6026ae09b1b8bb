#include "format/crc32c.h"

#include <array>
#include <cstring>

#if defined(__x86_64__)
#include <nmmintrin.h>
#elif defined(__aarch64__)
#include <sys/auxv.h>
#endif

namespace Kestrun {
namespace {

constexpr uint32_t kReversedPolynomial = 0x82F63B78;
constexpr size_t kTables = 8;

using Table = std::array<uint32_t, 256>;

// tables[k][b] is the CRC of the byte b followed by k zero bytes, so that eight bytes are taken at a time.
constexpr std::array<Table, kTables> MakeTables() {
  std::array<Table, kTables> tables = {};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t crc = byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? kReversedPolynomial : 0);
    tables[0][byte] = crc;
  }
  for (size_t k = 1; k < kTables; ++k) {
    for (size_t byte = 0; byte < 256; ++byte) {
      const uint32_t shorter = tables[k - 1][byte];
      tables[k][byte] = (shorter >> 8) ^ tables[0][shorter & 0xFF];
    }
  }
  return tables;
}

constexpr std::array<Table, kTables> kCrcTables = MakeTables();

#if defined(__x86_64__)

bool HasInstruction() {
  return __builtin_cpu_supports("sse4.2") != 0;
}

__attribute__((target("sse4.2"))) uint32_t Crc32cByInstruction(const void* data, size_t size, uint32_t crc) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  uint64_t wide = ~crc;
  for (; size >= sizeof(uint64_t); size -= sizeof(uint64_t), bytes += sizeof(uint64_t)) {
    uint64_t word = 0;
    std::memcpy(&word, bytes, sizeof(word));
    wide = _mm_crc32_u64(wide, word);
  }
  auto narrow = static_cast<uint32_t>(wide);
  for (; size != 0; --size) narrow = _mm_crc32_u8(narrow, *bytes++);
  return ~narrow;
}

#elif defined(__aarch64__)

// The bit of AT_HWCAP that tells of the CRC32 instructions.
constexpr unsigned long kHwcapCrc32 = 1ul << 7;

bool HasInstruction() {
  return (getauxval(AT_HWCAP) & kHwcapCrc32) != 0;
}

// Written out, because the intrinsics are there only where the whole file is compiled for a later processor.
__attribute__((target("+crc"))) uint32_t Crc32cByInstruction(const void* data, size_t size, uint32_t crc) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  crc = ~crc;
  for (; size >= sizeof(uint64_t); size -= sizeof(uint64_t), bytes += sizeof(uint64_t)) {
    uint64_t word = 0;
    std::memcpy(&word, bytes, sizeof(word));
    asm("crc32cx %w0, %w0, %x1" : "+r"(crc) : "r"(word));
  }
  for (; size != 0; --size) {
    const uint32_t byte = *bytes++;
    asm("crc32cb %w0, %w0, %w1" : "+r"(crc) : "r"(byte));
  }
  return ~crc;
}

#else

bool HasInstruction() {
  return false;
}

uint32_t Crc32cByInstruction(const void* data, size_t size, uint32_t crc) {
  return Crc32cByTables(data, size, crc);
}

#endif

}  // namespace

uint32_t Crc32cByTables(const void* data, size_t size, uint32_t crc) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  crc = ~crc;
  for (; size >= kTables; size -= kTables, bytes += kTables) {
    uint32_t low = 0;
    uint32_t high = 0;
    std::memcpy(&low, bytes, sizeof(low));
    std::memcpy(&high, bytes + sizeof(low), sizeof(high));
    low ^= crc;
    crc = kCrcTables[7][low & 0xFF] ^ kCrcTables[6][(low >> 8) & 0xFF] ^ kCrcTables[5][(low >> 16) & 0xFF] ^
          kCrcTables[4][low >> 24] ^ kCrcTables[3][high & 0xFF] ^ kCrcTables[2][(high >> 8) & 0xFF] ^
          kCrcTables[1][(high >> 16) & 0xFF] ^ kCrcTables[0][high >> 24];
  }
  for (; size != 0; --size) crc = (crc >> 8) ^ kCrcTables[0][(crc ^ *bytes++) & 0xFF];
  return ~crc;
}

uint32_t Crc32c(const void* data, size_t size, uint32_t crc) {
  static const bool hasInstruction = HasInstruction();
  return hasInstruction ? Crc32cByInstruction(data, size, crc) : Crc32cByTables(data, size, crc);
}

}  // namespace Kestrun
