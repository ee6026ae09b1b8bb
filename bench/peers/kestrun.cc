// Kestrun through Store.
#include <optional>

#include "kestrun/kestrun.h"
#include "peers/peer.h"

namespace Bench {
namespace {

using Kestrun::kStatusOk;

class KestrunStore final : public Peer {
 public:
  std::string Version() const override { return std::string("Kestrun ") + Kestrun::Version(); }
  std::string Settings() const override { return "Store, logSize as the log, the rest as it comes"; }

  bool Open(const Options& options) override {
    Kestrun::StoreOptions own;
    own.logSize = static_cast<uint32_t>(options.logBytes);
    own.autoCompact = options.compactsByItself;
    return Kestrun::Store::Open(options.path, own, &store_) == kStatusOk;
  }
  void Close() override {
    snapshot_.reset();
    store_.reset();
  }

  bool Put(std::string_view key, std::string_view value) override {
    return store_->Put(key, value) == kStatusOk;
  }
  bool Delete(std::string_view key) override { return store_->Delete(key) == kStatusOk; }
  bool Write(const Entries& entries) override {
    batch_.Clear();
    for (const auto& [key, value] : entries) {
      if (batch_.Put(key, value) != kStatusOk) return false;
    }
    return store_->Write(batch_) == kStatusOk;
  }

  bool Get(std::string_view key, std::string* value, bool* found) override {
    return Answer(store_->Get(key, &value_), value, found);
  }
  bool TakeSnapshot() override { return store_->TakeSnapshot(&snapshot_) == kStatusOk; }
  bool GetFromSnapshot(std::string_view key, std::string* value, bool* found) override {
    return Answer(snapshot_->Get(key, &value_), value, found);
  }
  void ReleaseSnapshot() override { snapshot_.reset(); }

  bool Scan(std::string_view from, std::string_view to, bool values, uint64_t* count,
            uint64_t* bytes) override {
    std::unique_ptr<Kestrun::Snapshot> snapshot;
    std::unique_ptr<Kestrun::Cursor> cursor;
    const Kestrun::Range range = {std::string(from), std::string(to)};
    if (store_->TakeSnapshot(&snapshot) != kStatusOk || snapshot->NewCursor(range, &cursor) != kStatusOk)
      return false;
    for (cursor->SeekToFirst(); cursor->Valid(); cursor->Next()) {
      ++*count;
      *bytes += cursor->Key().size();
      if (!values) continue;
      std::string_view value;
      if (cursor->Value(&value) != kStatusOk) return false;
      *bytes += value.size();
    }
    return cursor->Status() == kStatusOk;
  }

  bool Flush() override { return store_->Flush() == kStatusOk; }
  bool Compact() override { return store_->Compact() == kStatusOk; }

 private:
  // The caller's string gets the value's own memory: a program that reads with Get has no copy to make.
  bool Answer(uint32_t status, std::string* value, bool* found) {
    if (status != kStatusOk) return false;
    *found = value_.has_value();
    if (*found) value->swap(*value_);
    return true;
  }

  std::unique_ptr<Kestrun::Store> store_;
  std::unique_ptr<Kestrun::Snapshot> snapshot_;
  Kestrun::WriteBatch batch_;
  std::optional<std::string> value_;
};

}  // namespace

std::unique_ptr<Peer> MakePeer() {
  return std::make_unique<KestrunStore>();
}

}  // namespace Bench
