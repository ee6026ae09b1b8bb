// CSV as RFC 4180 describes it: a header, then rows; quoted fields may hold delimiters, quotes and line ends;
// lines end with LF or CRLF; a byte order mark at the beginning is passed over. Blanks belong to their field.
// Empty lines are no rows. TSV has no quotes: a tab, a line break and a backslash are written \t, \n and \\.
#include <deque>

#include "tools/failure.h"
#include "tools/rows.h"
#include "tools/text_buffer.h"

namespace Kestrun::Tools {
namespace {

class TableRows : public RowSource {
 public:
  explicit TableRows(const std::string& path) : text_(path) {}

  bool Next(Row* row) override {
    row->problem.clear();
    row->names = &columns_;
    row->shape = 1;
    if (!ReadRecord(row)) return false;
    if (row->problem.empty() && row->cells.size() != columns_.size()) {
      row->problem = "the row has " + std::to_string(row->cells.size()) + " fields where the header has " +
                     std::to_string(columns_.size());
    }
    return true;
  }
  const std::vector<std::string>* Columns() const override { return &columns_; }
  uint64_t Position() const override { return text_.Position(); }
  uint64_t Size() const override { return text_.File().Size(); }
  const std::string& Name() const override { return text_.File().Name(); }

 protected:
  void ReadHeader() {
    Row header;
    if (!ReadRecord(&header)) {
      throw InputError(Name() + " is empty; it begins with a line of column names");
    }
    if (!header.problem.empty()) throw InputError(Name() + ": the header: " + header.problem);
    for (const Cell& cell : header.cells) columns_.emplace_back(cell.text);
  }

  // Reads the fields of the next record that is not an empty line; false at the end.
  virtual bool ReadRecord(Row* row) = 0;

  // Passes over empty lines and what the last record took.
  bool SkipToRecord() {
    text_.Consume(taken_);
    line_ += takenLines_;
    taken_ = takenLines_ = 0;
    for (;;) {
      const std::string_view view = text_.View();
      if (view.size() < 2 && text_.More()) continue;
      if (text_.View().empty()) return false;
      const std::string_view start = text_.View();
      const size_t empty = start[0] == '\n' ? 1 : start.substr(0, 2) == "\r\n" ? 2 : 0;
      if (empty == 0) return true;
      text_.Consume(empty);
      ++line_;
    }
  }

  TextBuffer text_;
  std::vector<std::string> columns_;
  uint64_t line_ = 1;  // that the next record begins on
  size_t taken_ = 0;   // bytes of the current record
  uint64_t takenLines_ = 0;
};

class CsvRows final : public TableRows {
 public:
  CsvRows(const std::string& path, char delimiter) : TableRows(path), delimiter_(delimiter) { ReadHeader(); }

 private:
  enum class Parsed { Record, Incomplete, Problem };

  // A record that can't be right ends with its first line, so that a quote that is never closed takes no more
  // than that line with it.
  bool ReadRecord(Row* row) override {
    if (!SkipToRecord()) return false;
    row->line = line_;
    for (;;) {
      const Parsed parsed = Parse(row);
      if (parsed == Parsed::Record) return true;
      if (parsed == Parsed::Incomplete) {
        // That the file ends here is news, too.
        const bool ended = text_.AtEnd();
        if (text_.More() || text_.AtEnd() != ended) continue;

        row->problem =
            text_.AtEnd() ? "a quote is opened and never closed" : "the row is longer than 256 MiB";
      }
      size_t size = 0;
      size_t whole = 0;
      text_.FindLine(0, &size, &whole);
      row->raw = text_.View().substr(0, size);
      taken_ = whole;
      takenLines_ = 1;
      return true;
    }
  }

  Parsed Fail(Row* row, const char* problem) {
    row->problem = problem;
    return Parsed::Problem;
  }

