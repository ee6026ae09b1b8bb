// JSON Lines, an object on each line, and a JSON array of objects. The only file that knows the JSON parser.
#include <algorithm>
#include <deque>
#include <nlohmann/json.hpp>
#include <optional>

#include "inspect/escape.h"
#include "tools/bytes_text.h"
#include "tools/failure.h"
#include "tools/interrupt.h"
#include "tools/rows.h"
#include "tools/text_buffer.h"

namespace Kestrun::Tools {
namespace {

// Collects the members of one flat object. Numbers keep the digits with which they stand in the line: going
// through a double would round them twice.
class MemberCollector : public nlohmann::json_sax<nlohmann::json> {
 public:
  MemberCollector(Row* row, std::vector<std::string>* names, std::deque<std::string>* texts)
      : row_(row), names_(names), texts_(texts) {}

  bool null() override { return Add(Cell::Kind::Null, "null"); }
  bool boolean(bool value) override { return Add(Cell::Kind::Other, value ? "true" : "false"); }
  bool number_integer(number_integer_t value) override {
    return Add(Cell::Kind::Integer, std::to_string(value));
  }
  bool number_unsigned(number_unsigned_t value) override {
    return Add(Cell::Kind::Integer, std::to_string(value));
  }
  bool number_float(number_float_t /*value*/, const string_t& text) override {
    return Add(Cell::Kind::Real, text);
  }
  bool string(string_t& text) override { return Add(Cell::Kind::String, std::move(text)); }
  bool binary(binary_t& /*bytes*/) override { return false; }

  bool start_object(size_t /*size*/) override {
    if (++depth_ == 2) StartInner();
    return true;
  }
  bool end_object() override {
    if (--depth_ == 1) EndInner();
    return true;
  }
  bool start_array(size_t /*size*/) override {
    if (depth_ == 0) return Refuse("it is an array and not an object");
    if (++depth_ == 2) StartInner();
    return true;
  }
  bool end_array() override {
    if (--depth_ == 1) EndInner();
    return true;
  }
  bool key(string_t& name) override {
    if (depth_ == 1) {
      if (std::find(names_->begin(), names_->end(), name) != names_->end()) {
        return Refuse("the member \"" + Inspect::Printable(name) + "\" stands there twice");
      }
      names_->push_back(name);
    } else if (depth_ == 2) {
      innerIsHex_ = innerMembers_++ == 0 && name == "hex";
    }
    return true;
  }
  bool parse_error(size_t position, const std::string& /*token*/,
                   const nlohmann::detail::exception& /*error*/) override {
    return Refuse("not valid JSON at byte " + std::to_string(position));
  }

 private:
  bool Refuse(const std::string& problem) {
    if (row_->problem.empty()) row_->problem = problem;
    return false;
  }

  bool Add(Cell::Kind kind, std::string text) {
    if (depth_ == 0) return Refuse("it is not an object");
    if (depth_ == 1) {
      row_->cells.push_back({kind, texts_->emplace_back(std::move(text))});
    } else if (depth_ == 2 && kind == Cell::Kind::String) {
      inner_ = std::move(text);
    }
    return true;
  }

  void StartInner() {
    innerIsHex_ = false;
    innerMembers_ = 0;
    inner_.reset();
  }

  // {"hex": "..."} are bytes; everything else within a row has no use.
  void EndInner() {
    auto bytes = innerIsHex_ && innerMembers_ == 1 && inner_ ? BytesOfHex(*inner_) : std::nullopt;
    const Cell::Kind kind = bytes ? Cell::Kind::Bytes : Cell::Kind::Other;
    row_->cells.push_back({kind, texts_->emplace_back(bytes ? *std::move(bytes) : "{...}")});
  }

  Row* row_;
  std::vector<std::string>* names_;
  std::deque<std::string>* texts_;
  int depth_ = 0;
  bool innerIsHex_ = false;
  int innerMembers_ = 0;
  std::optional<std::string> inner_;
};

class JsonRows : public RowSource {
 public:
  explicit JsonRows(const std::string& path) : text_(path) {}

