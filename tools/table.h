// tools/table.h: lines of text in columns, for people.
#pragma once

#include <string>
#include <vector>

namespace Kestrun::Tools {

enum class Align { Left, Right };

class Table {
 public:
  explicit Table(std::vector<Align> columns) : columns_(std::move(columns)) {}
  // As many cells as there are columns.
  void Add(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
  // To standard output, two blanks between columns.
  void Write() const;

 private:
  std::vector<Align> columns_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace Kestrun::Tools
