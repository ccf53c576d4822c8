// The engine, started by us and not by the plug-in, so that it lives on: what the plug-in starts shares our
// console and process group, and Ctrl-C would end it under every other user of it.
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
