// The listening socket, which the guard owns for as long as it lives.
#pragma once

#include <winsock2.h>

#include <string>

namespace kesto::guard {

// Listens where bridge.ini says, or else at the default. Nobody else may take the port as well. Where it
// cannot be had, as it may be for a moment after a restart, tries again for ten seconds, and says so in the
// log; `quietly`, for a second and without a word. Then INVALID_SOCKET.
SOCKET Listen(const std::wstring& folder, bool quietly);

// Whether a client waits to be accepted.
bool HasClient(SOCKET listener);

// Takes clients that wait and hangs up: to the plug-in these are scans without a reply. Each is let finish
// its sending first, which a reset would turn into another error. Only so many at a time that the guard can
// go on with its work; true when none is left.
bool TurnAway(SOCKET listener);

}  // namespace kesto::guard
