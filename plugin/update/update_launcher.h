// Signature updates: runs the updater program and reports how it ended.
#pragma once

#include <cstdint>

namespace kesto {

// Runs kestoavu.exe in the engine folder and waits for its end, however long that takes. Returns 1 when it
// ended with 0 or when another update is under way. Returns 0 when it failed or there is no licence, and then
// writes `title` (kUpdateTitleSize bytes) and `message` (kUpdateMessageSize bytes); either may be null.
uint32_t RunUpdate(char* title, char* message);

}  // namespace kesto
