#include "plugin/update/update_launcher.h"

#include <windows.h>

#include "base/host_records.h"
#include "plugin/licence/licence.h"
#include "plugin/process/child_program.h"
#include "plugin/process/plugin_folder.h"

namespace kesto {
namespace {

bool g_update_busy;

uint32_t Fail(char* title, char* message, const char* reason) {
    CopyText(title, kUpdateTitleSize, "KESTO Antivirus Update Failed");
    CopyText(message, kUpdateMessageSize, reason);
    return 0;
}

// Returns the updater's exit code, or the system error code when it could not be started.
DWORD RunUpdater() {
    PROCESS_INFORMATION updater;
    DWORD outcome = 0;
    if (StartHiddenProgram("kestoavu.exe", updater, outcome)) {
        WaitForSingleObject(updater.hProcess, INFINITE);
        GetExitCodeProcess(updater.hProcess, &outcome);  // where this fails, the outcome stays 0
        CloseHandle(updater.hProcess);
        CloseHandle(updater.hThread);
    }
    return outcome;
}

void DeleteMirrorRecord() {
    char folder[kMessageSize];
    if (!FormatEngineFolder(folder)) {
        return;
    }
    char path[kMessageSize];
    FormatText(path, sizeof path, "%s\\db\\mirrors.dat", folder);
    DeleteFileA(path);
}

}  // namespace

uint32_t RunUpdate(char* title, char* message) {
    if (g_update_busy) {
        return 1;
    }
    g_update_busy = true;
    if (!LicenceHeld()) {
        // The flag stays set: after a refusal nothing is launched until the library has been loaded again,
        // which mail servers rely on.
        return Fail(title, message,
                    "The KESTO Antivirus Update attempt failed because you do not have a valid licence");
    }
    DWORD outcome = RunUpdater();
    g_update_busy = false;
    if (outcome == 0) {
        return 1;
    }
    DeleteMirrorRecord();
    char reason[kMessageSize];
    FormatText(reason, sizeof reason, "The KESTO Antivirus Update attempt failed with error %lu", outcome);
    return Fail(title, message, reason);
}

}  // namespace kesto
