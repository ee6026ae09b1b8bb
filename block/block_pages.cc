#include "block/block_pages.h"

#include <algorithm>

#include "kestrun/status.h"

namespace Kestrun {
namespace {

constexpr uint32_t kFirstPage = 32;

}  // namespace

BlockPages::BlockPages(const Block& block, uint32_t largestPage)
    : block_(&block), page_(block.Index().get()), largestPage_(largestPage) {
  if (page_ != nullptr) count_ = page_->Count();
}

void BlockPages::Release() {
  if (own_ == nullptr) return;
  count_ = 0;
  own_.reset();
}

uint32_t BlockPages::LoadPage(uint32_t position, bool forward) {
  const bool goesOn = count_ != 0 && (position == first_ + count_ || position + 1 == first_);
  size_ = std::min(goesOn ? size_ * 4 : kFirstPage, largestPage_);
  if (own_ == nullptr) own_ = std::make_unique<BlockIndex>();
  page_ = own_.get();
  count_ = 0;
  const uint32_t first = forward || position < size_ ? (forward ? position : 0) : position - size_ + 1;
  const uint32_t count = forward ? std::min(size_, block_->Count() - position) : position - first + 1;
  const uint32_t status = block_->Table()->ReadPage(first, count, own_.get());
  if (status != kStatusOk) return status;
  first_ = first;
  count_ = count;
  return kStatusOk;
}

uint32_t BlockPages::LowerBound(std::string_view key, uint32_t* position) const {
  if (block_->Table() != nullptr) return block_->Table()->LowerBound(key, position);
  *position = block_->Index()->LowerBound(key);
  return kStatusOk;
}

}  // namespace Kestrun
