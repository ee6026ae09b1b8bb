#include "tools/help.h"

#include <algorithm>

#include "inspect/escape.h"
#include "kestrun/version.h"
#include "tools/command_line.h"
#include "tools/failure.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

std::string Padded(const std::string& text, size_t width) {
  return text + std::string(text.size() < width ? width - text.size() : 1, ' ');
}

std::string Synopsis(const CommandSpec& command) {
  std::string line = std::string("kestrun ") + command.name;
  for (const PositionalSpec& positional : command.positionals) {
    const std::string name = std::string(positional.name) + (positional.repeats ? "..." : "");
    line += positional.required ? " " + name : " [" + name + "]";
  }
  return line + " [OPTIONS]";
}

std::string OptionNames(const OptionSpec& option) {
  std::string names = option.name;
  // A short name stands first, as everywhere; an older long one is not shown.
  if (option.alias != nullptr && option.alias[1] != '-') names = std::string(option.alias) + ", " + names;
  return option.value == nullptr ? names : names + " " + option.value;
}

void AddOptions(const std::vector<OptionSpec>& options, std::string* text) {
  size_t width = 0;
  for (const OptionSpec& option : options) width = std::max(width, OptionNames(option).size());
  for (const OptionSpec& option : options) {
    *text += "  " + Padded(OptionNames(option), width + 2) + option.help + "\n";
  }
}

// The names of a command's options, those with values and those without.
std::string OptionWords(const CommandSpec& command, const char* separator) {
  std::string words;
  for (const auto* options : {&command.options, &CommonOptions()}) {
    for (const OptionSpec& option : *options)
      words += (words.empty() ? "" : separator) + std::string(option.name);
  }
  return words;
}

std::string CommandWords() {
  std::string words;
  for (const CommandSpec& command : Commands())
    words += (words.empty() ? "" : " ") + std::string(command.name);
  return words;
}

// Single quotes around a text of a shell script.
std::string ShellQuoted(const std::string& text) {
  std::string quoted = "'";
  for (const char letter : text) {
    if (letter == '\'') {
      quoted += "'\\''";
    } else {
      quoted += letter;
    }
  }
  return quoted + "'";
}

std::string BashCompletions() {
  std::string text =
      "# Completions of kestrun for bash.\n"
      "_kestrun() {\n"
      "  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} options\n"
      "  COMPREPLY=()\n"
      "  if [ \"$COMP_CWORD\" -eq 1 ]; then\n"
      "    COMPREPLY=($(compgen -W \"" +
      CommandWords() +
      " --help --version\" -- \"$word\"))\n"
      "    return\n"
      "  fi\n"
      "  case \"$before\" in\n"
      "    --format) COMPREPLY=($(compgen -W \"csv tsv jsonl json sqlite\" -- \"$word\")); return ;;\n"
      "    --completions) COMPREPLY=($(compgen -W \"bash zsh fish\" -- \"$word\")); return ;;\n"
      "    --html) COMPREPLY=($(compgen -f -- \"$word\")); return ;;\n"
      "  esac\n"
      "  case \"${COMP_WORDS[1]}\" in\n";
  for (const CommandSpec& command : Commands()) {
    text += std::string("    ") + command.name + ") options=\"" + OptionWords(command, " ") + "\" ;;\n";
  }
  return text +
         "    *) return ;;\n"
         "  esac\n"
         "  if [[ $word == -* ]]; then\n"
         "    COMPREPLY=($(compgen -W \"$options\" -- \"$word\"))\n"
         "  elif [ \"${COMP_WORDS[1]}\" = help ]; then\n"
         "    COMPREPLY=($(compgen -W \"" +
         CommandWords() +
         "\" -- \"$word\"))\n"
         "  else\n"
         "    COMPREPLY=($(compgen -f -- \"$word\"))\n"
         "  fi\n"
         "}\n"
         "complete -o filenames -F _kestrun kestrun\n";
}

std::string ZshCompletions() {
  std::string text =
      "#compdef kestrun\n"
      "# Completions of kestrun for zsh.\n"
      "_kestrun() {\n"
      "  local -a commands options\n"
      "  commands=(\n";
  for (const CommandSpec& command : Commands()) {
    text += "    " + ShellQuoted(std::string(command.name) + ":" + command.summary) + "\n";
  }
  text +=
      "  )\n"
      "  if (( CURRENT == 2 )); then\n"
      "    _describe command commands\n"
      "    return\n"
      "  fi\n"
      "  case $words[2] in\n";
  for (const CommandSpec& command : Commands()) {
    text += std::string("    ") + command.name + ")\n      options=(\n";
    for (const auto* options : {&command.options, &CommonOptions()}) {
      for (const OptionSpec& option : *options) {
        std::string help = option.help;
        for (const char letter : {'[', ']', ':'})
          help.erase(std::remove(help.begin(), help.end(), letter), help.end());
        std::string entry = std::string(option.name) + "[" + help + "]";
        if (option.value != nullptr) {
          const std::string name = option.name;
          entry += std::string(":") + option.value + ":" +
                   (name == "--format"        ? "(csv tsv jsonl json sqlite)"
                    : name == "--completions" ? "(bash zsh fish)"
                    : name == "--html"        ? "_files"
                                              : " ");
        }
        text += "        " + ShellQuoted(entry) + "\n";
      }
    }
    text += "        '*:argument:" +
            std::string(std::string(command.name) == "help" ? "(" + CommandWords() + ")" : "_files") +
            "'\n      )\n      ;;\n";
  }
  return text +
         "  esac\n"
         "  words=(\"${words[@]:1}\")\n"
         "  (( CURRENT-- ))\n"
         "  _arguments $options\n"
         "}\n"
         "_kestrun \"$@\"\n";
}

