// The engine's two programs, where they are ours: kestoav.exe, the guard, and kestobridge.exe, its worker.
#pragma once

#include "host/check/check_engine.h"

namespace kesto::host {

// Nothing where another program is in the guard's place.
Findings CheckGuard(const InstalledPlugin& installed, const InstalledBridge& bridge);

}  // namespace kesto::host
