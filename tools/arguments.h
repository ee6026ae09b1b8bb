// tools/arguments.h: puts a command line into an order in which options and data can't be taken for each
// other, for keys and values may look like options.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace Kestrun::Tools {

// The name of positional arguments that may begin with a '-' of any kind.
inline constexpr char kValueName[] = "VALUE";

// The command of this name; null when there is none.
const CLI::App* FindCommand(const CLI::App& app, const std::string& name);

struct OrderedArguments {
  std::vector<std::string> forParser;  // the command, its options, "--", its positional arguments
  std::vector<std::string> positionals;
  std::string problem;  // what the command does not take; empty when nothing is wrong
};

// `arguments` are those of the program without its name. After the command:
//
// - "--" ends the options;
// - a known option is an option, and what follows an option that takes a value is its value, whatever it
//   looks like;
// - in the place of a VALUE everything else is data;
// - in another place an unknown "--name" is a problem, and everything else is data.
OrderedArguments NormalizeArguments(const CLI::App& app, const std::vector<std::string>& arguments);

}  // namespace Kestrun::Tools
