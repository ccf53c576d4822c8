// Signature updates: runs the updater program and reports how it ended.
#pragma once

#include <cstdint>

namespace kesto {

// Runs kestoavu.exe of the engine folder and waits for its end, without a limit. Returns 1 when it ended
// with 0 or when an update is already under way, and 0 when it failed or no licence is held, with
// `title` (kUpdateTitleSize bytes) and `message` (kUpdateMessageSize bytes) written; either may be null.
uint32_t RunUpdate(char* title, char* message);

}  // namespace kesto