  // Takes the record at the beginning of the buffer apart.
  Parsed Parse(Row* row) {
    const std::string_view view = text_.View();
    const bool last = text_.AtEnd();
    row->cells.clear();
    unquoted_.clear();
    takenLines_ = 1;
    size_t at = 0;
    for (;;) {
      std::string_view field;
      if (at < view.size() && view[at] == '"') {
        const Parsed parsed = ParseQuoted(view, &at, &field, last, row);
        if (parsed != Parsed::Record) return parsed;
      } else {
        const size_t begin = at;
        while (at < view.size() && !IsSpecial(view[at])) ++at;
        field = view.substr(begin, at - begin);
        if (at < view.size() && view[at] == '"') {
          return Fail(row,
                      "a quote stands where none may be; a field with quotes is quoted and they are doubled");
        }
      }
      row->cells.push_back({Cell::Kind::Text, field});
      if (at == view.size()) {
        if (!last) return Parsed::Incomplete;
        return Finish(row, view, at, at);
      }
      if (view[at] == delimiter_) {
        ++at;
      } else if (view[at] == '\n') {
        return Finish(row, view, at, at + 1);
      } else if (at + 1 < view.size() && view[at + 1] == '\n') {
        return Finish(row, view, at, at + 2);
      } else if (at + 1 == view.size() && !last) {
        return Parsed::Incomplete;
      } else {
        return Fail(row, "a carriage return without a line feed stands outside of quotes");
      }
    }
  }

  bool IsSpecial(char letter) const {
    return letter == delimiter_ || letter == '\n' || letter == '\r' || letter == '"';
  }

  Parsed ParseQuoted(std::string_view view, size_t* at, std::string_view* field, bool last, Row* row) {
    const size_t begin = *at + 1;
    std::string* copy = nullptr;
    size_t piece = begin;
    for (size_t i = begin;;) {
      const size_t quote = view.find('"', i);
      if (quote == std::string_view::npos) return Parsed::Incomplete;
      if (quote + 1 == view.size() && !last) return Parsed::Incomplete;
      for (size_t lf = view.find('\n', i); lf < quote; lf = view.find('\n', lf + 1)) ++takenLines_;
      if (quote + 1 < view.size() && view[quote + 1] == '"') {
        if (copy == nullptr) copy = &unquoted_.emplace_back();
        copy->append(view.substr(piece, quote + 1 - piece));
        piece = i = quote + 2;
        continue;
      }
      if (copy != nullptr) copy->append(view.substr(piece, quote - piece));
      *field = copy != nullptr ? std::string_view(*copy) : view.substr(begin, quote - begin);
      *at = quote + 1;
      if (*at < view.size() && (!IsSpecial(view[*at]) || view[*at] == '"')) {
        return Fail(row,
                    "a quote stands where none may be; a field with quotes is quoted and they are doubled");
      }
      return Parsed::Record;
    }
  }

  Parsed Finish(Row* row, std::string_view view, size_t size, size_t whole) {
    row->raw = view.substr(0, size);
    taken_ = whole;
    return Parsed::Record;
  }

  char delimiter_;
  std::deque<std::string> unquoted_;  // the fields that quotes were taken out of
};

class TsvRows final : public TableRows {
 public:
  explicit TsvRows(const std::string& path) : TableRows(path) { ReadHeader(); }

 private:
  bool ReadRecord(Row* row) override {
    if (!SkipToRecord()) return false;
    row->line = line_;
    row->cells.clear();
    unescaped_.clear();
    size_t size = 0;
    if (!text_.FindLine(0, &size, &taken_)) return false;
    takenLines_ = 1;
    row->raw = text_.View().substr(0, size);
    for (size_t begin = 0;;) {
      const size_t end = std::min(row->raw.find('\t', begin), row->raw.size());
      row->cells.push_back({Cell::Kind::Text, Unescaped(row->raw.substr(begin, end - begin), &row->problem)});
      if (end == row->raw.size()) return true;
      begin = end + 1;
    }
  }

  std::string_view Unescaped(std::string_view field, std::string* problem) {
    if (field.find('\\') == std::string_view::npos) return field;
    std::string& text = unescaped_.emplace_back();
    for (size_t i = 0; i < field.size(); ++i) {
      if (field[i] != '\\') {
        text += field[i];
        continue;
      }
      const char letter = ++i < field.size() ? field[i] : ' ';
      if (letter == 't') {
        text += '\t';
      } else if (letter == 'n') {
        text += '\n';
      } else if (letter == 'r') {
        text += '\r';
      } else if (letter == '\\') {
        text += '\\';
      } else if (problem->empty()) {
        *problem = "a backslash stands before something else than t, n, r or a backslash";
      }
    }
    return text;
  }

  std::deque<std::string> unescaped_;
};

}  // namespace

std::unique_ptr<RowSource> OpenCsvRows(const std::string& path, char delimiter) {
  return std::make_unique<CsvRows>(path, delimiter);
}

std::unique_ptr<RowSource> OpenTsvRows(const std::string& path) {
  return std::make_unique<TsvRows>(path);
}

}  // namespace Kestrun::Tools
