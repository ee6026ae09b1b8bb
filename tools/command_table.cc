// The commands, their arguments and options.
#include <algorithm>

#include "tools/command_spec.h"

namespace Kestrun::Tools {
namespace {

constexpr PositionalSpec kStore = {"STORE"};
constexpr PositionalSpec kKey = {"KEY"};

constexpr OptionSpec kTtl = {
    "--ttl", "TIME", "how long the entry lives: seconds, or 90s, 15m, 1h, 7d, forever; default: forever"};
constexpr OptionSpec kLogSize = {"--log-size", "BYTES",
                                 "size of the log, with K, M or G; default: that of the log there is, or 4M",
                                 "--wal-size"};
constexpr OptionSpec kPageSize = {"--page-size", "BYTES",
                                  "page size of the machine that wrote the store; default: found out"};
constexpr OptionSpec kYes = {"--yes", nullptr, "do not ask", "-y"};
constexpr OptionSpec kDryRun = {"--dry-run", nullptr, "tell what would be done, and do nothing", "-n"};
constexpr OptionSpec kFrom = {"--from", "KEY", "the first key that belongs to it"};
constexpr OptionSpec kTo = {"--to", "KEY", "the first key after it"};
constexpr OptionSpec kPrefix = {"--prefix", "TEXT", "what the keys begin with"};
constexpr OptionSpec kLimit = {"--limit", "N", "how many entries at most"};
constexpr OptionSpec kFormat = {"--format", "NAME",
                                "csv, tsv, jsonl, json or sqlite; default: by the file's name, else jsonl"};
constexpr OptionSpec kDelimiter = {"--delimiter", "CHAR",
                                   "what separates the columns of CSV; default: a comma"};
constexpr OptionSpec kTable = {"--table", "NAME", "the table of a SQLite file"};

std::vector<CommandSpec> MakeCommands() {
  return {
      {"put",
       "store a value under a key",
       {kStore, kKey, {"VALUE", false, false, true}},
       {kTtl, kLogSize},
       {{"kestrun put settings colour green", "make the store if need be, and store a value"},
        {"kestrun put settings logo - < logo.png", "store the bytes of a file"},
        {"kestrun put sessions s-17 alice --ttl 1h", "a value that expires"}},
       "VALUE '-', or no VALUE, is standard input. An empty VALUE is a value.\n"
       "A store is made only in a missing or empty directory.",
       RunPut},
      {"get",
       "write the bytes of a value",
       {kStore, kKey},
       {},
       {{"kestrun get settings colour", "the bytes as they are, without a line end"},
        {"kestrun get settings logo --hex", "as hexadecimal digits; KEY is given in them, too"}},
       "",
       RunGet},
      {"del",
       "delete a key, whether or not it is there",
       {kStore, kKey},
       {kLogSize},
       {{"kestrun del settings colour", ""}},
       "",
       RunDelete},
      {"del-range",
       "delete the keys from FROM up to and not including TO",
       {kStore, {"FROM"}, {"TO"}},
       {kYes, kDryRun, kLogSize},
       {{"kestrun del-range settings a b --dry-run", "how many keys there are"},
        {"kestrun del-range settings a b --yes", "delete them"}},
       "Asks on a terminal; elsewhere --yes is needed.",
       RunDeleteRange},
      {"contains",
       "tell whether a key is stored and alive",
       {kStore, kKey},
       {},
       {{"kestrun contains settings colour", "yes, or no with exit status 1"}},
       "",
       RunContains},
      {"entry",
       "tell where a key is stored, since when and for how long",
       {kStore, kKey},
       {kPageSize},
       {{"kestrun entry settings colour", ""}},
       "",
       RunEntry},
      {"scan",
       "list the live entries, sorted by key",
       {kStore},
       {kFrom, kTo, kPrefix, kLimit, {"--keys-only", nullptr, "leave out the values"}},
       {{"kestrun scan settings", "all entries"},
        {"kestrun scan settings --prefix user- --limit 10", "the first ten of a prefix"},
        {"kestrun scan settings --json", "a line of JSON for each entry"}},
       "",
       RunScan},
      {"append",
       "store a typed record under a key",
       {kStore, kKey, {"FORMAT"}, {"VALUE", true, true, true}},
       {kTtl, kLogSize},
       {{"kestrun append places home 'Point x:%i4,y:%i4,label:%s' 3 -5 'by the sea'", ""}},
       "FORMAT is a name, a blank, and fields with their types: %i4 and %i8 whole numbers of 32 and 64 "
       "bits,\n"
       "%f and %d numbers of single and double precision, %s a text, * bytes in hexadecimal, as the last "
       "field.\n"
       "One VALUE for each field; a lone '-' is standard input.",
       RunAppend},
      {"show",
       "show a typed record field by field",
       {kStore, kKey},
       {},
       {{"kestrun show places home", ""}},
       "",
       RunShow},
      {"types",
       "list the record types of a store",
       {kStore},
       {},
       {{"kestrun types places", ""}},
       "",
       RunTypes},
      {"import",
       "store the rows of a CSV, TSV, JSON Lines, JSON or SQLite file",
       {kStore, {"FILE"}},
       {{"--type", "TYPE", "store typed records of this type, such as 'Town name:%s,founded:%i4'"},
        {"--key", "PATTERN", "how keys are made of columns, such as 'town-{name}'; default: the column key"},
        kFormat,
        kDelimiter,
        kTable,
        {"--with-entry", nullptr,
         "take the time to live from the column ttl; the time of writing is that of the import"},
        {"--no-overwrite", nullptr, "leave keys alone that are there already"},
        {"--skip-bad-rows", nullptr, "leave out rows that can't be stored"},
        kTtl,
        kLogSize},
       {{"kestrun import towns towns.csv --type 'Town name:%s,founded:%i4' --key 'town-{name}'",
         "typed records"},
        {"kestrun import settings settings.jsonl", "lines of {\"key\": ..., \"value\": ...}"},
        {"kestrun import towns towns.db --table towns --type 'Town name:%s' --key '{id}'",
         "a table of SQLite"}},
       "FILE '-' is standard input. A row that can't be stored ends the import with exit status 4; what was "
       "stored\n"
       "before it stays, and the same import may be run again.",
       RunImport},
      {"export",
       "write the live entries as CSV, TSV, JSON Lines, JSON or SQLite",
       {kStore, {"FILE", false}},
       {{"--type", "TYPE", "export the records of this type, named by its name or its text"},
        {"--raw", nullptr, "export all entries as bytes, whatever they are"},
        {"--skip-bad-records", nullptr, "leave out records that do not hold the fields of their type"},
        kFormat,
        kDelimiter,
        kTable,
        {"--key-column", "NAME", "the column of the keys; default: key"},
        {"--with-entry", nullptr,
         "add the columns written, in seconds, and ttl, what is left of the time to live"},
        kFrom,
        kTo,
        kPrefix,
        kLimit},
       {{"kestrun export towns towns.csv", "to a file, which appears when it is complete"},
        {"kestrun export settings --prefix user- | head", "JSON Lines on standard output"},
        {"kestrun export towns towns.db", "a SQLite file with a table for each type"}},
       "FILE '-', or no FILE, is standard output.",
       RunExport},
      {"flush",
       "move the entries of the log into a block",
       {kStore},
       {kLogSize},
       {{"kestrun flush settings", ""}},
       "",
       RunFlush},
      {"compact",
       "merge log and blocks into one block; drop what is deleted or expired",
       {kStore},
       {kLogSize},
       {{"kestrun compact settings", ""}},
       "",
       RunCompact},
      {"clear",
       "empty a store; its record types stay",
       {kStore},
       {kYes, kDryRun, kLogSize},
       {{"kestrun clear settings --dry-run", "how many entries there are"},
        {"kestrun clear settings --yes", "without being asked"}},
       "Asks on a terminal; elsewhere --yes is needed.",
       RunClear},
      {"remove",
       "delete a store's own files, and its directory if that leaves it empty",
       {kStore},
       {kYes, {"--incomplete", nullptr, "also what is left of a store that lacks its log or its manifest"}},
       {{"kestrun remove settings --yes", ""}},
       "Asks on a terminal; elsewhere --yes is needed. Other files stay. Give it a store that is not in "
       "use.\n"
       "What is left of a store that lacks its log or its manifest may be rescued with 'kestrun recover'.",
       RunRemove},
      {"backup",
       "make a consistent copy of a store, which may be in use",
       {kStore, {"NEW"}},
       {},
       {{"kestrun backup settings settings-monday", ""},
        {"kestrun backup settings-monday settings", "the way back, after the store was removed"}},
       "NEW must not be there. It appears when the copy is complete and synced.",
       RunBackup},
      {"recover",
       "make a new store of whatever can be read of a damaged one",
       {kStore, {"NEW"}},
       {{"--all-blocks", nullptr, "take blocks that the manifest does not list, too"}},
       {{"kestrun recover broken rescued", ""},
        {"kestrun recover broken rescued --all-blocks", "deleted keys may come back"}},
       "STORE is only read. NEW must not be there. Exit status 0 when nothing was lost, else 1.",
       RunRecover},
      {"stat",
       "tell what a store holds, how big it is and why",
       {kStore},
       {kPageSize, {"--html", "FILE", "write a page with pictures, which needs no other file"}},
       {{"kestrun stat settings", ""},
        {"kestrun stat settings --html settings.html", "open it in a browser"}},
       "",
       RunStat},
      {"verify",
       "check every checksum, order and list of a store",
       {kStore},
       {kPageSize},
       {{"kestrun verify settings", "exit status 1 when something is damaged"}},
       "",
       RunVerify},
      {"dump",
       "show a store, or one of its files, byte by byte",
       {{"STORE|FILE"}},
       {kPageSize},
       {{"kestrun dump settings | less", ""}, {"kestrun dump settings/wal_v5", "one file"}},
       "",
       RunDump},
      {"watch",
       "show what happens to a store while others use it",
       {kStore},
       {{"--interval", "TIME", "how often to look, such as 500ms or 2s; default: 1s"},
        {"--count", "N", "how often to look before it ends; default: until Ctrl-C"}},
       {{"kestrun watch settings", "on a terminal"},
        {"kestrun watch settings --json --count 5", "five lines of JSON"}},
       "Only reads.",
       RunWatch},
      {"bench",
       "measure a small store in a directory of this device",
       {{"DIRECTORY"}},
       {{"--entries", "N", "how many; default: 100000"},
        {"--value-size", "BYTES", "of each value; default: 100"}},
       {{"kestrun bench /data/local/tmp", ""}},
       "Works in a new directory inside DIRECTORY and removes it.",
       RunBench},
      {"help",
       "explain a command",
       {{"COMMAND", false}},
       {{"--completions", "SHELL", "write the completions for bash, zsh or fish"}},
       {{"kestrun help import", "as kestrun import --help"}},
       "",
       RunHelp},
  };
}

}  // namespace

const std::vector<OptionSpec>& CommonOptions() {
  static const std::vector<OptionSpec> options = {
      {"--json", nullptr, "write JSON, errors included"},
      {"--hex", nullptr, "keys, bounds, prefixes and values are hexadecimal digits, in and out"},
      {"--quiet", nullptr, "print errors only", "-q"},
      {"--verbose", nullptr, "say more", "-v"},
      {"--help", nullptr, "explain the command", "-h"},
  };
  return options;
}

const std::vector<CommandSpec>& Commands() {
  static const std::vector<CommandSpec> commands = MakeCommands();
  return commands;
}

const CommandSpec* FindCommand(std::string_view name) {
  for (const CommandSpec& command : Commands()) {
    if (command.name == name) return &command;
  }
  return nullptr;
}

const OptionSpec* FindOption(const CommandSpec& command, std::string_view name) {
  for (const auto* options : {&command.options, &CommonOptions()}) {
    for (const OptionSpec& option : *options) {
      if (option.name == name || (option.alias != nullptr && option.alias == name)) return &option;
    }
  }
  return nullptr;
}

bool Invocation::Has(std::string_view option) const {
  return Find(option) != nullptr;
}

const std::string* Invocation::Find(std::string_view option) const {
  const auto found = std::find_if(options.rbegin(), options.rend(),
                                  [option](const auto& given) { return given.first == option; });
  return found == options.rend() ? nullptr : &found->second;
}

std::vector<std::string> Invocation::All(std::string_view option) const {
  std::vector<std::string> values;
  for (const auto& [name, value] : options) {
    if (name == option) values.push_back(value);
  }
  return values;
}

}  // namespace Kestrun::Tools
