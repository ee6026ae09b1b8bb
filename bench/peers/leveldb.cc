// LevelDB. Its log is written before every put returns, without a sync.
#include <leveldb/db.h>
#include <leveldb/options.h>
#include <leveldb/write_batch.h>

#include "peers/peer.h"

namespace Bench {
namespace {

leveldb::Slice SliceOf(std::string_view bytes) {
  return {bytes.data(), bytes.size()};
}

class LevelDb final : public Peer {
 public:
  ~LevelDb() override { Close(); }

  std::string Version() const override {
    return "LevelDB " + std::to_string(leveldb::kMajorVersion) + "." + std::to_string(leveldb::kMinorVersion);
  }
  std::string Settings() const override {
    return "write_buffer_size as the log, no compression, sync off, the rest as it comes";
  }

  bool Open(const Options& options) override {
    leveldb::Options own;
    own.create_if_missing = true;
    own.write_buffer_size = options.logBytes;
    own.compression = leveldb::kNoCompression;
    leveldb::DB* db = nullptr;
    if (!leveldb::DB::Open(own, options.path, &db).ok()) return false;
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
    for (const auto& [key, value] : entries) batch_.Put(SliceOf(key), SliceOf(value));
    return db_->Write({}, &batch_).ok();
  }

  bool Get(std::string_view key, std::string* value, bool* found) override {
    return Answer(db_->Get({}, SliceOf(key), value), found);
  }
  bool TakeSnapshot() override {
    snapshot_ = db_->GetSnapshot();
    return true;
  }
  bool GetFromSnapshot(std::string_view key, std::string* value, bool* found) override {
    leveldb::ReadOptions options;
    options.snapshot = snapshot_;
    return Answer(db_->Get(options, SliceOf(key), value), found);
  }
  void ReleaseSnapshot() override {
    if (snapshot_ != nullptr) db_->ReleaseSnapshot(snapshot_);
    snapshot_ = nullptr;
  }

  bool Scan(std::string_view from, std::string_view to, bool values, uint64_t* count,
            uint64_t* bytes) override {
    const std::unique_ptr<leveldb::Iterator> cursor(db_->NewIterator({}));
    for (cursor->Seek(SliceOf(from)); cursor->Valid() && cursor->key().compare(SliceOf(to)) < 0;
         cursor->Next()) {
      ++*count;
      *bytes += cursor->key().size() + (values ? cursor->value().size() : 0);
    }
    return cursor->status().ok();
  }

  bool Flush() override {
    // There is no call for it: the file of an empty range is merged after the memory was written.
    const std::string none(1, '\0');
    const leveldb::Slice slice(none);
    db_->CompactRange(&slice, &slice);
    return true;
  }
  bool Compact() override {
    db_->CompactRange(nullptr, nullptr);
    return true;
  }
  bool SharedByProcesses() const override { return false; }

 private:
  static bool Answer(const leveldb::Status& status, bool* found) {
    *found = status.ok();
    return status.ok() || status.IsNotFound();
  }

  std::unique_ptr<leveldb::DB> db_;
  const leveldb::Snapshot* snapshot_ = nullptr;
  leveldb::WriteBatch batch_;
};

}  // namespace

std::unique_ptr<Peer> MakePeer() {
  return std::make_unique<LevelDb>();
}

}  // namespace Bench
