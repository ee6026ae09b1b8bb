#include "tools/table.h"

#include <algorithm>

#include "tools/bytes_text.h"
#include "tools/streams.h"

namespace Kestrun::Tools {

void Table::Write() const {
  std::vector<size_t> widths(columns_.size());
  for (const auto& row : rows_) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], TextWidth(row[i]));
  }
  for (const auto& row : rows_) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      const std::string fill(widths[i] - TextWidth(row[i]), ' ');
      if (i != 0) line += "  ";
      line += columns_[i] == Align::Right ? fill + row[i] : row[i] + fill;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    WriteLine(line);
  }
}

}  // namespace Kestrun::Tools
