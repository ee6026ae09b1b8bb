// tools/streams.h: where the program's output goes. Data, and nothing else, goes to standard output;
// messages, accounts and progress go to standard error.
//
// Threads: one.
#pragma once

#include <string>
#include <string_view>

namespace Kestrun::Tools {

// Must run first. Descriptors 0 to 2 that the caller left closed are opened on /dev/null, so that no file of
// a store gets one of their numbers.
void PrepareStreams();
bool StandardInputIsClosed();

// Appends to standard output, in large pieces. Throws SystemFailure when that fails.
void WriteData(std::string_view bytes);
// A line of data.
void WriteLine(std::string_view text);
// Hands over all data. Throws SystemFailure.
void FlushData();

enum class Verbosity { Quiet, Normal, Verbose };
void SetVerbosity(Verbosity verbosity);

// A line on standard error: errors and questions always, accounts and warnings
// unless --quiet, details with --verbose.
void PrintMessage(std::string_view text);
void PrintAccount(std::string_view text);
void PrintDetail(std::string_view text);
// Replaces the progress line at the end of standard error; empty to remove it.
void ShowProgress(std::string_view text);

bool StandardInputIsTerminal();
bool StandardOutputIsTerminal();
// Progress and other things that a person sees: on a terminal, unless --quiet.
bool ShowsProgress();

// Asks on the terminal; returns for a yes. `what` is a question without its question mark. For everything
// else it throws Declined with `unchanged`, and where nobody can be asked UsageError, which asks for --yes.
void Confirm(const std::string& what, const std::string& unchanged, bool yes);

}  // namespace Kestrun::Tools
