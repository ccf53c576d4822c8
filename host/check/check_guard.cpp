#include <windows.h>

#include <chrono>

#include "common/guard_words.h"
#include "common/our_version.h"
#include "common/processes.h"
#include "common/server_talk.h"
#include "common/text.h"
#include "host/check/checks.h"
#include "host/common/bridge_stats.h"

namespace kesto::host {
namespace {

constexpr std::chrono::seconds kAnswerLimit(2);
constexpr double kOften = 3;           // starts
constexpr double kLately = 10 * 60.0;  // seconds

}  // namespace

void CheckGuard(Findings& findings, const InstalledPlugin& installed, const InstalledBridge& bridge) {
    const std::string check = "engine worker";
    const std::wstring worker = installed.engine_folder + L"\\" + kWorkerProgram;
    const std::wstring guard_version = OurVersion(installed.engine);
    if (guard_version.empty()) {
        return;
    }
    if (!IsFile(worker)) {
        findings.Failed(check, Utf8FromWide(worker) + " is missing: every scan ends with error 1003",
                        "copy kestobridge.exe from the release there");
        return;
    }
    const std::wstring version = OurVersion(worker);
    if (version.empty()) {
        findings.Failed(check, Utf8FromWide(worker) + " is damaged", "copy it from the release again");
    } else if (version != guard_version) {
        findings.Warning(
            check,
            "kestobridge.exe is of version " + Utf8FromWide(version) + ", its guard kestoav.exe of " +
                Utf8FromWide(guard_version),
            "kestoav.exe is replaced when it ends: stop the mail server some time, end kestoav.exe, and "
            "copy it from the same release");
    }
    if (EngineProcesses().empty() || !bridge.used) {
        return;
    }
    const std::string remedy = "bridge.log tells how it ended";
    if (ProcessesNamed(kWorkerProgram).empty()) {
        findings.Failed(check, "kestobridge.exe does not run: every scan ends with error 1003", remedy);
        return;
    }
    const std::string stats = BridgeStats(bridge.ini.settings.listen, kAnswerLimit);
    const double starts = StatsValue(stats, "kestoav_worker_starts_total");
    const double uptime = StatsValue(stats, "kestoav_uptime_seconds");
    if (starts >= kOften && uptime < kLately) {
        findings.Warning(check,
                         "kestobridge.exe has been started " + std::to_string(static_cast<int>(starts)) +
                             " times, the last time " + DurationText(uptime) + " ago",
                         "unless you have restarted it, it keeps ending: " + remedy);
    } else {
        findings.Ok(check, "kestobridge.exe runs");
    }
}

}  // namespace kesto::host
