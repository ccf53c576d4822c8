// Restarts the bridge without losing a scan.
#pragma once

#include "host/common/installed_plugin.h"

namespace kesto::host {

// Lets the guard start a new kestobridge.exe, which takes the place of the running one. Tells the outcome and
// returns the exit status.
int Restart(const InstalledPlugin& installed);

}  // namespace kesto::host
