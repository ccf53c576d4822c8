// The engine's two programs, if they are ours: kestoav.exe, the guard, and kestobridge.exe, its worker.
#pragma once

#include "host/check/check_engine.h"

namespace kesto::host {

// Reports nothing when another program is in the guard's place.
Findings CheckGuard(const InstalledPlugin& installed, const InstalledBridge& bridge);

}  // namespace kesto::host
