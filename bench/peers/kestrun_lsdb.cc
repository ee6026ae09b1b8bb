// Kestrun through LSDBImpl, the older face: no batches, no snapshots, compaction when it is told to.
#include <cstdlib>

#include "kestrun/lsdb.h"
#include "kestrun/status.h"
#include "kestrun/version.h"
#include "peers/peer.h"

namespace Bench {
namespace {

using Kestrun::Key;
using Kestrun::kStatusOk;

Key KeyOf(std::string_view bytes) {
  return {reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<unsigned short>(bytes.size())};
}

class KestrunLsdb final : public Peer {
 public:
  std::string Version() const override { return std::string("Kestrun ") + Kestrun::Version(); }
  std::string Settings() const override { return "LSDBImpl, walSize as the log"; }

  bool Open(const Options& options) override {
    Kestrun::LSDBImpl* store = nullptr;
    const Kestrun::LSDBConfig config = {static_cast<uint32_t>(options.logBytes), 0};
    if (Kestrun::LSDBImpl::Open(options.path, config, &store) != kStatusOk) return false;
    store_.reset(store);
    return true;
  }
  void Close() override { store_.reset(); }

  bool Put(std::string_view key, std::string_view value) override {
    return store_->Insert(KeyOf(key), Kestrun::kTtlForever, value.data(),
                          static_cast<unsigned int>(value.size())) == kStatusOk;
  }
  bool Delete(std::string_view key) override { return store_->Delete(KeyOf(key)) == kStatusOk; }
  bool Write(const Entries& entries) override {
    for (const auto& [key, value] : entries) {
      if (!Put(key, value)) return false;
    }
    return true;
  }
  bool CanBatch() const override { return false; }

  bool Get(std::string_view key, std::string* value, bool* found) override {
    const void* bytes = nullptr;
    unsigned int size = 0;
    if (store_->Get(KeyOf(key), &bytes, &size) != kStatusOk) return false;
    *found = bytes != nullptr;
    if (*found) value->assign(static_cast<const char*>(bytes), size);
    std::free(const_cast<void*>(bytes));
    return true;
  }
  bool CanSnapshot() const override { return false; }

  // Keys first, then a get for each: the callback brings no values.
  bool Scan(std::string_view from, std::string_view to, bool values, uint64_t* count,
            uint64_t* bytes) override {
    bool done = true;
    const uint32_t status = store_->EnumerateKeys(KeyOf(from), KeyOf(to), [&](const Key& key) {
      ++*count;
      *bytes += key.Size();
      if (!values) return false;
      const void* value = nullptr;
      unsigned int size = 0;
      done = store_->Get(key, &value, &size) == kStatusOk && done;
      *bytes += size;
      std::free(const_cast<void*>(value));
      return false;
    });
    return status == kStatusOk && done;
  }

  bool Flush() override { return store_->ResetWal() == kStatusOk; }
  bool Compact() override { return Flush() && store_->ForceCompact() == kStatusOk; }

 private:
  std::unique_ptr<Kestrun::LSDBImpl> store_;
};

}  // namespace

std::unique_ptr<Peer> MakePeer() {
  return std::make_unique<KestrunLsdb>();
}

}  // namespace Bench
