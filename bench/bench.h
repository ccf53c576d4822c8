// What all measurements share, and their list; main.cpp says what each measures.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/report.h"

namespace kesto {

struct Bench {
    int rounds;
    std::vector<uint8_t> file;  // the largest that is scanned; smaller ones are its start
    Rows rows;
};

// Two programs beside Wine, see unix_peer.cpp.
struct UnixPeer {
    uint16_t sink = 0;   // its port
    std::string sender;  // its command line, but for port, count and size
};

void MeasureShift(Bench& bench);
void MeasureProcessWalks(Bench& bench);

// These need a sink engine, named as the plug-in asks for it.
void MeasureScans(Bench& bench, uint16_t sink);
void MeasureThreads(Bench& bench, uint16_t sink);
void MeasureCall(Bench& bench, uint16_t sink);
void MeasureMemory(Bench& bench, uint16_t sink);

// Starts a bridge of its own.
void MeasureBridge(Bench& bench, uint16_t sink, const UnixPeer& peer);

void MeasureDelayedAcknowledgements(Bench& bench, const UnixPeer& peer);
// The command-line host over many small files.
void MeasureHost(Bench& bench, uint16_t sink);
// `clamdscan` is the command line of clamd's own client, without files.
void MeasureClamd(Bench& bench, uint16_t clamd, const std::string& clamdscan);

}  // namespace kesto
