// tools/command_line.h: takes a command line apart, so that options and data can't be taken for each other:
// keys and values may look like options.
#pragma once

#include <string>
#include <vector>

#include "tools/command_spec.h"

namespace Kestrun::Tools {

// `arguments` are those of the program without its name, the first one a command. After the command:
//
// - "--" ends the options;
// - a known option is an option, and what follows an option that takes a value is its value,
//   whatever it looks like;
// - in the place of a VALUE everything else is data;
// - in another place an unknown "--name" is a mistake, and everything else is data.
//
// Throws UsageError, which says what would be right. With --help nothing is missed.
Invocation ParseCommandLine(const std::vector<std::string>& arguments);

// The candidate that a person may have meant by `text`; empty when none is near.
std::string NearestName(const std::string& text, const std::vector<std::string>& candidates);

}  // namespace Kestrun::Tools
