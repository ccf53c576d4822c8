#include "bridge/reload.h"

#include <windows.h>

#include <cstdio>
#include <utility>

#include "bridge/bridge_log.h"
#include "bridge/client.h"
#include "common/error_words.h"

namespace kesto::bridge {
namespace {

using namespace std::chrono_literals;

constexpr auto kBetweenLooks = 2s;

}  // namespace

void UseLogOf(const BridgeIni& ini, const std::wstring& program_folder) {
    if (UseBridgeLog(ini.log_path, ini.log_only_if_present)) {
        return;
    }
    const std::string problem = "cannot write the log file " +
                                (ini.settings.logfile.empty() ? "bridge.log" : ini.settings.logfile) + " - " +
                                ErrorWords(GetLastError());
    std::fprintf(stderr, "kestoav: %s\n", problem.c_str());
    UseBridgeLog(DefaultBridgeLog(program_folder), false);
    LogBridge("log", problem);
}

Reload::Reload(std::wstring program_folder)
    : folder_(std::move(program_folder)), taken_up_(Look()), seen_(taken_up_) {}

Reload::Stamp Reload::Look() const {
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExW((folder_ + L"\\bridge.ini").c_str(), GetFileExInfoStandard, &data)) {
        return {};
    }
    const auto whole = [](DWORD high, DWORD low) { return static_cast<uint64_t>(high) << 32 | low; };
    return {whole(data.ftLastWriteTime.dwHighDateTime, data.ftLastWriteTime.dwLowDateTime),
            whole(data.nFileSizeHigh, data.nFileSizeLow)};
}

void Reload::Tick(Bridge& bridge, Time now) {
    if (now < next_look_) {
        return;
    }
    next_look_ = now + kBetweenLooks;
    const Stamp stamp = Look();
    // A file that is missing, or was written a moment ago, may be in the middle of being saved.
    if (stamp != std::exchange(seen_, stamp) || stamp == taken_up_ || stamp == Stamp{}) {
        return;
    }
    taken_up_ = stamp;
    BridgeIni ini = ReadBridgeIni(folder_);
    if (!ini.problems.empty()) {
        for (const std::string& problem : ini.problems) {
            LogBridge("reload", "changed settings are not followed - " + problem);
        }
        return;
    }
    BridgeSettings& settings = bridge.settings;
    // The address that it has until it is started anew may stand there for another server already.
    for (const ServerAddress& server : ini.settings.upstreams) {
        if (IsBridgeItself(server, settings, bridge.own)) {
            LogBridge("reload", "changed settings are not followed - upstream " + AddressText(server) +
                                    " is the bridge itself until it is restarted");
            return;
        }
    }
    const bool restart_wanted =
        !(ini.settings.listen == settings.listen) || ini.settings.decrypt != settings.decrypt;
    ini.settings.listen = settings.listen;
    ini.settings.decrypt = settings.decrypt;
    if (ini.settings.logfile != settings.logfile) {
        UseLogOf(ini, folder_);
    }
    settings = std::move(ini.settings);
    Apply(bridge, now);
    LogBridge("reload", "changed settings taken up: " + SettingsText(settings));
    if (restart_wanted) {
        LogBridge("reload", "listen and decrypt are taken up by a restart only");
    }
    bridge.place.Open();
    AdvanceWaiting(bridge);
}

}  // namespace kesto::bridge
