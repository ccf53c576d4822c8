// The engine program, its process, and the bridge's own settings and log.
#pragma once

#include "common/bridge_ini.h"
#include "host/check/check_report.h"
#include "host/common/installed_plugin.h"

namespace kesto::host {

// The bridge as its files describe it.
struct InstalledBridge {
    BridgeIni ini;
    bool has_ini;          // there is a bridge.ini
    bool used;             // the plug-in's servers name the address on which the bridge listens
    std::string last_end;  // "cannot start - ...", when that is the log's last line
};

InstalledBridge ReadBridge(const InstalledPlugin& installed);

Findings CheckEngineProgram(const InstalledPlugin& installed);
Findings CheckBridgeSettings(const InstalledPlugin& installed, const InstalledBridge& bridge);
Findings CheckEngineProcess(const InstalledPlugin& installed, const InstalledBridge& bridge);

}  // namespace kesto::host
