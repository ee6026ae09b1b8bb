// RocksDB. Its log is written before every put returns, without a sync.
#include <rocksdb/db.h>
#include <rocksdb/options.h>
#include <rocksdb/version.h>
#include <rocksdb/write_batch.h>

#include "peers/peer.h"

namespace Bench {
namespace {

rocksdb::Slice SliceOf(std::string_view bytes) {
  return {bytes.data(), bytes.size()};
}

class RocksDb final : public Peer {
 public:
  ~RocksDb() override { Close(); }

  std::string Version() const override { return "RocksDB " + rocksdb::GetRocksVersionAsString(true); }
  std::string Settings() const override {
    return "write_buffer_size as the log, no compression, sync off, the rest as it comes";
  }

  bool Open(const Options& options) override {
    rocksdb::Options own;
    own.create_if_missing = true;
    own.write_buffer_size = options.logBytes;
    own.compression = rocksdb::kNoCompression;
    own.bottommost_compression = rocksdb::kNoCompression;
    rocksdb::DB* db = nullptr;
    if (!rocksdb::DB::Open(own, options.path, &db).ok()) return false;
    db_.reset(db);
    return true;
  }
  void Close() override {
    ReleaseSnapshot();
    db_.reset();
  }

  bool Put(std::string_view key, std::string_view value) override {
    return db_->Put({}, SliceOf(key), SliceOf(value)).ok();
  }
  bool Delete(std::string_view key) override { return db_->Delete({}, SliceOf(key)).ok(); }
  bool Write(const Entries& entries) override {
    batch_.Clear();
    for (const auto& [key, value] : entries) {
      if (!batch_.Put(SliceOf(key), SliceOf(value)).ok()) return false;
    }
    return db_->Write({}, &batch_).ok();
  }

  bool Get(std::string_view key, std::string* value, bool* found) override {
    return Answer(db_->Get({}, SliceOf(key), value), found);
  }
  bool TakeSnapshot() override {
    snapshot_ = db_->GetSnapshot();
    return snapshot_ != nullptr;
  }
  bool GetFromSnapshot(std::string_view key, std::string* value, bool* found) override {
    rocksdb::ReadOptions options;
    options.snapshot = snapshot_;
    return Answer(db_->Get(options, SliceOf(key), value), found);
  }
  void ReleaseSnapshot() override {
    if (snapshot_ != nullptr) db_->ReleaseSnapshot(snapshot_);
    snapshot_ = nullptr;
  }

  bool Scan(std::string_view from, std::string_view to, bool values, uint64_t* count,
            uint64_t* bytes) override {
    const std::unique_ptr<rocksdb::Iterator> cursor(db_->NewIterator({}));
    for (cursor->Seek(SliceOf(from)); cursor->Valid() && cursor->key().compare(SliceOf(to)) < 0;
         cursor->Next()) {
      ++*count;
      *bytes += cursor->key().size() + (values ? cursor->value().size() : 0);
    }
    return cursor->status().ok();
  }

  bool Flush() override { return db_->Flush({}).ok(); }
  bool Compact() override {
    rocksdb::CompactRangeOptions options;
    options.bottommost_level_compaction = rocksdb::BottommostLevelCompaction::kForce;
    return db_->CompactRange(options, nullptr, nullptr).ok();
  }
  bool SharedByProcesses() const override { return false; }

 private:
  static bool Answer(const rocksdb::Status& status, bool* found) {
    *found = status.ok();
    return status.ok() || status.IsNotFound();
  }

  std::unique_ptr<rocksdb::DB> db_;
  const rocksdb::Snapshot* snapshot_ = nullptr;
  rocksdb::WriteBatch batch_;
};

}  // namespace

std::unique_ptr<Peer> MakePeer() {
  return std::make_unique<RocksDb>();
}

}  // namespace Bench
