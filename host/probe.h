// Questions to the engine without the plug-in.
#pragma once

#include <string>

#include "host/common/installed_plugin.h"

namespace kesto::host {

// Lets the server that the plug-in would use scan a few clean bytes, again and again for `wait_seconds`, and
// at least once, until they are found clean. `words` tells the result of the last try, in one line.
Fault AwaitEngine(const InstalledPlugin& installed, unsigned wait_seconds, std::string& words);

// Why a scan would wait for a server for ever; empty when one accepts a connection.
std::string NoServerAccepts(const InstalledPlugin& installed);

// Whether the server that the plug-in asks for its version tells it.
bool VersionIsTold(const InstalledPlugin& installed);

// Prints the result of asking the engine and returns the exit status.
int Ping(const InstalledPlugin& installed, unsigned wait_seconds);

// Prints the engine's counters and returns the exit status.
int PrintStats(const InstalledPlugin& installed);

}  // namespace kesto::host
