#include "kestrun/key.h"

#include <algorithm>
#include <cstring>

namespace Kestrun {

Key::Key(const unsigned char* data, unsigned short size) {
  Assign(data, size);
}

Key::Key(const char* text) {
  Assign(reinterpret_cast<const unsigned char*>(text),
         text == nullptr ? static_cast<unsigned short>(0) : static_cast<unsigned short>(std::strlen(text)));
}

Key::Key(const std::string& text) {
  Assign(reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned short>(text.size()));
}

Key::Key(const Key& other) {
  Assign(other.Data(), other.ReadableSize());
}

Key::Key(Key&& other) noexcept {
  TakeFrom(other);
}

Key& Key::operator=(const Key& other) {
  if (this != &other) *this = Key(other);
  return *this;
}

Key& Key::operator=(Key&& other) noexcept {
  if (this != &other) {
    Release();
    TakeFrom(other);
  }
  return *this;
}

Key::~Key() {
  Release();
}

const unsigned char* Key::Data() const {
  return length_ <= kInlineCapacity ? inline_ : heap_;
}

unsigned short Key::Size() const {
  return length_;
}

bool Key::operator<(const Key& other) const {
  const unsigned short size = ReadableSize();
  const unsigned short otherSize = other.ReadableSize();
  const unsigned short common = std::min(size, otherSize);
  if (common != 0) {
    const int order = std::memcmp(Data(), other.Data(), common);
    if (order != 0) return order < 0;
  }
  return size < otherSize;
}

bool Key::operator==(const Key& other) const {
  if (this == &other) return true;
  const unsigned short size = ReadableSize();
  return size == other.ReadableSize() && (size == 0 || std::memcmp(Data(), other.Data(), size) == 0);
}

bool Key::operator!=(const Key& other) const {
  return !(*this == other);
}

Key Key::GetPrimary() const {
  const unsigned char* data = Data();
  for (unsigned short i = ReadableSize(); i >= 2;) {
    --i;
    if (data[i] == '-') return Key(data, i);
  }
  return *this;
}

const Key& Key::MinKey() {
  static const unsigned char byte = 0x00;
  static const Key key(&byte, 1);
  return key;
}

const Key& Key::MaxKey() {
  static const unsigned char byte = 0xFF;
  static const Key key(&byte, 1);
  return key;
}

void Key::Assign(const unsigned char* data, unsigned short size) {
  length_ = data == nullptr ? static_cast<unsigned short>(0) : size;
  if (length_ > kInlineCapacity) {
    heap_ = new unsigned char[length_];
    std::memcpy(heap_, data, length_);
  } else {
    std::memset(inline_, 0, sizeof(inline_));
    if (length_ != 0) std::memcpy(inline_, data, length_);
  }
}

void Key::Release() noexcept {
  if (length_ > kInlineCapacity) delete[] heap_;
}

void Key::TakeFrom(Key& other) noexcept {
  length_ = other.length_;
  std::memcpy(inline_, other.inline_, sizeof(inline_));
  if (length_ > kInlineCapacity) other.heap_ = nullptr;
}

unsigned short Key::ReadableSize() const {
  return length_ > kInlineCapacity && heap_ == nullptr ? static_cast<unsigned short>(0) : length_;
}

}  // namespace Kestrun
