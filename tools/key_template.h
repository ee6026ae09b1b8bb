// tools/key_template.h: makes the key of a row from a pattern such as "seattle-{date}".
#pragma once

#include <string>
#include <vector>

#include "tools/rows.h"

namespace Kestrun::Tools {

class KeyTemplate {
 public:
  // Text with column names in braces; "{{" and "}}" stand for braces. Throws UsageError when a brace is left
  // over.
  explicit KeyTemplate(const std::string& pattern);

  // Throws UsageError, naming the columns there are, when the pattern uses another one or one that occurs
  // twice.
  void RequireColumns(const std::vector<std::string>& columns) const;
  // Sets `*key`; false when the row lacks a column or the key is empty or too long, with the reason in
  // `*why`.
  bool Make(const Row& row, std::string* key, std::string* why) const;

 private:
  struct Piece {
    bool isColumn;
    std::string text;
  };
  std::vector<Piece> pieces_;
};

}  // namespace Kestrun::Tools
