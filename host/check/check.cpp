#include "host/check/check.h"

#include <chrono>
#include <functional>
#include <utility>

#include "common/processes.h"
#include "common/text.h"
#include "host/check/checks.h"

namespace kesto::host {
namespace {

// From the start of the check; the rest takes hardly any time.
constexpr std::chrono::seconds kServersLimit(27);

}  // namespace

int CheckInstallation(const std::wstring& library, const std::wstring& folder, bool json) {
    const Deadline servers_end = std::chrono::steady_clock::now() + kServersLimit;
    const InstalledPlugin installed = ReadInstalledPlugin(folder);
    const InstalledBridge bridge = ReadBridge(installed);
    const std::pair<const char*, std::function<void(Findings&)>> looked_at[] = {
        {"the library", [&](Findings& findings) { CheckLibrary(findings, library); }},
        {"the folder", [&](Findings& findings) { CheckFolder(findings, installed); }},
        {"the rights", [&](Findings& findings) { CheckRights(findings, installed); }},
        {"the settings", [&](Findings& findings) { CheckSettings(findings, installed); }},
        {"the log", [&](Findings& findings) { CheckLog(findings, installed); }},
        {"the engine's program", [&](Findings& findings) { CheckEngineProgram(findings, installed); }},
        {"the bridge", [&](Findings& findings) { CheckBridge(findings, installed, bridge); }},
        {"the engine", [&](Findings& findings) { CheckEngineProcess(findings, installed, bridge); }},
        {"the guard", [&](Findings& findings) { CheckGuard(findings, installed, bridge); }},
        {"the servers", [&](Findings& findings) { CheckServers(findings, installed, bridge, servers_end); }},
        {"the updater", [&](Findings& findings) { CheckUpdater(findings, installed, bridge); }},
    };
    CheckReport report(json);
    for (const auto& [what, check] : looked_at) {
        ShowStep(what);
        Findings findings;
        check(findings);
        report.Add(findings);
    }
    return report.Finish();
}

std::string WhyEngineEnds(const InstalledPlugin& installed) {
    const InstalledBridge bridge = ReadBridge(installed);
    Findings findings;
    CheckEngineProgram(findings, installed);
    CheckBridge(findings, installed, bridge);
    CheckEngineProcess(findings, installed, bridge);
    std::string lines;
    for (const Finding& finding : findings.All()) {
        if (finding.state == CheckState::kFailed) {
            lines += FindingLine(finding) + "\n";
        }
    }
    return lines;
}

std::string WhyUnusable(const InstalledPlugin& installed) {
    if (const std::string hidden = HiddenEngine(EngineProcesses()); !hidden.empty()) {
        return hidden +
               ", which this account may not see: a scan cannot use it, and no other one was started. Run "
               "kestoscan as an administrator, or under that account\n";
    }
    return "the engine " + Utf8FromWide(installed.engine) + " ends at once\n" + WhyEngineEnds(installed);
}

}  // namespace kesto::host
