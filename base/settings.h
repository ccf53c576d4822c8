// The settings, read once at start-up from the ini file in the plug-in folder.
#pragma once

#include <cstdint>

#include "base/bounded_text.h"

namespace kesto {

struct ScannerSettings {
    char servers[1000] = "127.0.0.1:3313";  // engine servers, separated by single blanks
    bool encrypt = true;                    // shift every data byte down by one
    bool autostart = true;                  // start the engine at start-up
    uint32_t startwait = 120;      // seconds for a restart of the engine and for connecting afterwards
    uint32_t connectwait = 10;     // seconds of connecting before the engine is restarted
    uint32_t restartcount = 3;     // read since administrators' files have it; has no effect
    char logfile[kPathSize] = "";  // empty: see FindLogPath
};

// The plug-in's own. Written only during start-up.
ScannerSettings& Settings();

// Reads `folder`\kestoav.ini. Without that file only `logfile` changes: it becomes empty.
void ReadSettings(const char* folder, ScannerSettings& settings);

}  // namespace kesto
