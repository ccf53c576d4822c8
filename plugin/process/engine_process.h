// The local engine process, kestoav.exe: found by its program's name each time, never by a handle.
#pragma once

#include <cstdint>

namespace kesto {

// The ID of the first running process whose program file is named kestoav.exe, in any case and folder;
// 0 when there is none or the system does not tell.
uint32_t FindEngineProcess();

// Starts the engine of the engine folder. Returns 0 or the system error code. Does not wait for it to
// accept connections.
uint32_t StartEngineProcess();

// Asks for the end of the engine that FindEngineProcess finds, and does not wait for it.
void StopEngineProcess();

struct Restart {
    bool running;    // whether an engine process exists at the end
    uint32_t began;  // the tick count at which the restart began
};

// Stops the engine, waits for its end, starts it and waits for its start, for a little over `startwait`
// seconds in all.
Restart RestartEngineProcess();

}  // namespace kesto
