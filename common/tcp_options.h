// Options of a TCP socket, given as its system handle, for which there is no portable name.
#pragma once

#include <cstdint>

namespace kesto {

// The plug-in sends a chunk and its length separately, and its Windows holds the second back until the first
// is acknowledged. The receiver's Windows delays that by 40 to 200 ms, unless it is told to acknowledge at
// once. False where the system has no such option.
bool AcknowledgeAtOnce(uintptr_t socket);

// A machine that was reset, or a firewall that has forgotten the connection, tells so only when it is asked:
// after 10 s of silence, and then every second.
void KeepAlive(uintptr_t socket);

}  // namespace kesto
