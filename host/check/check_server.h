// Engine servers, asked directly and not through the plug-in.
#pragma once

#include <string>
#include <vector>

#include "common/server_talk.h"
#include "host/check/findings.h"

namespace kesto::host {

struct CheckedServer {
    std::string name;  // for the report: "server 127.0.0.1:3313"
    Endpoint address;
    bool of_plugin;            // connected to in the plug-in's way; otherwise it is a clamd behind the bridge
    bool encrypt;              // the samples' bytes are shifted
    std::string shift_remedy;  // what to do when viruses are found only with the opposite of `encrypt`
};

// Connects to each server, asks for a sign of life and the version, and has it scan a clean and an infected
// sample and a longer clean stream. The findings are in the order of the servers. Ends by the deadline,
// whatever they do, and shows how many are done.
std::vector<Findings> AskServers(const std::vector<CheckedServer>& servers, Deadline deadline);

}  // namespace kesto::host
