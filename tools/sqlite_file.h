// tools/sqlite_file.h: a SQLite database, through its library.
//
// Ownership: both objects own what they opened.
#pragma once

#include <sqlite3.h>

#include <memory>
#include <string>
#include <string_view>

namespace Kestrun::Tools {

struct SqliteClose {
  void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using SqliteDatabase = std::unique_ptr<sqlite3, SqliteClose>;
using SqliteStatement = std::unique_ptr<sqlite3_stmt, SqliteClose>;

// A name as SQL writes it.
inline std::string SqlName(std::string_view name) {
  std::string text = "\"";
  for (const char letter : name) text += letter == '"' ? std::string("\"\"") : std::string(1, letter);
  return text + "\"";
}

// Begins the comment in the statement that made a table of an export, up to the end of its line: the text of
// the record type of its rows, or nothing where they are plain values.
inline constexpr char kSqlTypeNote[] = "-- record type: ";

}  // namespace Kestrun::Tools
