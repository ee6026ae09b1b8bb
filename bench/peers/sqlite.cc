// SQLite. A table of keys and values, a write-ahead log that is synced when it is taken
// over, not at each commit.
#include <sqlite3.h>
#include <sys/stat.h>

#include "peers/peer.h"

namespace Bench {
namespace {

class Sqlite final : public Peer {
 public:
  ~Sqlite() override { Close(); }

  std::string Version() const override { return std::string("SQLite ") + sqlite3_libversion(); }
  std::string Settings() const override {
    return "WITHOUT ROWID, journal_mode=WAL, synchronous=NORMAL, wal_autocheckpoint as the log, prepared "
           "statements";
  }

  bool Open(const Options& options) override {
    mkdir(options.path.c_str(), 0700);
    if (sqlite3_open((options.path + "/table.db").c_str(), &db_) != SQLITE_OK) return false;
    sqlite3_busy_timeout(db_, 5000);
    const size_t pages = options.logBytes / 4096;
    return Run("PRAGMA page_size=4096") && Run("PRAGMA journal_mode=WAL") &&
           Run("PRAGMA synchronous=NORMAL") &&
           Run(("PRAGMA wal_autocheckpoint=" + std::to_string(pages)).c_str()) &&
           Run("CREATE TABLE IF NOT EXISTS entries (key BLOB PRIMARY KEY, value BLOB NOT NULL) WITHOUT "
               "ROWID") &&
           Prepare("INSERT OR REPLACE INTO entries VALUES (?1, ?2)", &put_) &&
           Prepare("DELETE FROM entries WHERE key = ?1", &delete_) &&
           Prepare("SELECT value FROM entries WHERE key = ?1", &get_) &&
           Prepare("SELECT key, value FROM entries WHERE key >= ?1 AND key < ?2 ORDER BY key", &scan_) &&
           Prepare("SELECT key FROM entries WHERE key >= ?1 AND key < ?2 ORDER BY key", &scanKeys_) &&
           Prepare("BEGIN", &begin_) && Prepare("COMMIT", &commit_);
  }
  void Close() override {
    for (sqlite3_stmt** statement : {&put_, &delete_, &get_, &scan_, &scanKeys_, &begin_, &commit_}) {
      sqlite3_finalize(*statement);
      *statement = nullptr;
    }
    sqlite3_close(db_);
    db_ = nullptr;
  }

  bool Put(std::string_view key, std::string_view value) override {
    Bind(put_, 1, key);
    Bind(put_, 2, value);
    return Finish(put_);
  }
  bool Delete(std::string_view key) override {
    Bind(delete_, 1, key);
    return Finish(delete_);
  }
  bool Write(const Entries& entries) override {
    if (!Finish(begin_)) return false;
    bool done = true;
    for (const auto& [key, value] : entries) done = done && Put(key, value);
    return Finish(commit_) && done;
  }

  bool Get(std::string_view key, std::string* value, bool* found) override {
    Bind(get_, 1, key);
    const int status = sqlite3_step(get_);
    *found = status == SQLITE_ROW;
    if (*found) {
      value->assign(static_cast<const char*>(sqlite3_column_blob(get_, 0)),
                    static_cast<size_t>(sqlite3_column_bytes(get_, 0)));
    }
    sqlite3_reset(get_);
    return *found || status == SQLITE_DONE;
  }
  // A reading transaction begins with its first statement.
  bool TakeSnapshot() override {
    isHeld_ = Finish(begin_);
    std::string value;
    bool found = false;
    return isHeld_ && Get("", &value, &found);
  }
  bool GetFromSnapshot(std::string_view key, std::string* value, bool* found) override {
    return Get(key, value, found);
  }
  void ReleaseSnapshot() override {
    if (isHeld_) Finish(commit_);
    isHeld_ = false;
  }

  bool Scan(std::string_view from, std::string_view to, bool values, uint64_t* count,
            uint64_t* bytes) override {
    sqlite3_stmt* statement = values ? scan_ : scanKeys_;
    Bind(statement, 1, from);
    Bind(statement, 2, to);
    int status = sqlite3_step(statement);
    for (; status == SQLITE_ROW; status = sqlite3_step(statement)) {
      ++*count;
      *bytes += static_cast<uint64_t>(sqlite3_column_bytes(statement, 0));
      if (values && sqlite3_column_blob(statement, 1) != nullptr) {
        *bytes += static_cast<uint64_t>(sqlite3_column_bytes(statement, 1));
      }
    }
    sqlite3_reset(statement);
    return status == SQLITE_DONE;
  }

  bool Flush() override { return Run("PRAGMA wal_checkpoint(TRUNCATE)"); }
  bool Compact() override { return Run("VACUUM") && Flush(); }

 private:
  bool Run(const char* text) { return sqlite3_exec(db_, text, nullptr, nullptr, nullptr) == SQLITE_OK; }
  bool Prepare(const char* text, sqlite3_stmt** statement) {
    return sqlite3_prepare_v3(db_, text, -1, SQLITE_PREPARE_PERSISTENT, statement, nullptr) == SQLITE_OK;
  }
  static void Bind(sqlite3_stmt* statement, int index, std::string_view bytes) {
    sqlite3_bind_blob(statement, index, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
  }
  static bool Finish(sqlite3_stmt* statement) {
    const int status = sqlite3_step(statement);
    sqlite3_reset(statement);
    return status == SQLITE_DONE;
  }

  sqlite3* db_ = nullptr;
  sqlite3_stmt* put_ = nullptr;
  sqlite3_stmt* delete_ = nullptr;
  sqlite3_stmt* get_ = nullptr;
  sqlite3_stmt* scan_ = nullptr;
  sqlite3_stmt* scanKeys_ = nullptr;
  sqlite3_stmt* begin_ = nullptr;
  sqlite3_stmt* commit_ = nullptr;
  bool isHeld_ = false;
};

}  // namespace

std::unique_ptr<Peer> MakePeer() {
  return std::make_unique<Sqlite>();
}

}  // namespace Bench
