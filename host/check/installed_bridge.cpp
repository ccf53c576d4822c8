#include "host/check/installed_bridge.h"

#include <windows.h>

#include <algorithm>

#include "common/file_bytes.h"
#include "common/processes.h"
#include "common/text.h"

namespace kesto::host {
namespace {

constexpr uint32_t kLogTail = 4096;  // bytes; holds the last line

// The last line of the bridge's log, if it tells why the bridge did not start.
std::string LastEnd(const std::wstring& log_path) {
    std::string line = FileTail(log_path, kLogTail);
    line.erase(line.find_last_not_of("\r\n") + 1);
    line.erase(0, line.find_last_of("\r\n") + 1);
    const size_t at = line.find(kCannotStart);
    return at == std::string::npos ? "" : Utf8FromAnsi(line.substr(at));
}

}  // namespace

bool LeadsTo(const Endpoint& server, const InstalledBridge& bridge) {
    const ServerAddress& listen = bridge.ini.settings.listen;
    if (server.port != listen.port) {
        return false;
    }
    auto address = ParseHost(server.host);
    if (!address || address->kind == HostKind::kName) {
        return address.has_value();
    }
    address->port = listen.port;
    return listen.host == "0.0.0.0" ? IsOfThisMachine(*address, bridge) : *address == listen;
}

bool IsOfThisMachine(const ServerAddress& listen, const InstalledBridge& bridge) {
    ServerAddress address = listen;
    address.port = 0;
    return address.bytes[0] == 127 ||
           std::find(bridge.own.begin(), bridge.own.end(), address) != bridge.own.end();
}

InstalledBridge ReadBridge(const InstalledPlugin& installed) {
    InstalledBridge bridge;
    bridge.has_ini = !IsMissing(BridgeIniPath(installed.engine_folder));
    bridge.ini = ReadBridgeIni(installed.engine_folder);
    bridge.own = OwnAddresses();
    bridge.used = std::any_of(installed.servers.begin(), installed.servers.end(),
                              [&](const Endpoint& server) { return LeadsTo(server, bridge); });
    bridge.last_end = LastEnd(BridgeLogPath(bridge.ini.settings, installed.engine_folder));
    return bridge;
}

bool StartsWithTheFirstScan(const InstalledPlugin& installed, const InstalledBridge& bridge) {
    return !installed.settings.autostart && bridge.last_end.empty() && EngineProcesses().empty() &&
           !ProgramFault(installed.engine);
}

}  // namespace kesto::host
