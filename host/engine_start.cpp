#include "host/engine_start.h"

#include <windows.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <utility>

#include "common/bridge_ini.h"
#include "common/processes.h"
#include "common/text.h"
#include "host/common/bridge_stats.h"
#include "host/common/output.h"
#include "host/common/port_owner.h"

namespace kesto::host {
namespace {

constexpr DWORD kSettleMs = 1000;
constexpr DWORD kPollMs = 50;
constexpr std::chrono::seconds kStatsLimit(1);

// The exit code that the plug-in gives an engine that it restarts.
constexpr DWORD kEndedByPlugin = 0xFFFFFFFF;

// The engine that was started last. No handle is closed, since there are few.
std::atomic<HANDLE> g_engine = nullptr;

std::atomic<unsigned> g_scans = 0;  // that we have begun

// Held while engines are started or ended. Nothing is printed under it, since printing waits for OutputLock.
std::mutex g_engines;
// These are used under g_engines.
std::optional<InstalledPlugin> g_ours;  // its engines that run are ours
HANDLE g_job = nullptr;                 // holds this process and the engines that the plug-in starts in it

void SetOurs(std::optional<InstalledPlugin> ours) {
    g_ours = std::move(ours);
    if (g_job == nullptr) {
        return;
    }
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
    limits.BasicLimitInformation.LimitFlags = g_ours ? JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE : 0;
    SetInformationJobObject(g_job, JobObjectExtendedLimitInformation, &limits, sizeof limits);
}

EngineStart Start(const InstalledPlugin& installed) {
    const std::lock_guard lock(g_engines);
    if (!g_ours && ProcessesOf(installed.engine).empty()) {
        SetOurs(installed);
    }
    if (const auto engines = EngineProcesses(); !engines.empty()) {
        return AnyVisible(engines) ? EngineStart::kRuns : EngineStart::kUnusable;
    }
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESHOWWINDOW;
    startup.wShowWindow = SW_HIDE;
    PROCESS_INFORMATION started;
    if (!CreateProcessW(installed.engine.c_str(), nullptr, nullptr, nullptr, FALSE, 0, nullptr,
                        installed.engine_folder.c_str(), &startup, &started)) {
        return EngineStart::kNotStarted;
    }
    CloseHandle(started.hThread);
    g_engine = started.hProcess;
    for (DWORD waited = 0; waited < kSettleMs && !Listens(started.dwProcessId); waited += kPollMs) {
        if (WaitForSingleObject(started.hProcess, kPollMs) == WAIT_OBJECT_0) {
            SetOurs({});  // one that runs all the same was started by somebody else meanwhile
            return AnyVisible(EngineProcesses()) ? EngineStart::kRuns : EngineStart::kUnusable;
        }
    }
    return EngineStart::kStarted;
}

}  // namespace

EngineStart EnsureEngine(const InstalledPlugin& installed) {
    const EngineStart start = Start(installed);
    if (start == EngineStart::kStarted) {
        PrintError("kestoscan: started " + Utf8FromWide(installed.engine) + ", which ends with kestoscan\n");
    }
    return start;
}

bool StartedEngineIsGone() {
    HANDLE engine = g_engine;
    DWORD exit_code = 0;
    return engine != nullptr && WaitForSingleObject(engine, 0) == WAIT_OBJECT_0 &&
           GetExitCodeProcess(engine, &exit_code) && exit_code != kEndedByPlugin &&
           !AnyVisible(EngineProcesses());
}

void TieEngines() {
    const std::lock_guard lock(g_engines);
    g_job = CreateJobObjectW(nullptr, nullptr);
    AssignProcessToJobObject(g_job, GetCurrentProcess());
    SetOurs(g_ours);
}

void CountOwnScan() {
    ++g_scans;
}

std::string EndOwnEngines() {
    const std::lock_guard lock(g_engines);
    if (!g_ours || ProcessesOf(g_ours->engine).empty()) {
        return "";
    }
    const ServerAddress listen = ReadBridgeIni(g_ours->engine_folder).settings.listen;
    const std::string stats = BridgeStats(listen, kStatsLimit);
    const double asking = 1;  // who is a client as well
    if (StatsValue(stats, "kestoav_scans_total") + StatsValue(stats, "kestoav_clients") - asking > g_scans) {
        const std::string engine = Utf8FromWide(g_ours->engine);
        SetOurs({});
        return "kestoscan: others scan with " + engine + " as well, so it goes on running\n";
    }
    for (const ProgramProcess& process : EngineIn(g_ours->engine_folder)) {
        EndProcess(process.id);
    }
    return "";
}

}  // namespace kesto::host
