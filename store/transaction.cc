#include "kestrun/transaction.h"

#include <map>
#include <utility>

#include "base/catch_bad_alloc.h"
#include "kestrun/status.h"
#include "store/key_rules.h"
#include "store/store_impl.h"
#include "store/write_batch_access.h"

namespace Kestrun {

class Transaction::Impl {
 public:
  struct Write {
    std::string value;
    unsigned int ttl;  // 0: a deletion
  };

  explicit Impl(Store::Impl& store) : store_(store) {}

  uint32_t Get(std::string_view key, std::optional<std::string>* value) {
    const auto written = writes_.find(key);
    if (written == writes_.end()) return store_.GetLocked(key, value);
    if (written->second.ttl == 0) {
      value->reset();
    } else {
      *value = written->second.value;
    }
    return kStatusOk;
  }

  // The last write of a key is the one that counts.
  void Set(std::string_view key, std::string_view value, unsigned int ttl) {
    Write write = {std::string(value), ttl};
    const auto written = writes_.find(key);
    if (written == writes_.end()) {
      writes_.emplace(std::string(key), std::move(write));
    } else {
      written->second = std::move(write);
    }
  }

  uint32_t MakeBatch(WriteBatch* batch) const {
    for (const auto& [key, write] : writes_) {
      const uint32_t status = write.ttl == 0 ? batch->Delete(key) : batch->Put(key, write.value, write.ttl);
      if (status != kStatusOk) return status;
    }
    return kStatusOk;
  }

 private:
  Store::Impl& store_;
  std::map<std::string, Write, std::less<>> writes_;
};

Transaction::~Transaction() = default;

uint32_t Transaction::Get(std::string_view key, std::optional<std::string>* value) {
  if (value == nullptr || !IsValidKey(key)) return kStatusInvalid;
  return CatchBadAlloc([&] { return impl_->Get(key, value); });
}

uint32_t Transaction::Put(std::string_view key, std::string_view value, unsigned int ttl) {
  if (!IsValidKey(key) || !IsValidValue(value) || ttl == 0) return kStatusInvalid;
  return CatchBadAlloc([&] {
    impl_->Set(key, value, ttl);
    return kStatusOk;
  });
}

uint32_t Transaction::Delete(std::string_view key) {
  if (!IsValidKey(key)) return kStatusInvalid;
  return CatchBadAlloc([&] {
    impl_->Set(key, {}, 0);
    return kStatusOk;
  });
}

namespace {

// Notes for a scope which thread runs a body.
class BodyScope {
 public:
  explicit BodyScope(std::atomic<std::thread::id>& thread) : thread_(thread) {
    thread_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  }
  ~BodyScope() { thread_.store(std::thread::id(), std::memory_order_relaxed); }
  BodyScope(const BodyScope&) = delete;
  BodyScope& operator=(const BodyScope&) = delete;

 private:
  std::atomic<std::thread::id>& thread_;
};

}  // namespace

uint32_t Store::Impl::Transact(const std::function<uint32_t(Transaction&)>& body) {
  const LogSection section(core_, LockLevel::Exclusive);
  if (section.Status() != kStatusOk) return section.Status();
  uint32_t status = CatchBadAlloc([&] { return PrepareLog(); });
  if (status != kStatusOk) return status;

  Transaction::Impl writes(*this);
  const OsFile& log = *wal_->File();
  const uint64_t dropCount = log.Inode()->DropCount();
  {
    // What the body throws passes through.
    const BodyScope scope(bodyThread_);
    Transaction transaction(&writes);
    status = body(transaction);
  }
  if (status != kStatusOk) return status;
  // A body that locked or closed the log's file by other means has given up the lock:
  // others may have written since.
  if (log.Inode()->DropCount() != dropCount) return kStatusLockFailed;
  return CatchBadAlloc([&]() -> uint32_t {
    WriteBatch batch;
    if (const uint32_t made = writes.MakeBatch(&batch); made != kStatusOk || batch.Count() == 0) return made;
    const std::string_view records = WriteBatchAccess::Records(batch);
    return AppendOrFlush(records.size(), [&] { return wal_->AppendBatch(records, batch.Count()); });
  });
}

}  // namespace Kestrun
