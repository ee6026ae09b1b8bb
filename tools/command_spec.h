// tools/command_spec.h: what the program's commands take, as tables. The parser, the help, the completions
// and the manual's test all read them.
//
// Ownership: the tables are constants and live until the process ends.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Kestrun::Tools {

class Invocation;

struct PositionalSpec {
  const char* name;
  bool required = true;
  bool repeats = false;  // the last one only
  bool isData = false;   // may begin with a '-' of any kind
};

struct OptionSpec {
  const char* name;   // with its dashes
  const char* value;  // what stands for the value in the help; null for a flag
  const char* help;
  const char* alias = nullptr;  // another name, older or shorter
};

struct ExampleSpec {
  const char* line;
  const char* comment;
};

struct CommandSpec {
  const char* name;
  const char* summary;
  std::vector<PositionalSpec> positionals;
  std::vector<OptionSpec> options;
  std::vector<ExampleSpec> examples;
  const char* details;  // paragraphs for the help; may be empty
  int (*run)(const Invocation&);
};

// Options that every command takes.
const std::vector<OptionSpec>& CommonOptions();
// All commands, in the order of the help.
const std::vector<CommandSpec>& Commands();
// The command of this name; null when there is none.
const CommandSpec* FindCommand(std::string_view name);
// The option of a command by its name or alias, those that all commands take included;
// null when there is none.
const OptionSpec* FindOption(const CommandSpec& command, std::string_view name);

// A command line that was understood.
class Invocation {
 public:
  const CommandSpec* command = nullptr;
  std::vector<std::string> positionals;  // what stands for each of them, the last one perhaps several times
  std::vector<std::pair<std::string, std::string>> options;  // by their names, in the order given

  bool Has(std::string_view option) const;
  // What was given last for the option; null when it was not.
  const std::string* Find(std::string_view option) const;
  std::vector<std::string> All(std::string_view option) const;
  const std::string& Store() const { return positionals.front(); }
};

// The commands, by the files that hold them.
int RunPut(const Invocation& line);
int RunDelete(const Invocation& line);
int RunDeleteRange(const Invocation& line);
int RunGet(const Invocation& line);
int RunContains(const Invocation& line);
int RunEntry(const Invocation& line);
int RunScan(const Invocation& line);
int RunAppend(const Invocation& line);
int RunShow(const Invocation& line);
int RunTypes(const Invocation& line);
int RunImport(const Invocation& line);
int RunExport(const Invocation& line);
int RunFlush(const Invocation& line);
int RunCompact(const Invocation& line);
int RunClear(const Invocation& line);
int RunRemove(const Invocation& line);
int RunBackup(const Invocation& line);
int RunRecover(const Invocation& line);
int RunStat(const Invocation& line);
int RunVerify(const Invocation& line);
int RunDump(const Invocation& line);
int RunWatch(const Invocation& line);
int RunBench(const Invocation& line);
int RunHelp(const Invocation& line);

}  // namespace Kestrun::Tools
