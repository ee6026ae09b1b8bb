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
  SqliteRows(const std::string& path, const std::string* table, bool withTypes)
      : name_(Inspect::Printable(path)) {
    if (path == "-") throw UsageError("a SQLite file can't be read from standard input");
    sqlite3* database = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READONLY, nullptr);
    database_.reset(database);
    if (result != SQLITE_OK) Fail();
    ChooseTables(table, withTypes);
    for (const Table& chosen : tables_) {
      SqliteStatement count = Prepare("SELECT max(rowid) FROM " + SqlName(chosen.name), false);
      if (count != nullptr && sqlite3_step(count.get()) == SQLITE_ROW) {
        size_ += static_cast<uint64_t>(std::max<sqlite3_int64>(0, sqlite3_column_int64(count.get(), 0)));
      }
    }
    Begin();
  }

  bool Next(Row* row) override {
    int result = sqlite3_step(statement_.get());
    while (result == SQLITE_DONE && ++table_ < tables_.size()) {
      Begin();
      result = sqlite3_step(statement_.get());
    }
    if (result == SQLITE_DONE) return false;
    if (result != SQLITE_ROW) Fail();
    row->line = ++number_;
    row->raw = std::string_view();
    row->problem.clear();
    row->names = &columns_;
    row->shape = table_ + 1;
    row->cells.clear();
    texts_.clear();
    for (int i = 0; i < sqlite3_column_count(statement_.get()); ++i) row->cells.push_back(CellOf(i));
    if (row->cells.size() < columns_.size()) {
      const std::string& type = tables_[table_].type;
      row->cells.push_back({type.empty() ? Cell::Kind::Null : Cell::Kind::Text, type});
    }
    return true;
  }
  // Tables have columns of their own.
  const std::vector<std::string>* Columns() const override {
    return tables_.size() == 1 ? &columns_ : nullptr;
  }
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

  struct Table {
    std::string name;
    bool isExported = false;  // by this program, which notes what its rows were
    std::string type;         // the text of their record type; empty for plain values
  };

  // The one that is named, the only one, or all those of a file that an export has made.
  void ChooseTables(const std::string* wanted, bool withTypes) {
    const SqliteStatement list = Prepare(
        "SELECT name, sql FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%' ORDER BY "
        "name");
    std::string names;
    bool areExported = withTypes;
    int result = 0;
    while ((result = sqlite3_step(list.get())) == SQLITE_ROW) {
      Table table;
      table.name = TextAt(list.get(), 0);
      table.isExported = withTypes && ReadNote(TextAt(list.get(), 1), &table.type);
      names += (tables_.empty() ? "" : ", ") + Inspect::Printable(table.name);
      areExported = areExported && table.isExported;
      tables_.push_back(std::move(table));
    }
    if (result != SQLITE_DONE) Fail();
    if (wanted != nullptr) {
      const auto named = std::find_if(tables_.begin(), tables_.end(),
                                      [wanted](const Table& table) { return table.name == *wanted; });
      // What is no table may be a view.
      tables_ = {named == tables_.end() ? Table{*wanted, false, ""} : Table(*named)};
    } else if (tables_.empty()) {
      throw InputError(name_ + " has no table");
    } else if (tables_.size() > 1 && !areExported) {
      throw UsageError("--table is needed, for " + name_ + " has several: " + names);
    }
  }

  static std::string TextAt(sqlite3_stmt* row, int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(row, column));
    return text == nullptr ? "" : text;
  }

  static bool ReadNote(const std::string& sql, std::string* type) {
    const size_t note = sql.find(kSqlTypeNote);
    const size_t start = note == std::string::npos ? note : note + sizeof(kSqlTypeNote) - 1;
    const size_t end = start == std::string::npos ? start : sql.find('\n', start);
    if (end == std::string::npos) return false;
    *type = sql.substr(start, end - start);
    return true;
  }

  // Begins with the rows of the present table. What an export has noted of it becomes a column, unless it
  // has one of that name.
  void Begin() {
    const Table& table = tables_[table_];
    statement_ = Prepare("SELECT * FROM " + SqlName(table.name));
    columns_.clear();
    for (int i = 0; i < sqlite3_column_count(statement_.get()); ++i) {
      columns_.emplace_back(sqlite3_column_name(statement_.get(), i));
    }
    const bool hasType = std::find(columns_.begin(), columns_.end(), "type") != columns_.end();
    if (table.isExported && !hasType) columns_.emplace_back("type");
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
  std::vector<Table> tables_;
  size_t table_ = 0;  // the present one
  SqliteStatement statement_;
  std::vector<std::string> columns_;
  std::deque<std::string> texts_;  // of real numbers
  uint64_t number_ = 0;
  uint64_t size_ = 0;
};

}  // namespace

std::unique_ptr<RowSource> OpenSqliteRows(const std::string& path, const std::string* table, bool withTypes) {
  return std::make_unique<SqliteRows>(path, table, withTypes);
}

}  // namespace Kestrun::Tools
