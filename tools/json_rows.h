// tools/json_rows.h: reads JSON Lines: one object a line, whose members are the cells. Empty lines are no
// rows; a byte order mark at the beginning is passed over.
#pragma once

#include <string>

#include "tools/rows.h"

namespace Kestrun::Tools {

class JsonRowReader final : public RowReader {
 public:
  explicit JsonRowReader(InputFile* file) : file_(file) { Restart(); }

  bool Next(Row* row) override;
  void Restart() override;
  const std::vector<std::string>* Columns() const override { return nullptr; }

 private:
  InputFile* file_;
  uint64_t line_ = 0;
};

}  // namespace Kestrun::Tools
