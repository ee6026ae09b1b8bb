// What several processes know together about the keys of one store. It lies in memory that they share.
//
// Each key is written by one thread only, in versions 1, 2, 3... that are inserts or deletions by their
// number. The writer tells what it is about to write and what has been acknowledged; readers tell what they
// have seen. So everybody knows which versions a read may find.
//
// Clears are numbered. What a read may find is known exactly as long as no clear lies between it and the
// write; otherwise it may find nothing, or what the store's blocks held before the clear, until it is known
// that every process has noticed the clear: then nothing from before it may be found any more.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace Kestrun::Testing {

inline constexpr unsigned kModelProcesses = 4;
inline constexpr unsigned kModelThreads = 2;  // in each process
inline constexpr unsigned kRawKeysEach = 40;
inline constexpr unsigned kTypedKeysEach = 12;
inline constexpr unsigned kKeysEach = kRawKeysEach + kTypedKeysEach;
inline constexpr unsigned kModelKeys = kModelProcesses * kModelThreads * kKeysEach;

// A key by its number. The keys of one writer lie together in the order of the store: the raw ones, which
// hold bytes, before the typed ones, which hold records.
std::string ModelKeyText(unsigned key);
bool IsTypedKey(unsigned key);
// kModelKeys for a text that is none of them.
unsigned ModelKeyOf(const std::string& text);

bool IsDeletion(unsigned key, uint64_t version);
// The bytes of a version that is an insert, 20 to 300 of them. They begin with the key and the version.
std::string ModelValue(unsigned key, uint64_t version);
// The version that a value claims to be, or 0.
uint64_t VersionOf(const std::string& value);
// The first deletion behind `version`.
uint64_t NextDeletion(unsigned key, uint64_t version);

// A version, and the last clear that was over when it was written or seen. Later ones compare greater.
struct ModelMark {
  uint64_t clears;
  uint64_t version;
  uint64_t Packed() const { return (clears << 40) | version; }
  static ModelMark Of(uint64_t packed) { return {packed >> 40, packed & ((uint64_t{1} << 40) - 1)}; }
};

struct ModelCell {
  std::atomic<uint64_t> issued{0};  // the newest version whose write has begun
  std::atomic<uint64_t> acked{0};   // a mark: the newest version whose write has returned
  std::atomic<uint64_t> seen{0};    // a mark: the newest version that a read is known to have found
  std::atomic<uint64_t> floor{0};   // nobody may find an older version any more
};

struct ModelTable {
  std::array<ModelCell, kModelKeys> cells;
  std::atomic<uint64_t> clearsBegun{0};
  std::atomic<uint64_t> clearsOver{0};
  std::atomic<uint64_t> operations{0};
  std::atomic<uint64_t> flushes{0};
  std::atomic<uint64_t> compactions{0};
  std::atomic<uint64_t> lockFailures{0};
  std::atomic<bool> failed{false};
  char failure[1024] = {};

  // In memory shared with the processes that this one forks; it stays until the process ends.
  static ModelTable* Make();

  // Keeps the first failure and lets everybody stop.
  void Fail(const std::string& what);
};
static_assert(std::atomic<uint64_t>::is_always_lock_free);

// Raises `floor` to `version` unless it is higher.
void RaiseTo(std::atomic<uint64_t>& floor, uint64_t version);

// What one read may find, noted before it begins.
class ModelExpectation {
 public:
  // `ownFloor` is a floor that holds for the reading process only.
  ModelExpectation(ModelTable& table, unsigned key, uint64_t ownFloor);

  // What is wrong with having found `version`, or nothing (0); empty when nothing is. Called when the read
  // has returned; what was found is noted for later reads.
  std::string Check(uint64_t version);
  // Whether the read must have found something.
  bool MustBeFound() const;
  // Whether it must not have found anything.
  bool MustBeMissing() const;

 private:
  ModelTable& table_;
  const unsigned key_;
  const uint64_t floor_;
  const uint64_t clearsOver_;
  const ModelMark acked_;
  const ModelMark seen_;
};

}  // namespace Kestrun::Testing
