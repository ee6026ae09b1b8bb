// tools/failure.h: the ways in which a command ends without doing its work. main turns them
// into messages and exit statuses.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace Kestrun::Tools {

enum ExitStatus : int {
  kExitDone = 0,
  kExitNotFound = 1,  // or damage found, or not everything recovered
  kExitUsage = 2,
  kExitRefused = 3,
  kExitInput = 4,
  kExitInterrupted = 130,
};

// What main tells, as text or as JSON.
struct ErrorReport {
  int exit = kExitRefused;
  std::string status;  // the name of a status; empty when there is none
  std::string message;
  std::string advice;
};

// Every failure of a command. What it says is a whole sentence without its full stop.
class Failure : public std::runtime_error {
 public:
  Failure(int exit, const std::string& message, std::string advice)
      : std::runtime_error(message), exit_(exit), advice_(std::move(advice)) {}

  virtual ErrorReport Report() const { return {exit_, "", what(), advice_}; }

 private:
  int exit_;
  std::string advice_;
};

// The command line asks for something that can't be; the text says what would be right.
class UsageError : public Failure {
 public:
  explicit UsageError(const std::string& message) : Failure(kExitUsage, message, "") {}
};

// The command line is right, but what it names as input can't be read or stored.
class InputError : public Failure {
 public:
  explicit InputError(const std::string& message, const std::string& advice = std::string())
      : Failure(kExitInput, message, advice) {}
};

// A key is not there. Exit status 1.
class NotFound : public Failure {
 public:
  explicit NotFound(const std::string& message) : Failure(kExitNotFound, message, "") {}
};

// The store is missing, damaged or refused. The text says what was tried, the status why it failed, and what
// the library has said meanwhile, or the system, stands behind it.
class StoreFailure : public Failure {
 public:
  // With an empty `advice` the one for the status is given. `path` is where the system is asked for a reason.
  StoreFailure(uint32_t status, const std::string& text, const std::string& path = std::string(),
               std::string advice = std::string());

  uint32_t Status() const { return status_; }
  ErrorReport Report() const override { return report_; }

 private:
  uint32_t status_;
  ErrorReport report_;
};

// Something outside the store failed: an output file, memory. Exit status 3.
class SystemFailure : public Failure {
 public:
  explicit SystemFailure(const std::string& message, const std::string& advice = std::string())
      : Failure(kExitRefused, message, advice) {}
};

// Not all of what was to be read can be read. Exit status 3. The text says what is damaged; the
// advice is the way on.
class DamageFound : public Failure {
 public:
  DamageFound(const std::string& store, const std::string& message);
};

// The answer to a question was no. Exit status 3. The text says what stays as it was.
class Declined : public Failure {
 public:
  explicit Declined(const std::string& message) : Failure(kExitRefused, message, "") {}
};

// Ctrl-C or a request to end. The text says what stays.
class Interrupted : public Failure {
 public:
  explicit Interrupted(const std::string& message) : Failure(kExitInterrupted, message, "") {}
};

// What the system says about `path` when a change there has failed: a file system that is full or read-only,
// a missing permission. Empty when it has nothing to say.
std::string SystemReason(const std::string& path);

}  // namespace Kestrun::Tools
