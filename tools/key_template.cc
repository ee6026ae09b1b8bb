#include "tools/key_template.h"

#include <algorithm>

#include "inspect/escape.h"
#include "tools/failure.h"
#include "tools/options.h"

namespace Kestrun::Tools {

KeyTemplate::KeyTemplate(const std::string& pattern) {
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
      if (!text.empty()) pieces_.push_back({false, text});
      text.clear();
      pieces_.push_back({true, pattern.substr(i + 1, end - i - 1)});
      i = end;
    } else if (letter == '}') {
      refuse("has a '}' that nothing opens");
    } else {
      text += letter;
    }
  }
  if (!text.empty()) pieces_.push_back({false, text});
  if (pieces_.empty()) refuse("is empty");
}

void KeyTemplate::RequireColumns(const std::vector<std::string>& columns) const {
  std::string list;
  for (const std::string& column : columns) list += (list.empty() ? "" : ", ") + Inspect::Printable(column);
  for (const Piece& piece : pieces_) {
    if (!piece.isColumn) continue;
    const auto count = std::count(columns.begin(), columns.end(), piece.text);
    if (count == 1) continue;
    throw UsageError((count == 0 ? "there is no column \"" : "there is more than one column \"") +
                     Inspect::Printable(piece.text) + "\" for the key; the columns are: " + list);
  }
}

bool KeyTemplate::Make(const Row& row, std::string* key, std::string* why) const {
  key->clear();
  for (const Piece& piece : pieces_) {
    if (!piece.isColumn) {
      *key += piece.text;
      continue;
    }
    const Cell* cell = row.Find(piece.text);
    if (cell == nullptr || cell->kind == Cell::Kind::Other) {
      *why = "has no \"" + Inspect::Printable(piece.text) + "\" for the key";
      return false;
    }
    *key += cell->text;
  }
  if (key->empty() || key->size() > kMaxKey) {
    *why = "gives a key of " + std::to_string(key->size()) + " bytes; a key has 1 to 65535";
    return false;
  }
  return true;
}

}  // namespace Kestrun::Tools
