// kestrun: works on a store from the command line.
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "inspect/escape.h"
#include "kestrun/version.h"
#include "tools/command_line.h"
#include "tools/diagnostics.h"
#include "tools/failure.h"
#include "tools/help.h"
#include "tools/json_writer.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

// The texts of errors are UTF-8: what they quote is escaped before.
std::string Utf8(const std::string& text) {
  return Inspect::IsUtf8(text) ? text : Inspect::Printable(text);
}

void Tell(const std::vector<std::string>& arguments, const ErrorReport& error, bool json) {
  const CommandSpec* command = arguments.empty() ? nullptr : FindCommand(arguments.front());
  if (json) {
    JsonWriter writer;
    writer.BeginObject().Name("error").BeginObject().Name("exit").Number(static_cast<uint64_t>(error.exit));
    writer.Name("status");
    if (error.status.empty()) {
      writer.Null();
    } else {
      writer.Text(error.status);
    }
    const std::string advice = error.exit == kExitUsage ? UsageLine(command) : error.advice;
    writer.Name("message")
        .Text(Utf8(error.message))
        .Name("advice")
        .Text(Utf8(advice))
        .EndObject()
        .EndObject();
    PrintMessage(writer.Result());
    return;
  }
  const std::string who =
      command == nullptr ? std::string("kestrun: ") : std::string("kestrun ") + command->name + ": ";
  PrintMessage(who + error.message + (error.advice.empty() ? "" : ". " + error.advice));
  if (error.exit == kExitUsage) PrintMessage(UsageLine(command));
}

// A writer has met a log of which it could not read all.
void TellSetAside(const Invocation& line) {
  const std::string said = TakeSetAside();
  if (said.empty()) return;
  const std::string store = Inspect::Printable(line.Store());
  PrintMessage(std::string("kestrun ") + line.command->name + ": " + said + ". 'kestrun recover " + store +
               " NEW --all-blocks' makes a new store that holds what can be read of it, too.");
}

int RunCommand(const std::vector<std::string>& arguments) {
  const std::string first = arguments.empty() ? std::string() : arguments.front();
  if (first == "--version") {
    WriteLine(std::string("kestrun ") + Version());
    return kExitDone;
  }
  if (first == "--help" || first == "-h") {
    WriteData(ProgramHelp());
    return kExitDone;
  }
  if (arguments.empty()) throw UsageError("a command is needed");
  const Invocation line = ParseCommandLine(arguments);
  if (line.Has("--help")) {
    WriteData(CommandHelp(*line.command));
    return kExitDone;
  }
  if (line.Has("--quiet")) SetVerbosity(Verbosity::Quiet);
  if (line.Has("--verbose")) SetVerbosity(Verbosity::Verbose);
  int status = kExitDone;
  try {
    status = line.command->run(line);
  } catch (...) {
    TellSetAside(line);
    throw;
  }
  TellSetAside(line);
  if (const std::string said = TakeDiagnostics(); !said.empty()) PrintDetail("kestrun: " + said);
  return status;
}

// Whether errors are to be JSON also where the command line was not understood.
bool WantsJson(const std::vector<std::string>& arguments) {
  for (const std::string& argument : arguments) {
    if (argument == "--") return false;
    if (argument == "--json") return true;
  }
  return false;
}

// Whatever goes wrong becomes a message, after the data that was written before.
int Run(const std::vector<std::string>& arguments) {
  ErrorReport error;
  try {
    const int status = RunCommand(arguments);
    FlushData();
    return status;
  } catch (const Failure& failure) {
    error = failure.Report();
  } catch (const std::bad_alloc&) {
    error.message = "memory could not be allocated";
  } catch (const std::exception& exception) {
    error.message = Inspect::Printable(exception.what());
  }
  try {
    FlushData();
  } catch (const Failure& failure) {
    error.message += "; " + std::string(failure.what());
  }
  Tell(arguments, error, WantsJson(arguments));
  return error.exit;
}

}  // namespace
}  // namespace Kestrun::Tools

int main(int argc, char** argv) {
  Kestrun::Tools::PrepareStreams();
  Kestrun::Tools::CatchDiagnostics();
  return Kestrun::Tools::Run(std::vector<std::string>(argv + 1, argv + argc));
}
