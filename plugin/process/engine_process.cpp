#include "plugin/process/engine_process.h"

#include <windows.h>
#include <psapi.h>

#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "base/settings.h"
#include "plugin/process/child_program.h"
#include "plugin/process/elapsed_seconds.h"

namespace kesto {
namespace {

constexpr char kEngineProgram[] = "kestoav.exe";
constexpr DWORD kMostProcesses = 10240;
constexpr DWORD kPollMs = 100;

// Each start overwrites it, nothing reads it, and its handles are never closed. The engine may be anybody's,
// so the plug-in knows it by its name only.
PROCESS_INFORMATION g_started_engine;

// Only the letters A to Z have a lower case here.
bool IsEngine(HANDLE process) {
    char image[520] = "";
    if (GetProcessImageFileNameA(process, image, sizeof image) == 0) {
        return false;
    }
    for (char& c : image) {
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    const char* name = strrchr(image, '\\');
    return name != nullptr && strcmp(name + 1, kEngineProgram) == 0;
}

// `ids` has room for kMostProcesses.
uint32_t FirstEngine(DWORD* ids) {
    DWORD bytes = 0;
    if (!EnumProcesses(ids, kMostProcesses * sizeof ids[0], &bytes)) {
        return 0;
    }
    for (DWORD i = 0; i < bytes / sizeof ids[0]; ++i) {
        // This right and not a weaker one: an engine that cannot be opened with it counts as not running.
        HANDLE process = ids[i] != 0 ? OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, ids[i]) : nullptr;
        if (process == nullptr) {
            continue;
        }
        bool found = IsEngine(process);
        CloseHandle(process);
        if (found) {
            return ids[i];
        }
    }
    return 0;
}

// Terminates the engine that FindEngineProcess finds. Does not wait for its end.
void StopEngineProcess() {
    LogMessage("stopping kestoav");
    uint32_t id = FindEngineProcess();
    if (id == 0) {
        LogMessage("couldn't find kestoav process");
        return;
    }
    HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, id);
    if (process == nullptr) {
        return;
    }
    // Logged first, since the line tells of the decision and not of the outcome.
    LogMessage("terminated kestoav process");
    TerminateProcess(process, 0xFFFFFFFF);
    // This fails at once, since the handle has no right to wait. A restart polls for the end instead.
    WaitForSingleObject(process, 1000);
    CloseHandle(process);
    LogMessage("kestoav process ended");
}

// Polls until an engine process exists, or until none does, for as long as the restart that began at
// `began` may take. Logs `waiting` at each poll, and `given_up` when the time has passed.
void WaitForEngine(bool to_exist, uint32_t began, const char* waiting, const char* given_up) {
    while ((FindEngineProcess() != 0) != to_exist) {
        LogMessage("%s", waiting);
        uint32_t elapsed = ElapsedSeconds(began, GetTickCount());
        Sleep(kPollMs);
        if (elapsed > Settings().startwait) {
            LogMessage("%s", given_up);
            return;
        }
    }
}

}  // namespace

uint32_t FindEngineProcess() {
    // 40 KB would be too much for the stack of a mail server's thread.
    auto* const ids = static_cast<DWORD*>(malloc(kMostProcesses * sizeof(DWORD)));
    const uint32_t found = ids != nullptr ? FirstEngine(ids) : 0;
    free(ids);
    return found;
}

uint32_t StartEngineProcess() {
    LogMessage("starting kestoav process");
    DWORD error = 0;
    if (!StartHiddenProgram(kEngineProgram, g_started_engine, error)) {
        LogMessage("Error starting kestoav process - %d", static_cast<int>(error));
    }
    return error;
}

Restart RestartEngineProcess() {
    const uint32_t began = GetTickCount();
    LogMessage("restarting kestoav process");
    StopEngineProcess();
    WaitForEngine(false, began, "Waiting for kestoav process to end", "Unable to stop kestoav process");
    if (FindEngineProcess() != 0) {
        return {false, began};
    }
    StartEngineProcess();
    WaitForEngine(true, began, "Waiting for kestoav process to start", "Unable to start kestoav process");
    return {FindEngineProcess() != 0, began};
}

}  // namespace kesto
