#include "tests/process/model_table.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/support/random_run.h"
#include "tests/support/shared_memory.h"

namespace Kestrun::Testing {
namespace {

uint64_t MixOf(unsigned key, uint64_t version) {
  return Mix(uint64_t{key} << 40 | version);
}

}  // namespace

// Every fifth key is too long to be held without memory of its own. All keys of a writer have one primary.
std::string ModelKeyText(unsigned key) {
  const unsigned writer = key / kKeysEach;
  const unsigned index = key % kKeysEach;
  char text[64];
  std::snprintf(text, sizeof(text), "k%c-%s%03u%s", static_cast<char>('a' + writer),
                IsTypedKey(key) ? "t" : "r", index, index % 5 == 0 ? "_and_some_more" : "");
  return text;
}

bool IsTypedKey(unsigned key) {
  return key % kKeysEach >= kRawKeysEach;
}

unsigned ModelKeyOf(const std::string& text) {
  if (text.size() < 7 || text[0] != 'k') return kModelKeys;
  const auto writer = static_cast<unsigned>(text[1] - 'a');
  const auto index = static_cast<unsigned>(std::atoi(text.c_str() + 4));
  if (writer >= kModelProcesses * kModelThreads || index >= kKeysEach) return kModelKeys;
  const unsigned key = writer * kKeysEach + index;
  return ModelKeyText(key) == text ? key : kModelKeys;
}

bool IsDeletion(unsigned key, uint64_t version) {
  return version != 0 && MixOf(key, version) % 6 == 0;
}

std::string ModelValue(unsigned key, uint64_t version) {
  uint64_t bits = MixOf(key, version);
  std::string value = ModelKeyText(key) + "#" + std::to_string(version) + "#";
  const size_t size = std::max<size_t>(value.size(), 20 + (bits >> 8) % 280);
  while (value.size() < size) {
    bits = Mix(bits);
    value += static_cast<char>('a' + bits % 26);
  }
  return value;
}

uint64_t VersionOf(const std::string& value) {
  const size_t start = value.find('#');
  return start == std::string::npos ? 0 : std::strtoull(value.c_str() + start + 1, nullptr, 10);
}

uint64_t NextDeletion(unsigned key, uint64_t version) {
  do {
    ++version;
  } while (!IsDeletion(key, version));
  return version;
}

ModelTable* ModelTable::Make() {
  return NewSharedObject<ModelTable>();
}

void ModelTable::Fail(const std::string& what) {
  if (failed.exchange(true)) return;
  std::strncpy(failure, what.c_str(), sizeof(failure) - 1);
  std::fprintf(stderr, "%s\n", failure);
}

void RaiseTo(std::atomic<uint64_t>& floor, uint64_t version) {
  uint64_t now = floor;
  while (now < version && !floor.compare_exchange_weak(now, version)) {
  }
}

ModelExpectation::ModelExpectation(ModelTable& table, unsigned key, uint64_t ownFloor)
    : table_(table),
      key_(key),
      floor_(std::max<uint64_t>(ownFloor, table.cells[key].floor)),
      clearsOver_(table.clearsOver),
      acked_(ModelMark::Of(table.cells[key].acked)),
      seen_(ModelMark::Of(table.cells[key].seen)) {}

std::string ModelExpectation::Check(uint64_t version) {
  ModelCell& cell = table_.cells[key_];
  const uint64_t issued = cell.issued;
  const uint64_t begun = table_.clearsBegun;
  const bool exact = acked_.clears == begun;
  uint64_t oldest = floor_;
  if (exact) oldest = std::max(oldest, acked_.version);
  if (exact && seen_.clears == begun) oldest = std::max(oldest, seen_.version);

  uint64_t shown = version;
  bool sound = version >= oldest && version <= issued && !IsDeletion(key_, version);
  if (version == 0 && exact) {
    // The oldest of the versions that may lie behind the nothing.
    for (shown = oldest; shown != 0 && !IsDeletion(key_, shown);) ++shown;
    sound = shown <= issued;
  } else if (version == 0) {
    sound = true;
  }
  if (sound) {
    if (exact && clearsOver_ == begun) RaiseTo(cell.seen, ModelMark{begun, shown}.Packed());
    return std::string();
  }
  return ModelKeyText(key_) + ": found version " + std::to_string(version) + " of " + std::to_string(issued) +
         ", acknowledged " + std::to_string(acked_.version) + " (clear " + std::to_string(acked_.clears) +
         "), seen " + std::to_string(seen_.version) + " (clear " + std::to_string(seen_.clears) +
         "), floor " + std::to_string(floor_) + ", clears " + std::to_string(clearsOver_) + " to " +
         std::to_string(begun);
}

bool ModelExpectation::MustBeFound() const {
  const ModelCell& cell = table_.cells[key_];
  return acked_.version != 0 && !IsDeletion(key_, acked_.version) && cell.issued == acked_.version &&
         table_.clearsBegun == acked_.clears;
}

bool ModelExpectation::MustBeMissing() const {
  const ModelCell& cell = table_.cells[key_];
  const bool deleted = acked_.version == 0 || IsDeletion(key_, acked_.version);
  return (deleted && cell.issued == acked_.version && table_.clearsBegun == acked_.clears) ||
         cell.issued < floor_;
}

}  // namespace Kestrun::Testing
