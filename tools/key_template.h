// tools/key_template.h: makes the key of a row from a pattern such as "seattle-{date}".
#pragma once

#include <string>
#include <vector>

#include "tools/rows.h"

namespace Kestrun::Tools {

class KeyTemplate {
 public:
  // Text with column names in braces; "{{" and "}}" stand for braces. With `hex` the key is of hexadecimal
  // digits. Throws UsageError when a brace is left over.
  KeyTemplate(const std::string& pattern, bool hex);

  // Finds the columns of the pattern. Returns what is wrong: one that is missing or occurs
  // twice; empty when nothing is.
  std::string Bind(const std::vector<std::string>& columns);
  // Sets `*key`; false when the row, whose columns are those of Bind, gives none, with the reason in `*why`.
  bool Make(const Row& row, std::string* key, std::string* why) const;

 private:
  struct Piece {
    bool isColumn;
    std::string text;
    size_t column;
  };
  bool hex_;
  std::vector<Piece> pieces_;
};

}  // namespace Kestrun::Tools
