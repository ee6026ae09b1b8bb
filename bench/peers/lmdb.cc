// LMDB. Commits go to the mapped file without a sync: the system holds them when the process ends.
#include <lmdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "peers/peer.h"

namespace Bench {
namespace {

MDB_val ValueOf(std::string_view bytes) {
  return {bytes.size(), const_cast<char*>(bytes.data())};
}
std::string_view BytesOf(const MDB_val& value) {
  return {static_cast<const char*>(value.mv_data), value.mv_size};
}

class Lmdb final : public Peer {
 public:
  ~Lmdb() override { Close(); }

  std::string Version() const override {
    return "LMDB " + std::to_string(MDB_VERSION_MAJOR) + "." + std::to_string(MDB_VERSION_MINOR) + "." +
           std::to_string(MDB_VERSION_PATCH);
  }
  std::string Settings() const override {
    return "MDB_WRITEMAP and MDB_NOSYNC, one transaction for each put, a renewed one for each get";
  }

  bool Open(const Options& options) override {
    path_ = options.path;
    mapBytes_ = options.mapBytes;
    mkdir(path_.c_str(), 0700);
    return OpenEnvironment();
  }
  void Close() override {
    if (environment_ == nullptr) return;
    ReleaseSnapshot();
    mdb_txn_abort(reader_);
    mdb_env_close(environment_);
    environment_ = nullptr;
  }

  bool Put(std::string_view key, std::string_view value) override {
    MDB_txn* transaction = nullptr;
    if (mdb_txn_begin(environment_, nullptr, 0, &transaction) != 0) return false;
    if (!PutIn(transaction, key, value)) {
      mdb_txn_abort(transaction);
      return false;
    }
    return mdb_txn_commit(transaction) == 0;
  }
  bool Delete(std::string_view key) override {
    MDB_txn* transaction = nullptr;
    if (mdb_txn_begin(environment_, nullptr, 0, &transaction) != 0) return false;
    MDB_val name = ValueOf(key);
    const int status = mdb_del(transaction, table_, &name, nullptr);
    if (status != 0 && status != MDB_NOTFOUND) {
      mdb_txn_abort(transaction);
      return false;
    }
    return mdb_txn_commit(transaction) == 0;
  }
  bool Write(const Entries& entries) override {
    MDB_txn* transaction = nullptr;
    if (mdb_txn_begin(environment_, nullptr, 0, &transaction) != 0) return false;
    for (const auto& [key, value] : entries) {
      if (PutIn(transaction, key, value)) continue;
      mdb_txn_abort(transaction);
      return false;
    }
    return mdb_txn_commit(transaction) == 0;
  }

  bool Get(std::string_view key, std::string* value, bool* found) override {
    if (mdb_txn_renew(reader_) != 0) return false;
    const bool done = GetIn(reader_, key, value, found);
    mdb_txn_reset(reader_);
    return done;
  }
  bool TakeSnapshot() override {
    if (mdb_txn_renew(reader_) != 0) return false;
    isHeld_ = true;
    return true;
  }
  bool GetFromSnapshot(std::string_view key, std::string* value, bool* found) override {
    return GetIn(reader_, key, value, found);
  }
  void ReleaseSnapshot() override {
    if (isHeld_) mdb_txn_reset(reader_);
    isHeld_ = false;
  }

  bool Scan(std::string_view from, std::string_view to, bool values, uint64_t* count,
            uint64_t* bytes) override {
    if (mdb_txn_renew(reader_) != 0) return false;
    MDB_cursor* cursor = nullptr;
    bool done = mdb_cursor_open(reader_, table_, &cursor) == 0;
    if (done) {
      MDB_val key = ValueOf(from);
      MDB_val value = {};
      int status = mdb_cursor_get(cursor, &key, &value, MDB_SET_RANGE);
      while (status == 0 && BytesOf(key) < to) {
        ++*count;
        *bytes += key.mv_size + (values ? value.mv_size : 0);
        status = mdb_cursor_get(cursor, &key, &value, MDB_NEXT);
      }
      done = status == 0 || status == MDB_NOTFOUND;
      mdb_cursor_close(cursor);
    }
    mdb_txn_reset(reader_);
    return done;
  }

  bool Flush() override { return mdb_env_sync(environment_, 1) == 0; }
  // A compacting copy, which then takes the place of the file: there is no compaction in place.
  bool Compact() override {
    const std::string copy = path_ + "/copy";
    if (mkdir(copy.c_str(), 0700) != 0 || mdb_env_copy2(environment_, copy.c_str(), MDB_CP_COMPACT) != 0)
      return false;
    Close();
    return std::rename((copy + "/data.mdb").c_str(), (path_ + "/data.mdb").c_str()) == 0 &&
           rmdir(copy.c_str()) == 0 && OpenEnvironment();
  }

 private:
  bool OpenEnvironment() {
    if (mdb_env_create(&environment_) != 0) return false;
    MDB_txn* transaction = nullptr;
    if (mdb_env_set_mapsize(environment_, mapBytes_) != 0 ||
        mdb_env_open(environment_, path_.c_str(), MDB_WRITEMAP | MDB_NOSYNC, 0600) != 0 ||
        mdb_txn_begin(environment_, nullptr, 0, &transaction) != 0) {
      mdb_env_close(environment_);
      environment_ = nullptr;
      return false;
    }
    if (mdb_dbi_open(transaction, nullptr, 0, &table_) != 0 || mdb_txn_commit(transaction) != 0 ||
        mdb_txn_begin(environment_, nullptr, MDB_RDONLY, &reader_) != 0) {
      return false;
    }
    mdb_txn_reset(reader_);
    return true;
  }
  bool PutIn(MDB_txn* transaction, std::string_view key, std::string_view value) const {
    MDB_val name = ValueOf(key);
    MDB_val bytes = ValueOf(value);
    return mdb_put(transaction, table_, &name, &bytes, 0) == 0;
  }
  bool GetIn(MDB_txn* transaction, std::string_view key, std::string* value, bool* found) const {
    MDB_val name = ValueOf(key);
    MDB_val bytes = {};
    const int status = mdb_get(transaction, table_, &name, &bytes);
    *found = status == 0;
    if (*found) value->assign(BytesOf(bytes));
    return *found || status == MDB_NOTFOUND;
  }

  std::string path_;
  size_t mapBytes_ = 0;
  MDB_env* environment_ = nullptr;
  MDB_dbi table_ = 0;
  MDB_txn* reader_ = nullptr;
  bool isHeld_ = false;
};

}  // namespace

std::unique_ptr<Peer> MakePeer() {
  return std::make_unique<Lmdb>();
}

}  // namespace Bench
