#include <map>

#include "inspect/escape.h"
#include "kestrun/data_entry.h"
#include "tools/failure.h"
#include "tools/row_writer.h"
#include "tools/sqlite_file.h"

namespace Kestrun::Tools {
namespace {

const char* ColumnType(ValueType type) {
  switch (type) {
    case ValueType::Int32:
    case ValueType::Int64:
      return "INTEGER";
    case ValueType::Float:
    case ValueType::Double:
      return "REAL";
    case ValueType::String:
      return "TEXT";
    default:
      return "BLOB";
  }
}

class SqliteWriter final : public RowWriter {
 public:
  SqliteWriter(const RowWriterOptions& options, const std::string& path) : options_(options), path_(path) {
    sqlite3* database = nullptr;
    const int result =
        sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    database_.reset(database);
    if (result != SQLITE_OK) Fail();
    // The file counts only when it is complete.
    Execute("PRAGMA journal_mode = OFF");
    Execute("PRAGMA synchronous = OFF");
    Execute("BEGIN");
    // A type without rows has a table, too, and so has an empty store.
    if (options.type != nullptr || !options.namesTypes) TableOf(options.type);
  }

  void Add(const ExportedEntry& entry) override {
    sqlite3_stmt* insert = TableOf(entry.type);
    int place = 1;
    BindBytes(insert, place++, entry.key);
    if (entry.type == nullptr) {
      BindBytes(insert, place++, entry.value);
    } else {
      for (const FieldView& field : *entry.fields) BindField(insert, place++, field);
    }
    if (options_.withEntry) {
      sqlite3_bind_int64(insert, place++, static_cast<sqlite3_int64>(entry.written));
      if (entry.ttl == kTtlForever) {
        sqlite3_bind_text(insert, place++, "forever", -1, SQLITE_STATIC);
      } else {
        sqlite3_bind_int64(insert, place++, entry.ttl);
      }
    }
    if (sqlite3_step(insert) != SQLITE_DONE) Fail();
    sqlite3_reset(insert);
  }

  void Finish() override {
    inserts_.clear();
    Execute("COMMIT");
    database_.reset();
  }

 private:
  [[noreturn]] void Fail() {
    const std::string why =
        database_ == nullptr ? "memory could not be allocated" : sqlite3_errmsg(database_.get());
    throw SystemFailure("the SQLite file can't be written: " + why, SystemReason(path_));
  }

  void Execute(const std::string& sql) {
    if (sqlite3_exec(database_.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) Fail();
  }

  std::string NameOf(const RecordMeta* type) const {
    std::string name = options_.table;
    if (name.empty()) name = type == nullptr ? "entries" : Inspect::Printable(type->name);
    // Two types of one name have tables of their own.
    std::string unique = name;
    for (int i = 2; names_.count(unique) != 0; ++i) unique = name + "_" + std::to_string(i);
    return unique;
  }

  // What the rows of the table are, as a comment, which the file keeps. A type that is
  // no UTF-8 can't be noted.
  static std::string NoteOf(const RecordMeta* type) {
    const std::string text = type == nullptr ? std::string() : type->text;
    if (!Inspect::IsUtf8(text) || text.find_first_of(std::string("\n\0", 2)) != std::string::npos) return "";
    return kSqlTypeNote + text + "\n";
  }

  // The statement that fills the table of a type, which is made at its first use.
  sqlite3_stmt* TableOf(const RecordMeta* type) {
    SqliteStatement& insert = inserts_[type];
    if (insert != nullptr) return insert.get();
    const std::string name = NameOf(type);
    names_[name] = type;
    std::string columns = SqlName(options_.keyColumn) + " PRIMARY KEY";
    int count = 2;
    if (type == nullptr) {
      columns += ", value";
    } else {
      for (const Field* field : type->fields)
        columns += ", " + SqlName(field->name) + " " + ColumnType(field->type);
      count = 1 + static_cast<int>(type->fields.size());
    }
    if (options_.withEntry) columns += ", written INTEGER, ttl";
    if (options_.withEntry) count += 2;
    Execute("CREATE TABLE " + SqlName(name) + " (" + NoteOf(type) + columns + ")");
    std::string sql = "INSERT INTO " + SqlName(name) + " VALUES (?";
    for (int i = 1; i < count; ++i) sql += ",?";
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(database_.get(), (sql + ")").c_str(), -1, &statement, nullptr) != SQLITE_OK)
      Fail();
    insert.reset(statement);
    return statement;
  }

  // Text where the bytes are UTF-8, as for JSON, else a BLOB.
  void BindBytes(sqlite3_stmt* insert, int place, std::string_view bytes) {
    const std::string hex = options_.hex ? Inspect::Hex(bytes) : std::string();
    const std::string_view shown = options_.hex ? std::string_view(hex) : bytes;
    // What may be a number would become one in a column that has a type; these have none.
    const bool isText = Inspect::IsUtf8(shown) && shown.find('\0') == std::string_view::npos;
    const char* data = shown.empty() ? "" : shown.data();
    if (isText) {
      sqlite3_bind_text64(insert, place, data, shown.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    } else {
      sqlite3_bind_blob64(insert, place, data, shown.size(), SQLITE_TRANSIENT);
    }
  }

  void BindReal(sqlite3_stmt* insert, int place, double number) {
    // SQLite takes not-a-number for NULL.
    if (number != number) {
      sqlite3_bind_text(insert, place, "nan", -1, SQLITE_STATIC);
    } else {
      sqlite3_bind_double(insert, place, number);
    }
  }

  void BindField(sqlite3_stmt* insert, int place, const FieldView& field) {
    const char* data = field.bytes.empty() ? "" : field.bytes.data();
    switch (field.type) {
      case ValueType::Int32:
      case ValueType::Int64:
        sqlite3_bind_int64(insert, place, field.integer);
        break;
      case ValueType::Float: {
        // The digits that tell the number, not the many more of its double.
        std::string digits;
        AppendFieldText(field, &digits);
        BindReal(insert, place, std::stod(digits));
        break;
      }
      case ValueType::Double:
        BindReal(insert, place, field.real);
        break;
      case ValueType::String:
        if (Inspect::IsUtf8(field.bytes) && field.bytes.find('\0') == std::string_view::npos) {
          sqlite3_bind_text64(insert, place, data, field.bytes.size(), SQLITE_STATIC, SQLITE_UTF8);
        } else {
          sqlite3_bind_blob64(insert, place, data, field.bytes.size(), SQLITE_STATIC);
        }
        break;
      case ValueType::Binary:
        sqlite3_bind_blob64(insert, place, data, field.bytes.size(), SQLITE_STATIC);
        break;
      case ValueType::None:
        sqlite3_bind_null(insert, place);
        break;
    }
  }

  RowWriterOptions options_;
  std::string path_;
  SqliteDatabase database_;
  std::map<const RecordMeta*, SqliteStatement> inserts_;
  std::map<std::string, const RecordMeta*> names_;
};

}  // namespace

std::unique_ptr<RowWriter> MakeSqliteWriter(const RowWriterOptions& options, const std::string& path) {
  return std::make_unique<SqliteWriter>(options, path);
}

}  // namespace Kestrun::Tools
