// The rows of a table of a SQLite file.
#include <algorithm>
#include <charconv>
#include <deque>

#include "inspect/escape.h"
#include "tools/failure.h"
#include "tools/rows.h"
#include "tools/sqlite_file.h"

namespace Kestrun::Tools {
namespace {

class SqliteRows final : public RowSource {
 public:
  SqliteRows(const std::string& path, const std::string* table) : name_(Inspect::Printable(path)) {
    if (path == "-") throw UsageError("a SQLite file can't be read from standard input");
    sqlite3* database = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READONLY, nullptr);
    database_.reset(database);
    if (result != SQLITE_OK) Fail();
    const std::string chosen = table != nullptr ? *table : OnlyTable();
    statement_ = Prepare("SELECT * FROM " + SqlName(chosen));
    for (int i = 0; i < sqlite3_column_count(statement_.get()); ++i) {
      columns_.emplace_back(sqlite3_column_name(statement_.get(), i));
    }
    SqliteStatement count = Prepare("SELECT max(rowid) FROM " + SqlName(chosen), false);
    if (count != nullptr && sqlite3_step(count.get()) == SQLITE_ROW) {
      size_ = static_cast<uint64_t>(std::max<sqlite3_int64>(0, sqlite3_column_int64(count.get(), 0)));
    }
  }

  bool Next(Row* row) override {
    const int result = sqlite3_step(statement_.get());
    if (result == SQLITE_DONE) return false;
    if (result != SQLITE_ROW) Fail();
    row->line = ++number_;
    row->raw = std::string_view();
    row->problem.clear();
    row->names = &columns_;
    row->shape = 1;
    row->cells.clear();
    texts_.clear();
    for (int i = 0; i < static_cast<int>(columns_.size()); ++i) row->cells.push_back(CellOf(i));
    return true;
  }
  const std::vector<std::string>* Columns() const override { return &columns_; }
  uint64_t Position() const override { return number_; }
  uint64_t Size() const override { return size_; }
  const std::string& Name() const override { return name_; }

 private:
  [[noreturn]] void Fail() {
    const std::string why =
        database_ == nullptr ? "memory could not be allocated" : sqlite3_errmsg(database_.get());
    throw InputError(name_ + " can't be read: " + why);
  }

  SqliteStatement Prepare(const std::string& sql, bool must = true) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(database_.get(), sql.c_str(), -1, &statement, nullptr) != SQLITE_OK && must)
      Fail();
    return SqliteStatement(statement);
  }

  // The table of a file that has one only.
  std::string OnlyTable() {
    const SqliteStatement list = Prepare(
        "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%' ORDER BY name");
    std::string names;
    std::string name;
    int count = 0;
    int result = 0;
    while ((result = sqlite3_step(list.get())) == SQLITE_ROW) {
      name = reinterpret_cast<const char*>(sqlite3_column_text(list.get(), 0));
      names += (count++ == 0 ? "" : ", ") + Inspect::Printable(name);
    }
    if (result != SQLITE_DONE) Fail();
    if (count == 0) throw InputError(name_ + " has no table");
    if (count > 1) throw UsageError("--table is needed, for " + name_ + " has several: " + names);
    return name;
  }

  // Texts and numbers are both texts here: a column of SQLite may hold either.
  Cell CellOf(int column) {
    const int type = sqlite3_column_type(statement_.get(), column);
    if (type == SQLITE_NULL) return {Cell::Kind::Null, {}};
    if (type == SQLITE_FLOAT) {
      // Its own text would have fewer digits than tell the number.
      char digits[32];
      const double number = sqlite3_column_double(statement_.get(), column);
      const auto end = std::to_chars(digits, digits + sizeof(digits), number).ptr;
      return {Cell::Kind::Text, texts_.emplace_back(digits, end)};
    }
    const bool isBlob = type == SQLITE_BLOB;
    const void* bytes = isBlob ? sqlite3_column_blob(statement_.get(), column)
                               : static_cast<const void*>(sqlite3_column_text(statement_.get(), column));
    const auto size = static_cast<size_t>(sqlite3_column_bytes(statement_.get(), column));
    const std::string_view text(static_cast<const char*>(bytes), bytes == nullptr ? 0 : size);
    return {isBlob ? Cell::Kind::Bytes : Cell::Kind::Text, text};
  }

  std::string name_;
  SqliteDatabase database_;
  SqliteStatement statement_;
  std::vector<std::string> columns_;
  std::deque<std::string> texts_;  // of real numbers
  uint64_t number_ = 0;
  uint64_t size_ = 0;
};

}  // namespace

std::unique_ptr<RowSource> OpenSqliteRows(const std::string& path, const std::string* table) {
  return std::make_unique<SqliteRows>(path, table);
}

}  // namespace Kestrun::Tools