  bool Next(Row* row) override {
    row->problem.clear();
    row->cells.clear();
    texts_.clear();
    names_.clear();
    text_.Consume(taken_);
    taken_ = 0;
    if (!FindRow(row)) return false;
    if (row->problem.empty()) {
      MemberCollector collector(row, &names_, &texts_);
      const bool valid = nlohmann::json::sax_parse(row->raw.begin(), row->raw.end(), &collector);
      if (!valid && row->problem.empty()) row->problem = "not valid JSON";
    }
    if (names_ != shownNames_) {
      shownNames_ = names_;
      ++shape_;
    }
    row->names = &shownNames_;
    row->shape = shape_;
    return true;
  }
  const std::vector<std::string>* Columns() const override { return nullptr; }
  uint64_t Position() const override { return text_.Position(); }
  uint64_t Size() const override { return text_.File().Size(); }
  const std::string& Name() const override { return text_.File().Name(); }

 protected:
  // Finds the text of the next row, of which taken_ bytes go with it; false at the end.
  virtual bool FindRow(Row* row) = 0;

  TextBuffer text_;
  size_t taken_ = 0;

 private:
  std::deque<std::string> texts_;
  std::vector<std::string> names_;
  std::vector<std::string> shownNames_;
  uint64_t shape_ = 0;
};

class JsonLineRows final : public JsonRows {
 public:
  using JsonRows::JsonRows;

 private:
  bool FindRow(Row* row) override {
    for (size_t size = 0, whole = 0; text_.FindLine(0, &size, &whole); text_.Consume(whole)) {
      ++line_;
      row->line = line_;
      if (size == 0) continue;
      row->raw = text_.View().substr(0, size);
      taken_ = whole;
      if (whole == size && !text_.AtEnd()) row->problem = "the line is longer than 256 MiB";
      return true;
    }
    return false;
  }

  uint64_t line_ = 0;
};

// The objects of an array are found by their brackets, so that one at a time is looked at.
class JsonArrayRows final : public JsonRows {
 public:
  explicit JsonArrayRows(const std::string& path) : JsonRows(path) {
    if (!SkipBlanks() || text_.View()[0] != '[') throw InputError(Name() + " is no JSON array");
    text_.Consume(1);
  }

 private:
  bool FindRow(Row* row) override {
    if (ended_) return false;
    row->line = ++number_;
    if (!SkipBlanks()) return Truncated(row);
    if (text_.View()[0] == ']') {
      text_.Consume(1);
      ended_ = true;
      if (!SkipBlanks()) return false;
      return Refuse(row, "something follows the end of the array");
    }
    if (number_ != 1) {
      if (text_.View()[0] != ',') return Refuse(row, "a comma is missing before it");
      text_.Consume(1);
      if (!SkipBlanks()) return Truncated(row);
    }
    size_t size = 0;
    if (!FindEnd(&size)) return Truncated(row);
    row->raw = text_.View().substr(0, size);
    taken_ = size;
    return true;
  }

  bool Truncated(Row* row) {
    if (WasInterrupted()) return false;
    return Refuse(row, "the array has no end");
  }

  bool Refuse(Row* row, const char* problem) {
    row->problem = problem;
    row->raw = std::string_view();
    ended_ = true;
    return true;
  }

  // False at the end of the file.
  bool SkipBlanks() {
    for (;;) {
      const std::string_view view = text_.View();
      const size_t first = view.find_first_not_of(" \t\r\n");
      text_.Consume(std::min(first, view.size()));
      if (first != std::string_view::npos) return true;
      if (!text_.More()) return false;
    }
  }

  // The end of the value that the buffer begins with.
  bool FindEnd(size_t* size) {
    int depth = 0;
    bool inString = false;
    for (size_t i = 0;; ++i) {
      while (i >= text_.View().size()) {
        if (!text_.More()) return false;
      }
      const char letter = text_.View()[i];
      if (inString) {
        if (letter == '\\') {
          ++i;
        } else if (letter == '"') {
          inString = false;
        }
        continue;
      }
      if (letter == '"') inString = true;
      if (depth == 0 && (letter == ',' || letter == ']')) {
        *size = i;
        return true;
      }
      if (letter == '{' || letter == '[') ++depth;
      if ((letter == '}' || letter == ']') && --depth == 0) {
        *size = i + 1;
        return true;
      }
    }
  }

  uint64_t number_ = 0;
  bool ended_ = false;
};

}  // namespace

std::unique_ptr<RowSource> OpenJsonRows(const std::string& path, RowFormat format) {
  if (format == RowFormat::Json) return std::make_unique<JsonArrayRows>(path);
  return std::make_unique<JsonLineRows>(path);
}

}  // namespace Kestrun::Tools
