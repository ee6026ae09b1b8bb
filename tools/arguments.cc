#include "tools/arguments.h"

#include "inspect/escape.h"

namespace Kestrun::Tools {
namespace {

bool TakesValue(const CLI::Option& option) {
  return option.get_items_expected_max() > 0;
}

class Orderer {
 public:
  explicit Orderer(const CLI::App& command) : command_(command) {
    for (const CLI::Option* option : command.get_options()) {
      if (option->get_positional()) names_.push_back(option->get_name(true));
    }
  }

  OrderedArguments Order(const std::vector<std::string>& arguments) {
    for (size_t i = 1; i < arguments.size(); ++i) {
      const std::string& argument = arguments[i];
      if (argument == "--") {
        while (++i < arguments.size()) AddPositional(arguments[i]);
        break;
      }
      const CLI::Option* option = FindOption(argument);
      if (option == nullptr) {
        Unknown(argument);
        continue;
      }
      const size_t equals = argument.find('=');
      if (!TakesValue(*option)) {
        options_.push_back(argument);
      } else if (equals != std::string::npos) {
        // As two arguments, for the parser takes "--from=" for an option that still lacks its value.
        options_.push_back(argument.substr(0, equals));
        options_.push_back(argument.substr(equals + 1));
      } else {
        options_.push_back(argument);
        if (i + 1 == arguments.size()) Refuse(argument + " needs a value behind it");
        if (i + 1 < arguments.size()) options_.push_back(arguments[++i]);
      }
    }

    ordered_.forParser.push_back(arguments.front());
    ordered_.forParser.insert(ordered_.forParser.end(), options_.begin(), options_.end());
    if (!ordered_.positionals.empty()) ordered_.forParser.emplace_back("--");
    ordered_.forParser.insert(ordered_.forParser.end(), ordered_.positionals.begin(),
                              ordered_.positionals.end());
    return ordered_;
  }

 private:
  const CLI::Option* FindOption(const std::string& argument) const {
    if (argument == "-h" && !InPlaceOfValue()) return command_.get_option_no_throw("--help");
    if (argument.size() < 3 || argument.compare(0, 2, "--") != 0) return nullptr;
    return command_.get_option_no_throw(argument.substr(0, argument.find('=')));
  }

  bool InPlaceOfValue() const {
    const size_t place = ordered_.positionals.size();
    if (place < names_.size()) return names_[place] == kValueName;
    return LastRepeats() && names_.back() == kValueName;
  }

  void Unknown(const std::string& argument) {
    const bool looksLikeOption = argument.size() > 2 && argument.compare(0, 2, "--") == 0;
    if (looksLikeOption && !InPlaceOfValue()) {
      Refuse("there is no option " + Inspect::Printable(argument) +
             "; data that begins like this stands behind \"--\"");
    } else {
      AddPositional(argument);
    }
  }

  void AddPositional(const std::string& argument) {
    if (ordered_.positionals.size() >= names_.size() && !LastRepeats()) {
      Refuse("there is one argument too many: \"" + Inspect::Printable(argument) + "\"");
    }
    ordered_.positionals.push_back(argument);
  }

  bool LastRepeats() const {
    return !names_.empty() && command_.get_option(names_.back())->get_items_expected_max() > 1;
  }

  void Refuse(const std::string& problem) {
    if (ordered_.problem.empty()) ordered_.problem = problem;
  }

  const CLI::App& command_;
  std::vector<std::string> names_;  // of the positional arguments
  std::vector<std::string> options_;
  OrderedArguments ordered_;
};

}  // namespace

const CLI::App* FindCommand(const CLI::App& app, const std::string& name) {
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (command->get_name() == name) return command;
  }
  return nullptr;
}

OrderedArguments NormalizeArguments(const CLI::App& app, const std::vector<std::string>& arguments) {
  const CLI::App* command = arguments.empty() ? nullptr : FindCommand(app, arguments.front());
  if (command == nullptr) {
    const bool isOption = !arguments.empty() && app.get_option_no_throw(arguments.front()) != nullptr;
    return {arguments,
            {},
            arguments.empty() || isOption
                ? std::string()
                : "there is no command \"" + Inspect::Printable(arguments.front()) + "\""};
  }
  return Orderer(*command).Order(arguments);
}

}  // namespace Kestrun::Tools
