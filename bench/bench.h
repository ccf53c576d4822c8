// What all measurements share, and their list; main.cpp says what each measures.
#pragma once

#include <cstdint>
#include <string>

#include "bench/report.h"
#include "tests/support/plugin_host.h"

namespace kesto {

struct Bench {
    int rounds;
    std::string file;  // the largest that is scanned; smaller ones are its start
    Rows rows;
};

// An installation whose plug-in is started with the loopback's `port` as its only server. The process that
// the plug-in takes for its engine is the sink, whose program is named like it.
struct StartedPlugin : InstalledPlugin {
    explicit StartedPlugin(uint16_t port, bool encrypt = true);
    // Throws unless the file is found clean.
    void Scan(std::string_view data) const;
};

// The engine bridge as installed, in front of the loopback's `upstream`.
struct StartedBridge {
    explicit StartedBridge(uint16_t upstream);
    // Of all its processes.
    double WorkingSetKilobytes() const;

    Installation installed;
    const uint16_t port;
    const ProgramRun run;
};

void MeasureShift(Bench& bench);
// These need a sink, whose port they are given.
void MeasureScans(Bench& bench, uint16_t sink);
void MeasureMemory(Bench& bench, uint16_t sink);
void MeasureHost(Bench& bench, uint16_t sink);
void MeasureBridge(Bench& bench, uint16_t sink);

}  // namespace kesto
