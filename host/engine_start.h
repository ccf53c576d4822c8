// The engine, started before the plug-in does: with several scans at a time, each would start it for itself.
#pragma once

#include <string>

#include "host/common/installed_plugin.h"

namespace kesto::host {

enum class EngineStart {
    kRuns,         // one does already
    kStarted,      // by us
    kEndedAtOnce,  // whenever it is started
    kNotStarted,   // the system does not start it
};

// Starts the installation's engine unless one runs that the plug-in can see, says so on standard error, and
// waits a moment for it to listen or to end. Does nothing else about one that ends.
EngineStart EnsureEngine(const InstalledPlugin& installed);

// Whether the engine that EnsureEngine started last has ended by itself, and no other runs in its place.
bool StartedEngineIsGone();

// What is known about an engine that ends at once, for standard error.
std::string EngineEndsText(const InstalledPlugin& installed);

}  // namespace kesto::host
