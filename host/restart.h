// Restarts the bridge without losing a scan.
#pragma once

#include <cstdint>
#include <optional>

#include "host/common/installed_plugin.h"
#include "host/common/port_owner.h"

namespace kesto::host {

// Lets the guard start a new kestobridge.exe, which takes the place of the running one. Tells the outcome and
// returns the exit status.
int Restart(const InstalledPlugin& installed);

// Whether the process at the other end of the guard's pipe, which anybody could have made before it, is the
// guard: it owns the port at which the guard listens. Where Windows does not tell who does, or nobody does
// since `listen` has been changed, its program has to be in the guard's folder.
bool IsGuard(uint32_t answering, const std::optional<PortOwner>& owner, bool from_its_folder);

}  // namespace kesto::host
