// A status and what was printed along with it.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "tests/support/captured_stdout.h"

namespace Kestrun::Testing {

struct Answer {
  uint32_t status;
  std::string printed;
  bool operator==(const Answer& other) const { return status == other.status && printed == other.printed; }
};

inline std::ostream& operator<<(std::ostream& out, const Answer& answer) {
  return out << "status " << answer.status << " \"" << answer.printed << "\"";
}

// What `call` returns and prints. The test framework's own lines would be caught too: `call` checks nothing.
template <typename Call>
Answer AnswerOf(Call call) {
  CapturedStdout output;
  const uint32_t status = call();
  return {status, output.Take()};
}

}  // namespace Kestrun::Testing
