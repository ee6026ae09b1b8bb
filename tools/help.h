// tools/help.h: what the tables of command_spec.h give to people and to shells.
#pragma once

#include <string>

#include "tools/command_spec.h"

namespace Kestrun::Tools {

std::string ProgramHelp();
std::string CommandHelp(const CommandSpec& command);
// One line: how a command is called. With null, the program.
std::string UsageLine(const CommandSpec* command);
// The completions for bash, zsh or fish; throws UsageError for another shell.
std::string Completions(const std::string& shell);

}  // namespace Kestrun::Tools
