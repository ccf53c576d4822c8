// The bridge's counters, which zSTATS asks for.
#pragma once

#include <chrono>
#include <string>

#include "common/server_address.h"

namespace kesto::host {

// Of the bridge that listens there; empty when none answers in time.
std::string BridgeStats(const ServerAddress& listen, std::chrono::milliseconds limit);

// The sum of all values of this name in them; 0 without any.
double StatsValue(const std::string& stats, const std::string& name);

}  // namespace kesto::host
