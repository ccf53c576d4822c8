#include "bridge/reload.h"

#include <utility>

#include "common/bridge_ini.h"
#include "common/bridge_log.h"

namespace kesto::bridge {
namespace {

using namespace std::chrono_literals;

constexpr auto kBetweenLooks = 2s;

}  // namespace

Reload::Reload(std::wstring program_folder)
    : folder_(std::move(program_folder)), taken_up_(IdentityOf(BridgeIniPath(folder_))), seen_(taken_up_) {}

void Reload::Tick(Bridge& bridge, Time now) {
    if (now < next_look_) {
        return;
    }
    next_look_ = now + kBetweenLooks;
    const std::optional<FileIdentity> stamp = IdentityOf(BridgeIniPath(folder_));
    // A file that is missing, or was written a moment ago, may be in the middle of being saved.
    if (stamp != std::exchange(seen_, stamp) || stamp == taken_up_ || !stamp) {
        return;
    }
    BridgeIni ini = ReadBridgeIni(folder_, bridge.settings.listen);
    if (!ini.readable && stamp == std::exchange(unreadable_, stamp)) {
        return;  // this has been logged, and the file will be looked at again
    }
    taken_up_ = !ini.readable ? taken_up_ : stamp;
    if (!ini.problems.empty()) {
        for (const std::string& problem : ini.problems) {
            LogBridge("reload", "changed settings are not followed - " + problem);
        }
        return;
    }
    BridgeSettings& settings = bridge.settings;
    const bool restart_wanted =
        !(ini.settings.listen == settings.listen) || ini.settings.decrypt != settings.decrypt;
    ini.settings.listen = settings.listen;
    ini.settings.decrypt = settings.decrypt;
    if (ini.settings.logfile != settings.logfile) {
        if (const std::string problem = UseBridgeLog(ini.settings, folder_); !problem.empty()) {
            LogBridge("log", problem);
        }
    }
    settings = std::move(ini.settings);
    Apply(bridge, now);
    LogBridge("reload", "changed settings taken up: " + SettingsText(settings));
    if (restart_wanted) {
        LogBridge("reload", "listen and decrypt are taken up by a restart only");
    }
}

}  // namespace kesto::bridge
