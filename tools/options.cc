#include "tools/options.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>

#include "tools/failure.h"

namespace Kestrun::Tools {
namespace {

constexpr uint64_t kMaxWal = 4294967295;
constexpr uint64_t kMinWal = 129;
constexpr uint64_t kMaxPage = uint64_t{1} << 30;

}  // namespace

std::optional<uint64_t> ParseNumber(const std::string& text, uint64_t most) {
  const bool digitsOnly =
      !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
  uint64_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (!digitsOnly || result.ec != std::errc() || number > most) return std::nullopt;
  return number;
}

std::optional<uint64_t> ParseSize(const std::string& text, uint64_t most) {
  if (text.empty()) return std::nullopt;
  unsigned shift = 0;
  switch (text.back()) {
    case 'K':
    case 'k':
      shift = 10;
      break;
    case 'M':
    case 'm':
      shift = 20;
      break;
    case 'G':
    case 'g':
      shift = 30;
      break;
    default:
      break;
  }
  const std::optional<uint64_t> number =
      ParseNumber(shift == 0 ? text : text.substr(0, text.size() - 1), most);
  if (!number || *number > most >> shift) return std::nullopt;
  return *number << shift;
}

std::optional<uint32_t> CommonOptions::WalSize() const {
  if (!walSizeText) return std::nullopt;
  const std::optional<uint64_t> size = ParseSize(*walSizeText, kMaxWal);
  if (!size || *size < kMinWal) {
    throw UsageError(
        "--wal-size takes a number of bytes from 129 to 4294967295, such as 65536, 64K or 4M, not \"" +
        *walSizeText + "\"");
  }
  return static_cast<uint32_t>(*size);
}

uint32_t CommonOptions::Ttl() const {
  if (!ttlText) return kMaxTtl;
  const std::optional<uint64_t> seconds = ParseNumber(*ttlText, kMaxTtl);
  if (!seconds) {
    throw UsageError("--ttl takes a number of seconds from 0 to 4294967295, not \"" + *ttlText + "\"");
  }
  return static_cast<uint32_t>(*seconds);
}

uint64_t CommonOptions::PageSize() const {
  if (!pageSizeText) {
    const long size = sysconf(_SC_PAGESIZE);
    return size > 0 ? static_cast<uint64_t>(size) : 4096;
  }
  const std::optional<uint64_t> size = ParseSize(*pageSizeText, kMaxPage);
  if (!size || *size < 512 || (*size & (*size - 1)) != 0) {
    throw UsageError("--page-size takes a power of two from 512 to 1G, such as 4096 or 16K, not \"" +
                     *pageSizeText + "\"");
  }
  return *size;
}

CLI::App* AddCommand(CLI::App* program, const std::string& name, const std::string& description,
                     CommonOptions* options, Action* chosen, Action action) {
  CLI::App* command = program->add_subcommand(name, description);
  command->add_option("STORE", options->store, "the directory of the store")->required();
  command->add_flag("--json", options->json, "write JSON");
  command->callback([chosen, action = std::move(action)] { *chosen = action; });
  return command;
}

void AddWalSize(CLI::App* command, CommonOptions* options) {
  command->add_option("--wal-size", options->walSizeText,
                      "size of the log in bytes, with K, M or G; default: that of the log there is, or 4M");
}

void AddTtl(CLI::App* command, CommonOptions* options) {
  command->add_option("--ttl", options->ttlText, "seconds that the entry lives; default 4294967295");
}

void AddPageSize(CLI::App* command, CommonOptions* options) {
  command->add_option("--page-size", options->pageSizeText,
                      "page size of the machine that wrote the store; default: this machine's");
}

}  // namespace Kestrun::Tools
