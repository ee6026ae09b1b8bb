#include "storage/published_header.h"

#include <atomic>
#include <cstring>

namespace Kestrun {

// Readers that hold the file's lock are ordered by it; LoadHeaderField reads a single field, which is never
// seen half stored. ThreadSanitizer can't know either, and has no model of a fence.
#pragma GCC diagnostic push
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wtsan"
#endif
__attribute__((noinline, no_sanitize("thread"))) void StoreHeaderAtomically(uint8_t* header,
                                                                            const void* image) {
  typedef uint64_t Fields __attribute__((vector_size(kPublishedSize), aligned(1), may_alias));
  Fields fields;
  std::memcpy(&fields, static_cast<const uint8_t*>(image) + kPublishedOffset, kPublishedSize);
  std::atomic_thread_fence(std::memory_order_release);
  *reinterpret_cast<volatile Fields*>(header + kPublishedOffset) = fields;
}
#pragma GCC diagnostic pop

uint32_t LoadHeaderField(const uint8_t* field) {
  return __atomic_load_n(reinterpret_cast<const uint32_t*>(field), __ATOMIC_ACQUIRE);
}

}  // namespace Kestrun
