#include "tools/json_rows.h"

#include <optional>

#include "inspect/escape.h"
#include "tools/json_bytes.h"

namespace Kestrun::Tools {
namespace {

constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";

// Collects the members of one flat object. Numbers keep the digits with which they stand in the line: going
// through a double would round them twice.
class MemberCollector : public nlohmann::json_sax<nlohmann::json> {
 public:
  explicit MemberCollector(Row* row) : row_(row) {}

  bool null() override { return Add({Cell::Kind::Other, "null"}); }
  bool boolean(bool value) override { return Add({Cell::Kind::Other, value ? "true" : "false"}); }
  bool number_integer(number_integer_t value) override {
    return Add({Cell::Kind::Integer, std::to_string(value)});
  }
  bool number_unsigned(number_unsigned_t value) override {
    return Add({Cell::Kind::Integer, std::to_string(value)});
  }
  bool number_float(number_float_t /*value*/, const string_t& text) override {
    return Add({Cell::Kind::Real, text});
  }
  bool string(string_t& text) override { return Add({Cell::Kind::String, text}); }
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
    if (depth_ == 0) return Refuse("the line is an array and not an object");
    if (++depth_ == 2) StartInner();
    return true;
  }
  bool end_array() override {
    if (--depth_ == 1) EndInner();
    return true;
  }
  bool key(string_t& name) override {
    if (depth_ == 1) {
      if (row_->Find(name) != nullptr) {
        return Refuse("the member \"" + Inspect::Printable(name) + "\" stands there twice");
      }
      name_ = name;
    } else if (depth_ == 2) {
      innerIsHex_ = innerMembers_++ == 0 && name == "hex";
    }
    return true;
  }
  bool parse_error(size_t position, const std::string& /*token*/,
                   const nlohmann::detail::exception& /*error*/) override {
    return Refuse("not valid JSON at byte " + std::to_string(position) + " of the line");
  }

 private:
  bool Refuse(const std::string& problem) {
    if (row_->problem.empty()) row_->problem = problem;
    return false;
  }

  bool Add(Cell cell) {
    if (depth_ == 0) return Refuse("the line is not an object");
    if (depth_ == 1) {
      row_->cells.emplace_back(name_, std::move(cell));
    } else if (depth_ == 2 && cell.kind == Cell::Kind::String) {
      inner_ = std::move(cell.text);
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
    const auto bytes = innerIsHex_ && innerMembers_ == 1 && inner_ ? BytesOfHex(*inner_) : std::nullopt;
    row_->cells.emplace_back(name_,
                             bytes ? Cell{Cell::Kind::Bytes, *bytes} : Cell{Cell::Kind::Other, "{...}"});
  }

  Row* row_;
  int depth_ = 0;
  std::string name_;
  bool innerIsHex_ = false;
  int innerMembers_ = 0;
  std::optional<std::string> inner_;
};

}  // namespace

void JsonRowReader::Restart() {
  file_->Seek(0);
  line_ = 0;
}

bool JsonRowReader::Next(Row* row) {
  std::string line;
  while (file_->ReadLine(&line)) {
    ++line_;
    if (line_ == 1 && line.compare(0, 3, kByteOrderMark) == 0) line.erase(0, 3);
    if (!line.empty() && line.back() == '\n') line.pop_back();
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) continue;

    *row = Row();
    row->line = line_;
    row->raw = std::move(line);
    MemberCollector collector(row);
    if (!nlohmann::json::sax_parse(row->raw, &collector) && row->problem.empty()) {
      row->problem = "not valid JSON";
    }
    return true;
  }
  return false;
}

}  // namespace Kestrun::Tools
