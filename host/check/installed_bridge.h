// The bridge as its files describe it.
#pragma once

#include <string>
#include <vector>

#include "common/bridge_ini.h"
#include "host/common/installed_plugin.h"

namespace kesto::host {

struct InstalledBridge {
    BridgeIni ini;
    bool has_ini;                    // there is a bridge.ini
    bool used;                       // one of the plug-in's servers is the bridge
    std::vector<ServerAddress> own;  // addresses of this machine
    std::string last_end;            // "cannot start - ...", if that is the last line of the log
};

InstalledBridge ReadBridge(const InstalledPlugin& installed);

// Whether the plug-in reaches the bridge by this entry of its list. A name may be any address.
bool LeadsTo(const Endpoint& server, const InstalledBridge& bridge);

// Whether it is one to listen on and connect to.
bool IsOfThisMachine(const ServerAddress& listen, const InstalledBridge& bridge);

// Whether no engine runs and none is needed yet.
bool StartsWithTheFirstScan(const InstalledPlugin& installed, const InstalledBridge& bridge);

}  // namespace kesto::host
