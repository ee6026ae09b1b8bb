// tools/diagnostics.h: what the library says while a command runs. It stands in the message
// of a failure, and with
// --verbose it is shown at once.
//
// Threads: safe; the library speaks on any thread.
#pragma once

#include <string>

namespace Kestrun::Tools {

// Takes over the messages of the library, which then prints nothing.
void CatchDiagnostics();
// What was said since the last call, at most its last 2 KiB, without control characters.
std::string TakeDiagnostics();
// What it said about a log of which not all can be read, and about what it set aside of one; these
// are not among the others. Empty when it said nothing since the last call, without control
// characters and the full stop.
std::string TakeLogDamage();
std::string TakeSetAside();

}  // namespace Kestrun::Tools
