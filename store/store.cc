#include "kestrun/store.h"

#include <utility>

#include "base/catch_bad_alloc.h"
#include "store/key_rules.h"
#include "store/store_impl.h"
#include "store/write_batch_access.h"

namespace Kestrun {

Store::Store(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

Store::~Store() = default;

uint32_t Store::Put(std::string_view key, std::string_view value, unsigned int ttl) {
  if (!IsValidKey(key) || !IsValidValue(value) || ttl == 0 || impl_->IsInBody()) return kStatusInvalid;
  return CatchBadAlloc([&] { return impl_->Append(key, value, ttl, false); });
}

uint32_t Store::Delete(std::string_view key) {
  if (!IsValidKey(key) || impl_->IsInBody()) return kStatusInvalid;
  return CatchBadAlloc([&] { return impl_->Append(key, {}, 0, true); });
}

uint32_t Store::Get(std::string_view key, std::optional<std::string>* value) {
  if (value == nullptr || !IsValidKey(key) || impl_->IsInBody()) return kStatusInvalid;
  return CatchBadAlloc([&] { return impl_->Get(key, value); });
}

uint32_t Store::Contains(std::string_view key, bool* alive) {
  if (alive == nullptr) return kStatusInvalid;
  std::optional<std::string> value;
  const uint32_t status = Get(key, &value);
  if (status == kStatusOk) *alive = value.has_value();
  return status;
}

uint32_t Store::DeleteRange(const Range& range) {
  if (impl_->IsInBody()) return kStatusInvalid;
  return CatchBadAlloc([&] { return impl_->DeleteRange(range); });
}

uint32_t Store::Write(const WriteBatch& batch) {
  if (impl_->IsInBody()) return kStatusInvalid;
  if (batch.Count() == 0) return kStatusOk;
  return CatchBadAlloc([&] { return impl_->AppendBatch(WriteBatchAccess::Records(batch), batch.Count()); });
}

uint32_t Store::Transact(const std::function<uint32_t(Transaction&)>& body) {
  if (!body || impl_->IsInBody()) return kStatusInvalid;
  return impl_->Transact(body);
}

uint32_t Store::TakeSnapshot(std::unique_ptr<Snapshot>* out) {
  if (out == nullptr || impl_->IsInBody()) return kStatusInvalid;
  return CatchBadAlloc([&] {
    std::shared_ptr<const Snapshot::Impl> snapshot;
    const uint32_t status = impl_->TakeSnapshot(&snapshot);
    if (status == kStatusOk) out->reset(new Snapshot(std::move(snapshot)));
    return status;
  });
}

uint32_t Store::Flush() {
  if (impl_->IsInBody()) return kStatusInvalid;
  return CatchBadAlloc([&] { return impl_->Flush(); });
}

uint32_t Store::Compact() {
  if (impl_->IsInBody()) return kStatusInvalid;
  return CatchBadAlloc([&] { return impl_->Compact(); });
}

uint32_t Store::Clear() {
  if (impl_->IsInBody()) return kStatusInvalid;
  return CatchBadAlloc([&] { return impl_->Clear(); });
}

uint32_t Store::Sync() {
  if (impl_->IsInBody()) return kStatusInvalid;
  return CatchBadAlloc([&] { return impl_->Sync(); });
}

uint32_t Store::Checkpoint(const std::string& directory) {
  if (impl_->IsInBody()) return kStatusInvalid;
  return CatchBadAlloc([&] { return impl_->Checkpoint(directory); });
}

uint32_t Store::GetStats(StoreStats* out) {
  if (out == nullptr || impl_->IsInBody()) return kStatusInvalid;
  return CatchBadAlloc([&] { return impl_->GetStats(out); });
}

}  // namespace Kestrun
