// Starts the engine before the plug-in does: of several scans at a time, each would start one for itself.
#pragma once

#include "host/common/installed_plugin.h"

namespace kesto::host {

enum class EngineStart {
    kRuns,         // one runs already
    kStarted,      // by us
    kEndedAtOnce,  // whenever it is started
    kNotStarted,   // the system does not start it
};

// Starts the engine of the installation unless one runs that the plug-in can see. Says so on standard error
// and waits a moment until it listens or ends. If it ends, nothing else is done about it.
EngineStart EnsureEngine(const InstalledPlugin& installed);

// Whether the engine that EnsureEngine started last has ended by itself, and no other runs in its place.
bool StartedEngineIsGone();

}  // namespace kesto::host
