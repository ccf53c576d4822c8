#include "host/check/check.h"

#include <windows.h>

#include <chrono>
#include <vector>

#include "common/text.h"
#include "host/check/check_engine.h"
#include "host/check/check_guard.h"
#include "host/check/check_report.h"
#include "host/check/check_server.h"
#include "host/check/check_settings.h"
#include "host/common/plugin_library.h"

namespace kesto::host {
namespace {

constexpr size_t kLongestProgramPath = 259;

// From the start of the check; the rest takes hardly any time.
constexpr std::chrono::seconds kServersLimit(27);

Findings CheckLibrary(const std::wstring& path) {
    Findings findings;
    PluginLibrary plugin;
    const Fault fault = LoadPlugin(path, plugin);
    if (!fault) {
        ClosePlugin(plugin);
        findings.Ok("library", Utf8FromWide(path) + " loads and has all its exports");
    } else {
        findings.Failed("library", fault.text, "copy CLAMDLL.dll from the release again");
    }
    return findings;
}

Findings CheckFolder(const InstalledPlugin& installed) {
    Findings findings;
    if (installed.folder_fault) {
        findings.Failed("folder", installed.folder_fault.text,
                        "install into a shorter path, with plain letters");
    } else if (!HoldsPlugin(installed)) {
        findings.Failed("folder", Utf8FromWide(installed.folder) + " holds no part of the plug-in",
                        "name the folder in which kestoav.ini and plugins lie");
    }
    return findings;
}

bool AllWell(const std::vector<Findings>& all) {
    for (const Findings& each : all) {
        if (each.Any(CheckState::kFailed)) {
            return false;
        }
    }
    return true;
}

class Check {
 public:
    Check(const std::wstring& folder, bool json) : report_(json), installed_(ReadInstalledPlugin(folder)) {}

    int Run(const std::wstring& library) {
        report_.Step("the library");
        report_.Add(CheckLibrary(library));
        report_.Step("the settings");
        report_.Add(CheckFolder(installed_));
        report_.Add(CheckSettings(installed_));
        report_.Add(CheckLog(installed_));
        report_.Step("the engine");
        const InstalledBridge bridge = ReadBridge(installed_);
        report_.Add(CheckEngineProgram(installed_));
        report_.Add(CheckBridgeSettings(installed_, bridge));
        report_.Add(CheckEngineProcess(installed_, bridge));
        report_.Add(CheckGuard(installed_, bridge));
        CheckAllServers(bridge);
        report_.Add(CheckUpdater(bridge));
        return report_.Finish();
    }

 private:
    void CheckAllServers(const InstalledBridge& bridge) {
        std::vector<CheckedServer> asked;
        const bool not_yet = StartsWithTheFirstScan(installed_, bridge);
        for (const Endpoint& server : installed_.servers) {
            if (not_yet && LeadsTo(server, bridge)) {
                continue;
            }
            asked.push_back({"server " + AddressText(server), server, true, installed_.settings.encrypt,
                             ShiftRemedy(server, installed_, bridge)});
        }
        const size_t servers = asked.size();
        if (bridge.used && bridge.ini.problems.empty()) {
            for (const ServerAddress& server : bridge.ini.settings.upstreams) {
                asked.push_back({"upstream " + kesto::AddressText(server),
                                 {server.host, server.port},
                                 false,
                                 false,
                                 "have it leave the bytes alone, as a stock clamd does"});
            }
        }
        std::vector<Findings> all = CheckServers(asked, start_ + kServersLimit, [&](size_t done) {
            report_.Step("the servers: " + std::to_string(done) + " of " + std::to_string(asked.size()) +
                         " done");
        });
        const std::vector<Findings> upstreams(all.begin() + static_cast<ptrdiff_t>(servers), all.end());
        all.resize(servers);
        for (const Findings& each : all) {
            report_.Add(each);
        }
        TellWhetherTheyMeet(bridge, AllWell(all));
        // Without a bridge.ini there may be another engine in place of the bridge. As long as that scans, the
        // servers behind it do not matter here.
        if (bridge.has_ini || !AllWell(all)) {
            for (const Findings& each : upstreams) {
                report_.Add(each);
            }
        }
    }

    void TellWhetherTheyMeet(const InstalledBridge& bridge, bool all_well) {
        if (!bridge.has_ini || bridge.used || !bridge.ini.problems.empty()) {
            return;
        }
        Findings findings;
        const std::string listen = kesto::AddressText(bridge.ini.settings.listen);
        const std::string text =
            "listen=" + listen + " is not one of servers= in kestoav.ini: scans bypass the bridge";
        const std::string here = "127.0.0.1:" + std::to_string(bridge.ini.settings.listen.port);
        if (all_well) {
            findings.Ok("bridge settings", text);
        } else if (IsOfThisMachine(bridge.ini.settings.listen, bridge)) {
            findings.Failed("bridge settings", text, "write servers=" + listen + " into kestoav.ini");
        } else {
            findings.Failed("bridge settings", text,
                            "write listen=" + here + " into bridge.ini and servers=" + here +
                                " into kestoav.ini: this machine can be reached there");
        }
        report_.Add(findings);
    }

    Findings CheckUpdater(const InstalledBridge& bridge) const {
        Findings findings;
        const std::string name = Utf8FromWide(installed_.updater);
        if (installed_.updater.size() > kLongestProgramPath) {
            findings.Warning("updater", name + " is too long a path for the plug-in to start the program",
                             "install into a folder of at most 228 characters if there is to be an updater");
            return findings;
        }
        for (const std::string& problem : bridge.ini.updater_problems) {
            findings.Failed("updater", problem, "correct that line: no signatures are updated");
        }
        const Fault fault = ProgramFault(installed_.updater);
        if (fault.code == ERROR_FILE_NOT_FOUND) {
            findings.Ok("updater", name + " is not there, and not needed where clamd has its own");
        } else if (fault) {
            findings.Failed("updater", name + " " + fault.text + ": no update can be started",
                            "put a program there, or remove it");
        } else {
            findings.Ok("updater", name + " is there");
        }
        return findings;
    }

    const Deadline start_ = std::chrono::steady_clock::now();
    CheckReport report_;
    const InstalledPlugin installed_;
};

}  // namespace

int CheckInstallation(const std::wstring& library, const std::wstring& folder, bool json) {
    return Check(folder, json).Run(library);
}

std::string WhyEngineEnds(const InstalledPlugin& installed) {
    const InstalledBridge bridge = ReadBridge(installed);
    std::string lines;
    for (const Findings& each : {CheckEngineProgram(installed), CheckBridgeSettings(installed, bridge),
                                 CheckEngineProcess(installed, bridge)}) {
        for (const Finding& finding : each.All()) {
            if (finding.state == CheckState::kFailed) {
                lines += FindingLine(finding) + "\n";
            }
        }
    }
    return lines;
}

}  // namespace kesto::host
