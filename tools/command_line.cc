#include "tools/command_line.h"

#include <algorithm>

#include "inspect/escape.h"
#include "tools/failure.h"

namespace Kestrun::Tools {
namespace {

// Letters to change, leave out, put in or swap.
size_t Distance(const std::string& a, const std::string& b) {
  std::vector<std::vector<size_t>> steps(a.size() + 1, std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); ++i) {
    for (size_t j = 0; j <= b.size(); ++j) {
      if (i == 0 || j == 0) {
        steps[i][j] = i + j;
        continue;
      }
      const bool same = a[i - 1] == b[j - 1];
      steps[i][j] =
          std::min({steps[i - 1][j] + 1, steps[i][j - 1] + 1, steps[i - 1][j - 1] + (same ? 0 : 1)});
      const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (swapped) steps[i][j] = std::min(steps[i][j], steps[i - 2][j - 2] + 1);
    }
  }
  return steps[a.size()][b.size()];
}

std::string Suggestion(const std::string& text, const std::vector<std::string>& candidates) {
  const std::string nearest = NearestName(text, candidates);
  return nearest.empty() ? std::string() : "; did you mean " + nearest + "?";
}

class Parser {
 public:
  explicit Parser(const CommandSpec& command) : command_(command) { line_.command = &command; }

  Invocation Parse(const std::vector<std::string>& arguments) {
    for (size_t i = 1; i < arguments.size(); ++i) {
      const std::string& argument = arguments[i];
      if (argument == "--") {
        while (++i < arguments.size()) AddPositional(arguments[i]);
        break;
      }
      const size_t equals = argument.compare(0, 2, "--") == 0 ? argument.find('=') : std::string::npos;
      const OptionSpec* option =
          IsOptionLike(argument) ? FindOption(command_, argument.substr(0, equals)) : nullptr;
      if (option == nullptr || (option->name[1] != '-' && InPlaceOfData())) {
        AddUnknown(argument);
      } else if (option->value == nullptr) {
        if (equals != std::string::npos) throw UsageError(argument.substr(0, equals) + " takes no value");
        line_.options.emplace_back(option->name, "");
      } else if (equals != std::string::npos) {
        line_.options.emplace_back(option->name, argument.substr(equals + 1));
      } else if (++i < arguments.size()) {
        line_.options.emplace_back(option->name, arguments[i]);
      } else {
        throw UsageError(argument + " needs a value after it");
      }
    }
    if (!line_.Has("--help")) RequirePositionals();
    return line_;
  }

 private:
  // A short option in the place of data is data: -q may be a value.
  bool IsOptionLike(const std::string& argument) const {
    if (argument.size() < 2 || argument[0] != '-') return false;
    return argument[1] == '-' ? argument.size() > 2 : argument.size() == 2 && !InPlaceOfData();
  }

  const PositionalSpec* Next() const {
    const auto& specs = command_.positionals;
    const size_t place = line_.positionals.size();
    if (place < specs.size()) return &specs[place];
    return !specs.empty() && specs.back().repeats ? &specs.back() : nullptr;
  }

  bool InPlaceOfData() const {
    const PositionalSpec* next = Next();
    return next != nullptr && next->isData;
  }

  void AddUnknown(const std::string& argument) {
    const bool looksLikeOption = argument.size() > 2 && argument.compare(0, 2, "--") == 0;
    if (!looksLikeOption || InPlaceOfData()) return AddPositional(argument);
    const std::string name = argument.substr(0, argument.find('='));
    std::vector<std::string> names;
    for (const auto* options : {&command_.options, &CommonOptions()}) {
      for (const OptionSpec& option : *options) names.emplace_back(option.name);
    }
    throw UsageError("there is no option " + Inspect::Printable(name) + Suggestion(name, names) +
                     "; data that begins like this stands after \"--\"");
  }

  void AddPositional(const std::string& argument) {
    if (Next() == nullptr) {
      throw UsageError("there is one argument too many: \"" + Inspect::Printable(argument) + "\"");
    }
    line_.positionals.push_back(argument);
  }

  void RequirePositionals() const {
    for (size_t i = line_.positionals.size(); i < command_.positionals.size(); ++i) {
      if (command_.positionals[i].required) {
        throw UsageError(std::string(command_.positionals[i].name) + " is missing");
      }
    }
    const bool hasStore =
        !command_.positionals.empty() && std::string(command_.positionals.front().name) == "STORE";
    if (hasStore && line_.positionals.front().empty()) {
      throw UsageError("STORE is the directory of a store and can't be empty");
    }
  }

  const CommandSpec& command_;
  Invocation line_;
};

}  // namespace

std::string NearestName(const std::string& text, const std::vector<std::string>& candidates) {
  std::string nearest;
  size_t best = std::max<size_t>(2, text.size() / 3) + 1;
  for (const std::string& candidate : candidates) {
    // What a name begins with may be meant for it, whatever its length.
    const bool begins = text.size() > 2 && candidate.compare(0, text.size(), text) == 0;
    const size_t distance = begins ? 1 : Distance(text, candidate);
    if (distance < best && distance < candidate.size()) {
      best = distance;
      nearest = candidate;
    }
  }
  return nearest;
}

Invocation ParseCommandLine(const std::vector<std::string>& arguments) {
  const CommandSpec* command = FindCommand(arguments.front());
  if (command == nullptr) {
    std::vector<std::string> names;
    for (const CommandSpec& known : Commands()) names.emplace_back(known.name);
    throw UsageError("there is no command \"" + Inspect::Printable(arguments.front()) + "\"" +
                     Suggestion(arguments.front(), names));
  }
  return Parser(*command).Parse(arguments);
}

}  // namespace Kestrun::Tools
