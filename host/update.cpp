#include "host/update.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

#include "common/text.h"
#include "host/common/exit_status.h"
#include "host/common/output.h"
#include "host/common/processes.h"
#include "host/interrupt.h"

namespace kesto::host {
namespace {

constexpr DWORD kPollMs = 20;

bool UpdaterRuns(const InstalledPlugin& installed) {
    const auto updaters = ProcessesNamed(L"kestoavu.exe");
    return std::any_of(updaters.begin(), updaters.end(), [&](const ProgramProcess& updater) {
        return updater.path.empty() || SameFile(updater.path, installed.updater);
    });
}

int TellInterrupted(const InstalledPlugin& installed) {
    PrintError(UpdaterRuns(installed) ? "kestoscan: interrupted; the updater goes on\n"
                                      : "kestoscan: interrupted; no updater runs\n");
    return kExitError;
}

}  // namespace

int Update(const PluginLibrary& plugin, const InstalledPlugin& installed) {
    // Held until the process ends: of two updates that begin at once, one is refused.
    CreateMutexW(nullptr, TRUE, L"Global\\kestoscan update");
    if (GetLastError() == ERROR_ALREADY_EXISTS || UpdaterRuns(installed)) {
        PrintError("kestoscan: an update is under way already: wait for its end\n");
        return kExitError;
    }
    // A child inherits whether its parent ignores Ctrl-C: the parent does until the child is there.
    SetConsoleCtrlHandler(nullptr, TRUE);
    {
        const std::lock_guard guard(OutputLock());
        SetLastWords([&] { return TellInterrupted(installed); });
    }
    plugin.get_expiry(0, 0, 0);  // as the mail server does: before it every update is refused
    char title[kUpdateTitleSize] = "";
    char message[kUpdateMessageSize] = "";
    std::atomic<bool> ended = false;
    bool updated = false;
    std::thread updating([&] {
        updated = plugin.do_simple_update(title, message) != 0;
        ended = true;
    });
    while (!ended && !UpdaterRuns(installed)) {
        Sleep(kPollMs);
    }
    SetConsoleCtrlHandler(nullptr, FALSE);
    updating.join();
    SetLastWords(nullptr);
    if (updated) {
        PrintOut("Update finished\n");
        return kExitClean;
    }
    PrintError(Utf8FromAnsi(title) + "\n" + Utf8FromAnsi(message) + "\n");
    return kExitError;
}

}  // namespace kesto::host
