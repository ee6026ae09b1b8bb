// tools/streams.h: where the program's output goes. Data, and nothing else, goes to what was standard output
// when the program began; messages and whatever the library prints go to standard error.
//
// Threads: one.
#pragma once

#include <string>
#include <string_view>

namespace Kestrun::Tools {

// Must run before anything is printed. Afterwards printf writes to standard error. Descriptors 0 to 2 that
// the caller left closed are opened on /dev/null, so that no file of a store gets one of their numbers.
void PrepareStreams();

// Writes to standard output. Throws SystemFailure when that fails.
void WriteData(std::string_view bytes);
// A line of data.
void WriteLine(std::string_view text);
// Hands over all data; to be called at the end. Throws SystemFailure.
void FinishData();

// Hands over what the library has printed, with a line end behind it.
void FlushDiagnostics();
// A line on standard error, behind the diagnostics.
void PrintMessage(std::string_view text);
// Replaces the progress line at the end of standard error; empty to remove it.
void ShowProgress(std::string_view text);

bool StandardErrorIsTerminal();

}  // namespace Kestrun::Tools
