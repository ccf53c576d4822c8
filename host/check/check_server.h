// One engine server, asked directly and not through the plug-in.
#pragma once

#include "base/server_list.h"
#include "host/check/check_report.h"

namespace kesto {

// Connects, asks for a sign of life and the version, and scans a clean and an infected sample with the
// byte shift on or off as `encrypt` says.
void CheckServer(CheckReport& report, const ServerEntry& server, bool encrypt);

}  // namespace kesto
