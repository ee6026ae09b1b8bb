// tools/failure.h: the ways in which a command ends without doing its work. main turns them into messages
// and exit statuses.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace Kestrun::Tools {

enum ExitStatus : int {
  kExitDone = 0,
  kExitNotFound = 1,  // or damage found
  kExitUsage = 2,
  kExitRefused = 3,
};

// The command line asks for something that can't be; the text says what would be right.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The command line is right, but a file that it names is not, or holds what can't be stored. Exit status as
// for wrong usage, without a word on how the command is called.
class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The store is missing or refused. The text says what was tried, the status why it failed.
class StoreFailure : public std::runtime_error {
 public:
  // With an empty `advice` the one for the status is given.
  StoreFailure(uint32_t status, const std::string& text, std::string advice = std::string())
      : std::runtime_error(text), status_(status), advice_(std::move(advice)) {}

  // The text, the status's number, name and meaning, and what to do.
  std::string Message() const;

 private:
  uint32_t status_;
  std::string advice_;
};

// Something outside the store failed: standard output, memory.
class SystemFailure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace Kestrun::Tools
