// Engine servers, asked directly and not through the plug-in.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "common/server_talk.h"
#include "host/check/check_report.h"

namespace kesto::host {

struct CheckedServer {
    std::string name;  // for the report: "server 127.0.0.1:3313"
    Endpoint address;
    bool of_plugin;            // connected to as the plug-in does; otherwise a clamd behind the bridge
    bool encrypt;              // the samples' bytes are shifted
    std::string shift_remedy;  // what to do where viruses are found only when that is the other way round
};

// Connects to each, asks for a sign of life and the version, and has a clean and an infected sample and a
// longer clean stream scanned, five at a time of each. The findings are in the order of the servers. Ends by
// the deadline, whatever they do. `progress` is told now and then how many are done.
std::vector<Findings> CheckServers(const std::vector<CheckedServer>& servers, Deadline deadline,
                                   const std::function<void(size_t)>& progress);

}  // namespace kesto::host