std::string FishCompletions() {
  std::string text =
      "# Completions of kestrun for fish.\n"
      "complete -c kestrun -n __fish_use_subcommand -f\n";
  for (const CommandSpec& command : Commands()) {
    text += std::string("complete -c kestrun -n __fish_use_subcommand -f -a ") + command.name + " -d " +
            ShellQuoted(command.summary) + "\n";
  }
  for (const CommandSpec& command : Commands()) {
    for (const auto* options : {&command.options, &CommonOptions()}) {
      for (const OptionSpec& option : *options) {
        text += std::string("complete -c kestrun -n '__fish_seen_subcommand_from ") + command.name + "' -l " +
                (option.name + 2);
        if (option.alias != nullptr && option.alias[1] != '-')
          text += std::string(" -s ") + (option.alias + 1);
        if (option.value != nullptr) text += std::string(option.name) == "--html" ? " -r" : " -x";
        if (std::string(option.name) == "--format") text += " -a 'csv tsv jsonl json sqlite'";
        if (std::string(option.name) == "--completions") text += " -a 'bash zsh fish'";
        text += " -d " + ShellQuoted(option.help) + "\n";
      }
    }
  }
  return text + "complete -c kestrun -n '__fish_seen_subcommand_from help' -f -a '" + CommandWords() + "'\n";
}

}  // namespace

std::string ProgramHelp() {
  std::string text =
      "kestrun works on a Kestrun store: byte values under keys, in a directory of its own.\n\n"
      "usage: kestrun COMMAND STORE [ARGUMENTS] [OPTIONS]\n\n"
      "Commands:\n";
  size_t width = 0;
  for (const CommandSpec& command : Commands()) width = std::max(width, std::string(command.name).size());
  for (const CommandSpec& command : Commands()) {
    text += "  " + Padded(command.name, width + 2) + command.summary + "\n";
  }
  text += "\nOptions of every command:\n";
  AddOptions(CommonOptions(), &text);
  return text +
         "\n"
         "Examples:\n"
         "  kestrun put settings colour green\n"
         "  kestrun get settings colour\n"
         "  kestrun scan settings --json\n"
         "\n"
         "Exit status: 0 done, 1 key not found or damage found, 2 wrong usage, 3 the store refused or is "
         "damaged,\n"
         "4 input that can't be used, 130 interrupted.\n"
         "'kestrun help COMMAND' explains a command.\n";
}

std::string CommandHelp(const CommandSpec& command) {
  std::string text = std::string("kestrun ") + command.name + ": " + command.summary +
                     "\n\nusage: " + Synopsis(command) + "\n";
  if (command.details[0] != '\0') text += std::string("\n") + command.details + "\n";
  if (!command.options.empty()) {
    text += "\nOptions:\n";
    AddOptions(command.options, &text);
  }
  text += "\nOptions of every command:\n";
  AddOptions(CommonOptions(), &text);
  text += "\nExamples:\n";
  for (const ExampleSpec& example : command.examples) {
    text += std::string("  ") + example.line + "\n";
    if (example.comment[0] != '\0') text += std::string("      ") + example.comment + "\n";
  }
  return text;
}

std::string UsageLine(const CommandSpec* command) {
  if (command == nullptr) {
    return "usage: kestrun COMMAND STORE [ARGUMENTS] [OPTIONS]; 'kestrun --help' lists the commands";
  }
  return "usage: " + Synopsis(*command) + "; 'kestrun " + command->name + " --help' explains them";
}

std::string Completions(const std::string& shell) {
  if (shell == "bash") return BashCompletions();
  if (shell == "zsh") return ZshCompletions();
  if (shell == "fish") return FishCompletions();
  throw UsageError("--completions takes bash, zsh or fish, not \"" + Inspect::Printable(shell) + "\"");
}

int RunHelp(const Invocation& line) {
  if (const std::string* shell = line.Find("--completions")) {
    WriteData(Completions(*shell));
  } else if (line.positionals.empty()) {
    WriteData(ProgramHelp());
  } else {
    WriteData(CommandHelp(*ParseCommandLine({line.positionals.front(), "--help"}).command));
  }
  return kExitDone;
}

}  // namespace Kestrun::Tools
