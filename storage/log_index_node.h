// storage/log_index_node.h: one version in the index of a log. For the files of LogIndex only.
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "storage/log_index.h"

namespace Kestrun {

// What a search looks at stands side by side. The payload and the key's bytes follow the `height` links.
struct LogIndex::Node {
  struct Payload {
    uint64_t timestamp;
    uint32_t valueOffset;
    uint32_t valueSize;
    uint32_t ttl;
  };

  KeyPrefix prefix;
  uint32_t offset;
  uint16_t keySize;
  uint8_t height;
  bool deleted;
  std::atomic<Node*> older;  // the version of the same key before this one
  std::atomic<Node*> links[1];

  Node* Next(int level) const { return links[level].load(std::memory_order_acquire); }
  // The same, and has the processor fetch what follows on the level below, where a search goes if it
  // does not go on here.
  Node* NextAhead(int level) const {
    if (level > 0) __builtin_prefetch(links[level - 1].load(std::memory_order_relaxed));
    return Next(level);
  }
  Payload* AfterLinks() { return reinterpret_cast<Payload*>(&links[height]); }
  const Payload* AfterLinks() const { return reinterpret_cast<const Payload*>(&links[height]); }
  Version ToVersion() const {
    const Payload& payload = *AfterLinks();
    return {offset, {payload.valueOffset, payload.valueSize, deleted, payload.timestamp, payload.ttl}};
  }
};

inline std::string_view LogIndex::KeyOf(const Node& node) {
  return {reinterpret_cast<const char*>(node.AfterLinks() + 1), node.keySize};
}

inline bool LogIndex::IsOfKey(const Node* node, const Target& target) {
  return node != nullptr && node->prefix == target.prefix && KeyOf(*node) == target.key;
}

inline LogIndex::Target::Target(std::string_view wanted) : key(wanted), prefix(KeyPrefix::Of(wanted)) {}

inline LogIndex::Target::Target(const Node& node) : key(KeyOf(node)), prefix(node.prefix) {}

}  // namespace Kestrun
