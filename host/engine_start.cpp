#include "host/engine_start.h"

#include <windows.h>

#include <algorithm>
#include <atomic>

#include "common/processes.h"
#include "common/text.h"
#include "host/common/output.h"
#include "host/common/port_owner.h"

namespace kesto::host {
namespace {

constexpr DWORD kSettleMs = 1000;
constexpr DWORD kPollMs = 50;

constexpr DWORD kEndedByPlugin =
    0xFFFFFFFF;  // the exit code that the plug-in gives an engine that it restarts

std::atomic<HANDLE> g_engine =
    nullptr;  // the one that was started last; no handle is closed, since there are few

bool EngineVisible() {
    const auto engines = EngineProcesses();
    return std::any_of(engines.begin(), engines.end(), [](const auto& engine) { return engine.visible; });
}

bool Create(const InstalledPlugin& installed, DWORD flags, PROCESS_INFORMATION& started) {
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESHOWWINDOW;
    startup.wShowWindow = SW_HIDE;
    return CreateProcessW(installed.engine.c_str(), nullptr, nullptr, nullptr, FALSE, flags, nullptr,
                          installed.engine_folder.c_str(), &startup, &started) != FALSE;
}

}  // namespace

EngineStart EnsureEngine(const InstalledPlugin& installed) {
    if (EngineVisible()) {
        return EngineStart::kRuns;
    }
    PROCESS_INFORMATION started;
    // It leaves our job, which may end with us, if the job allows that.
    if (!Create(installed, CREATE_BREAKAWAY_FROM_JOB, started) && !Create(installed, 0, started)) {
        return EngineStart::kNotStarted;
    }
    CloseHandle(started.hThread);
    g_engine = started.hProcess;
    for (DWORD waited = 0; waited < kSettleMs && !Listens(started.dwProcessId); waited += kPollMs) {
        if (WaitForSingleObject(started.hProcess, kPollMs) == WAIT_OBJECT_0) {
            return EngineVisible() ? EngineStart::kRuns : EngineStart::kEndedAtOnce;
        }
    }
    PrintError("kestoscan: started " + Utf8FromWide(installed.engine) + ", which goes on running\n");
    return EngineStart::kStarted;
}

bool StartedEngineIsGone() {
    HANDLE engine = g_engine;
    DWORD exit_code = 0;
    return engine != nullptr && WaitForSingleObject(engine, 0) == WAIT_OBJECT_0 &&
           GetExitCodeProcess(engine, &exit_code) && exit_code != kEndedByPlugin && !EngineVisible();
}

}  // namespace kesto::host
