// Starts the engine before the plug-in does, since of several scans at a time each would start one for
// itself, and ends what was started here, so that the machine is left as it was found: the mail server's
// account could not see an engine of ours, and could not use its own beside it.
#pragma once

#include <string>

#include "host/common/installed_plugin.h"

namespace kesto::host {

enum class EngineStart {
    kRuns,      // one runs already
    kStarted,   // by us
    kUnusable,  // it ends at once, or one runs that this account may not see: the plug-in would start another
    kNotStarted,  // the system does not start it
};

// Starts the engine of the installation unless one runs. Says so on standard error and waits a moment until
// it listens or ends. If it ends, nothing else is done about it. Where none of the installation runs, those
// that run from then on are ours.
EngineStart EnsureEngine(const InstalledPlugin& installed);

// Whether the engine that EnsureEngine started last has ended by itself, and no other runs in its place.
bool StartedEngineIsGone();

// To be called before the first scan: engines that the plug-in starts end with this process, however that
// ends, if they are ours. The thread of a scan that has been given up goes on starting them.
void TieEngines();

// To be called when a scan of ours begins, which the engine counts like those of others.
void CountOwnScan();

// Ends the engines that are ours, unless others have scanned there as well; then returns a line that says so.
// To be called just before the process ends, by any thread.
std::string EndOwnEngines();

}  // namespace kesto::host
