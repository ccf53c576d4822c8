// The engine program, its process, and the bridge's own settings and log.
#pragma once

#include "common/bridge_ini.h"
#include "host/check/check_report.h"
#include "host/common/installed_plugin.h"

namespace kesto::host {

// The bridge as its files describe it.
struct InstalledBridge {
    BridgeIni ini;
    bool has_ini;                    // there is a bridge.ini
    bool used;                       // one of the plug-in's servers is the bridge
    std::vector<ServerAddress> own;  // addresses of this machine
    std::string last_end;            // "cannot start - ...", if that is the last line of the log
};

// Whether the plug-in reaches the bridge by this entry of its list. A name may be any address.
bool LeadsTo(const Endpoint& server, const InstalledBridge& bridge);

// Whether it is one to listen on and connect to.
bool IsOfThisMachine(const ServerAddress& listen, const InstalledBridge& bridge);

// What to do when the engine at this entry of the list finds viruses only in bytes shifted the other way.
std::string ShiftRemedy(const Endpoint& server, const InstalledPlugin& installed,
                        const InstalledBridge& bridge);

InstalledBridge ReadBridge(const InstalledPlugin& installed);

// Whether no engine runs and none is needed yet.
bool StartsWithTheFirstScan(const InstalledPlugin& installed, const InstalledBridge& bridge);

Findings CheckEngineProgram(const InstalledPlugin& installed);
Findings CheckBridgeSettings(const InstalledPlugin& installed, const InstalledBridge& bridge);
Findings CheckEngineProcess(const InstalledPlugin& installed, const InstalledBridge& bridge);

}  // namespace kesto::host
