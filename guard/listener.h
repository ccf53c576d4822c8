// The listening socket, which the guard owns for as long as it lives.
#pragma once

#include <winsock2.h>

#include <string>

namespace kesto::guard {

// Listens where bridge.ini says, or else at the default. Nobody else may take the port as well. Where it
// cannot be had, as it may be for a moment after a restart, tries again for ten seconds; then
// INVALID_SOCKET. Says so in the log.
SOCKET Listen(const std::wstring& folder);

// Takes the clients that wait and hangs up: to the plug-in these are scans without a reply. Each is let
// finish its sending first, which a reset would turn into another error.
void TurnAway(SOCKET listener);

}  // namespace kesto::guard
