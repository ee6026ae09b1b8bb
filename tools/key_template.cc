#include "tools/key_template.h"

#include <algorithm>

#include "inspect/escape.h"
#include "tools/bytes_text.h"
#include "tools/failure.h"

namespace Kestrun::Tools {

KeyTemplate::KeyTemplate(const std::string& pattern, bool hex) : hex_(hex) {
  const auto refuse = [&pattern](const char* why) {
    throw UsageError("the key pattern \"" + Inspect::Printable(pattern) + "\" " + why +
                     "; a pattern is written like 'seattle-{date}', with {{ and }} for braces");
  };
  std::string text;
  for (size_t i = 0; i < pattern.size(); ++i) {
    const char letter = pattern[i];
    const bool doubled = i + 1 < pattern.size() && pattern[i + 1] == letter;
    if ((letter == '{' || letter == '}') && doubled) {
      text += letter;
      ++i;
    } else if (letter == '{') {
      const size_t end = pattern.find('}', i);
      if (end == std::string::npos) refuse("has a '{' that is not closed");
      if (end == i + 1) refuse("has no column name between its braces");
      if (!text.empty()) pieces_.push_back({false, text, 0});
      text.clear();
      pieces_.push_back({true, pattern.substr(i + 1, end - i - 1), 0});
      i = end;
    } else if (letter == '}') {
      refuse("has a '}' that nothing opens");
    } else {
      text += letter;
    }
  }
  if (!text.empty()) pieces_.push_back({false, text, 0});
  if (pieces_.empty()) refuse("is empty");
}

std::string KeyTemplate::Bind(const std::vector<std::string>& columns) {
  for (Piece& piece : pieces_) {
    if (!piece.isColumn) continue;
    const auto found = std::find(columns.begin(), columns.end(), piece.text);
    const char* wrong = found == columns.end() ? "there is no column \""
                        : std::find(found + 1, columns.end(), piece.text) != columns.end()
                            ? "there is more than one column \""
                            : nullptr;
    if (wrong != nullptr) return wrong + Inspect::Printable(piece.text) + "\" for the key";
    piece.column = static_cast<size_t>(found - columns.begin());
  }
  return std::string();
}

bool KeyTemplate::Make(const Row& row, std::string* key, std::string* why) const {
  key->clear();
  bool isBytes = false;
  for (const Piece& piece : pieces_) {
    if (!piece.isColumn) {
      *key += piece.text;
      continue;
    }
    const Cell& cell = row.cells[piece.column];
    if (cell.kind == Cell::Kind::Other || cell.kind == Cell::Kind::Null) {
      *why = "has no \"" + Inspect::Printable(piece.text) + "\" for the key";
      return false;
    }
    isBytes = isBytes || cell.kind == Cell::Kind::Bytes;
    *key += cell.text;
  }
  if (hex_ && !isBytes) {
    const auto bytes = BytesOfHex(*key);
    if (!bytes) {
      *why = "gives the key \"" + Inspect::Printable(*key) +
             "\", which is no hexadecimal digits, as --hex asks for";
      return false;
    }
    *key = *bytes;
  }
  if (const std::string wrong = WhyNoKey(*key); !wrong.empty()) {
    *why = "gives a key that " + wrong;
    return false;
  }
  return true;
}

}  // namespace Kestrun::Tools
