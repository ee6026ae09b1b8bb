// kestrun/diagnostics.h: where the library's messages go.
//
// A message tells a person what a status alone can't, such as the path of a file and the
// system's reason. Programs decide by statuses; the wording may change, except for the messages
// that LSDBImpl and Series document.
#pragma once

#include <string_view>

#include "kestrun/export.h"

namespace Kestrun {

// Receives the pieces of a message in the order in which they would be printed, line ends included. `message`
// is valid during the call. It runs on the thread of the call that has something to say, perhaps on several
// threads at once and while locks are held: it must not call the library and must not throw.
using DiagnosticHandler = void (*)(void* context, std::string_view message);

// Sends every message of the process to `handler` from now on, those of LSDBImpl and Series included. Null,
// the default: LSDBImpl and Series print to standard output, Store and everything beside it say nothing. Safe
// from any thread; a call in progress may still use the handler from before.
KESTRUN_EXPORT void SetDiagnosticHandler(DiagnosticHandler handler, void* context);

}  // namespace Kestrun
