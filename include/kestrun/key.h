// kestrun/key.h: the key under which a store keeps a value.
//
// A key is 0 to 65,535 bytes of any value; a store refuses the empty key. Keys of up to 15 bytes are held
// without an allocation.
//
// Ownership: a key owns a copy of its bytes.
// Threads:   a key that nobody changes may be read from any number of threads.
// Failure:   nothing but std::bad_alloc, from making a key of 16 bytes or more.
#pragma once

#include <string>

#include "kestrun/export.h"

namespace Kestrun {

class KESTRUN_EXPORT Key {
 public:
  // Copies `size` bytes. A null `data` gives the empty key.
  Key(const unsigned char* data, unsigned short size);
  // Copies the text without its NUL. Only the low 16 bits of the length count: a text of 65,537 characters
  // gives a key of one byte. Null gives the empty key. Compat: key-from-text
  Key(const char* text);  // NOLINT(google-explicit-constructor)
  // Copies the bytes; only the low 16 bits of the length count, as above.
  Key(const std::string& text);  // NOLINT(google-explicit-constructor)
  Key(const Key& other);
  // Takes over the bytes. A key of 16 bytes or more leaves `other` with its Size() and null Data(): such a
  // key compares and copies like the empty key and may only be assigned to or destroyed otherwise.
  Key(Key&& other) noexcept;
  Key& operator=(const Key& other);
  Key& operator=(Key&& other) noexcept;
  ~Key();

  const unsigned char* Data() const;
  unsigned short Size() const;

  // Orders by unsigned bytes; a proper prefix comes first.
  bool operator<(const Key& other) const;
  bool operator==(const Key& other) const;
  bool operator!=(const Key& other) const;

  // The part before the last '-', where a '-' in first place does not count: "user" for "user-42", the whole
  // key where there is no such '-'.
  Key GetPrimary() const;

  // The one-byte keys 0x00 and 0xFF. Scans over a whole block run over [MinKey, MaxKey), which leaves out
  // every key that begins with the byte 0xFF.
  static const Key& MinKey();
  static const Key& MaxKey();

 private:
  static constexpr unsigned short kInlineCapacity = 15;

  void Assign(const unsigned char* data, unsigned short size);
  void Release() noexcept;
  void TakeFrom(Key& other) noexcept;
  // The bytes that comparisons and copies see: none for a key that was moved from.
  unsigned short ReadableSize() const;

  union {
    unsigned char inline_[16];  // the bytes, when length_ <= kInlineCapacity
    unsigned char* heap_;       // exactly length_ bytes from new[]; null once moved from
  };
  unsigned short length_;
};
static_assert(sizeof(Key) == 24);

}  // namespace Kestrun
