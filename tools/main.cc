// kestrun: works on a store from the command line. docs/operations/cli.md is its guide.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "inspect/escape.h"
#include "kestrun/version.h"
#include "tools/arguments.h"
#include "tools/commands.h"
#include "tools/failure.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

// The command that the arguments name, as it should be called.
std::string UsageLine(const CLI::App& app, const std::vector<std::string>& arguments) {
  const CLI::App* command = arguments.empty() ? nullptr : FindCommand(app, arguments.front());
  if (command == nullptr)
    return "usage: kestrun COMMAND STORE [ARGUMENTS] [OPTIONS]; 'kestrun --help' lists the commands";
  std::string line = "usage: kestrun " + command->get_name();
  for (const CLI::Option* option : command->get_options()) {
    if (!option->get_positional()) continue;
    std::string name = option->get_name(true);
    if (option->get_items_expected_max() > 1) name += "...";
    line += option->get_required() ? " " + name : " [" + name + "]";
  }
  return line + " [OPTIONS]; 'kestrun " + command->get_name() + " --help' explains them";
}

int Usage(const CLI::App& app, const std::vector<std::string>& arguments, const std::string& message) {
  const bool named = !arguments.empty() && FindCommand(app, arguments.front()) != nullptr;
  PrintMessage("kestrun" + (named ? " " + arguments.front() : std::string()) + ": " + message);
  PrintMessage(UsageLine(app, arguments));
  return kExitUsage;
}

// Work that the command line asks for, after its text was understood; what goes wrong becomes a message.
int Perform(const CLI::App& app, const std::vector<std::string>& arguments, const Action& action) {
  try {
    const int status = action();
    FinishData();
    return status;
  } catch (const UsageError& error) {
    return Usage(app, arguments, error.what());
  } catch (const InputError& error) {
    PrintMessage("kestrun " + arguments.front() + ": " + error.what());
    return kExitUsage;
  } catch (const StoreFailure& failure) {
    PrintMessage("kestrun " + arguments.front() + ": " + failure.Message());
  } catch (const SystemFailure& failure) {
    PrintMessage("kestrun " + arguments.front() + ": " + failure.what());
  } catch (const std::bad_alloc&) {
    PrintMessage("kestrun " + arguments.front() + ": memory could not be allocated");
  } catch (const std::exception& error) {
    PrintMessage("kestrun " + arguments.front() + ": " + Inspect::Printable(error.what()));
  }
  return kExitRefused;
}

int Run(const std::vector<std::string>& arguments) {
  CLI::App app("works on a Kestrun store: byte values under keys, in a directory of their own", "kestrun");
  app.set_version_flag("--version", std::string("kestrun ") + Version());
  app.require_subcommand(1);
  app.footer(
      "'kestrun COMMAND --help' explains a command.\n"
      "Exit status: 0 done, 1 key not found or damage found, 2 wrong usage, 3 the store refused.");

  Action chosen;
  OrderedArguments ordered;
  const Program program = {&app, &chosen, &ordered.positionals};
  AddWriteCommands(program);
  AddReadCommands(program);
  AddRangeCommands(program);
  AddRecordCommands(program);
  AddImportCommand(program);
  AddExportCommand(program);
  AddMaintenanceCommands(program);
  AddInspectCommands(program);

  if (arguments.empty()) return Usage(app, arguments, "a command is needed");
  ordered = NormalizeArguments(app, arguments);
  if (!ordered.problem.empty()) return Usage(app, arguments, ordered.problem);
  try {
    app.parse(std::vector<std::string>(ordered.forParser.rbegin(), ordered.forParser.rend()));
  } catch (const CLI::CallForHelp&) {
    return Perform(app, {"help"}, [&app] {
      WriteData(app.help());
      return kExitDone;
    });
  } catch (const CLI::CallForVersion& version) {
    const std::string text = version.what();
    return Perform(app, {"version"}, [&text] {
      WriteLine(text);
      return kExitDone;
    });
  } catch (const CLI::ParseError& error) {
    return Usage(app, arguments, Inspect::Printable(error.what()));
  }
  return Perform(app, arguments, chosen);
}

}  // namespace
}  // namespace Kestrun::Tools

int main(int argc, char** argv) {
  try {
    Kestrun::Tools::PrepareStreams();
    const int status = Kestrun::Tools::Run(std::vector<std::string>(argv + 1, argv + argc));
    Kestrun::Tools::FlushDiagnostics();
    return status;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kestrun: %s\n", error.what());
    return Kestrun::Tools::kExitRefused;
  }
}
