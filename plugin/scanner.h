// Start-up of the scanner.
#pragma once

#include <cstdint>

namespace kesto {

// Fills the host's name buffers (kShortNameSize and kLongNameSize bytes) and `out_value`, each of which
// may be null, reads the settings of `folder`, opens the log and, with autostart, starts the engine
// unless one runs. Returns 0 on success; 1 for an interface version other than kInterfaceVersion; -1 when the
// socket layer cannot be started; ERROR_INVALID_PARAMETER when `folder` is null; ERROR_NOT_ENOUGH_MEMORY when
// there is no memory for the servers; otherwise the system error code of the engine's start. Settings,
// servers and log are in place then, too, except after the two errors that are named.
int32_t InitializeScanner(int32_t interface_version, char* short_name, char* long_name, uint32_t* out_value,
                          const char* folder);

}  // namespace kesto
