// A status and what was printed along with it.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "tests/support/captured_stdout.h"

namespace Kestrun::Testing {

struct CallResult {
  uint32_t status;
  std::string printed;
  bool operator==(const CallResult& other) const {
    return status == other.status && printed == other.printed;
  }
};

inline std::ostream& operator<<(std::ostream& out, const CallResult& answer) {
  return out << "status " << answer.status << " \"" << answer.printed << "\"";
}

// What `call` returns and prints. The test framework's own lines would be caught too: `call` checks nothing.
template <typename Call>
CallResult AnswerOf(Call call) {
  CapturedStdout output;
  const uint32_t status = call();
  return {status, output.Take()};
}

}  // namespace Kestrun::Testing
