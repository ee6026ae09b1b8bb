// tools/options.h: the arguments and options that many commands share.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Kestrun::Tools {

inline constexpr uint32_t kMaxTtl = 4294967295;
inline constexpr uint32_t kMaxKey = 65535;

// What the command line says, as far as the shared arguments go. Every command has one; it lives until the
// command has run.
struct CommonOptions {
  std::string store;
  bool json = false;
  std::optional<std::string> walSizeText;
  std::optional<std::string> ttlText;
  std::optional<std::string> pageSizeText;

  // The following throw UsageError when the text is none of theirs.
  std::optional<uint32_t> WalSize() const;  // empty when it was not given
  uint32_t Ttl() const;
  uint64_t PageSize() const;  // the machine's when it was not given
};

// What is to be done once the command line is understood; the result is the exit status.
using Action = std::function<int()>;

// A command under the program: with STORE and --json, and with `action` called when the command line is its.
CLI::App* AddCommand(CLI::App* program, const std::string& name, const std::string& description,
                     CommonOptions* options, Action* chosen, Action action);
void AddWalSize(CLI::App* command, CommonOptions* options);
void AddTtl(CLI::App* command, CommonOptions* options);
void AddPageSize(CLI::App* command, CommonOptions* options);

// A whole number of bytes with an optional K, M or G; empty when the text is anything else or above `most`.
std::optional<uint64_t> ParseSize(const std::string& text, uint64_t most);
// A whole number in decimal digits; empty when the text is anything else or above `most`.
std::optional<uint64_t> ParseNumber(const std::string& text, uint64_t most);

}  // namespace Kestrun::Tools
