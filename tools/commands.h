// tools/commands.h: the commands of the program, by the file that holds them. Each function adds its commands
// to the program; the one that the command line names leaves its work in `*chosen`.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <vector>

#include "tools/options.h"

namespace Kestrun::Tools {

struct Program {
  CLI::App* app;
  Action* chosen;
  // What the command line gives after the command, options aside; set before the chosen command runs.
  const std::vector<std::string>* positionals;
};

void AddWriteCommands(const Program& program);        // put, del
void AddReadCommands(const Program& program);         // get, contains, entry
void AddRangeCommands(const Program& program);        // scan, del-range
void AddRecordCommands(const Program& program);       // append, show, types
void AddImportCommand(const Program& program);        // import
void AddExportCommand(const Program& program);        // export
void AddMaintenanceCommands(const Program& program);  // flush, compact, clear, remove
void AddInspectCommands(const Program& program);      // stat, verify, dump

}  // namespace Kestrun::Tools
