// The local engine process, kestoav.exe. It is looked for by its program's name each time, never by a handle.
#pragma once

#include <cstdint>

namespace kesto {

// The ID of the first running process whose program file is named kestoav.exe, in upper or lower case and in
// any folder; 0 when there is none or the system does not tell.
uint32_t FindEngineProcess();

// Starts the engine that is in the engine folder. Returns 0 or the system error code. Does not wait until it
// accepts connections.
uint32_t StartEngineProcess();

struct Restart {
    bool running;    // whether an engine process exists at the end
    uint32_t began;  // the tick count at which the restart began
};

// Stops the engine, waits for its end, starts it and waits until it runs. All this takes little more than
// `startwait` seconds.
Restart RestartEngineProcess();

}  // namespace kesto
