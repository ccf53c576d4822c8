#include "host/update.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <mutex>

#include "common/bridge_ini.h"
#include "common/detached_thread.h"
#include "common/file_bytes.h"
#include "common/processes.h"
#include "common/text.h"
#include "host/common/output.h"
#include "host/interrupt.h"

namespace kesto::host {
namespace {

constexpr DWORD kPollMs = 20;
constexpr uint64_t kMostTold = 4096;  // of what the updater has logged

bool UpdaterRuns(const InstalledPlugin& installed) {
    return !ProcessesOf(installed.updater).empty();
}

uint64_t SizeOf(const std::wstring& path) {
    return IdentityOf(path).value_or(FileIdentity()).size;
}

// What the updater has written since its log had this size.
std::string LoggedSince(const std::wstring& log, uint64_t size) {
    const uint64_t grown = std::max(SizeOf(log), size) - size;
    std::string lines = FileTail(log, static_cast<uint32_t>(std::min(grown, kMostTold)));
    if (grown > kMostTold) {
        lines.erase(0, lines.find('\n') + 1);
    }
    std::erase(lines, '\r');
    return PrintableLines(Utf8FromAnsi(lines));
}

}  // namespace

int Update(const PluginLibrary& plugin, const InstalledPlugin& installed) {
    if (UpdaterRuns(installed)) {
        return Complain("an update is under way already: wait for its end");
    }
    // A child inherits whether its parent ignores Ctrl-C: the parent does until the child is there.
    SetConsoleCtrlHandler(nullptr, TRUE);
    {
        const std::lock_guard guard(OutputLock());
        SetLastWords([&] {
            return Complain(UpdaterRuns(installed) ? "interrupted; the updater goes on"
                                                   : "interrupted; no updater runs");
        });
    }
    const std::wstring log =
        UpdateLogPath(ReadBridgeIni(installed.engine_folder).settings, installed.engine_folder);
    const uint64_t logged = SizeOf(log);
    plugin.get_expiry(0, 0, 0);  // as the mail server does; without it every update is refused
    char title[kUpdateTitleSize] = "";
    char message[kUpdateMessageSize] = "";
    std::atomic<bool> ended = false;
    bool updated = false;
    const bool began = RunDetached([&] {
        updated = plugin.do_simple_update(title, message) != 0;
        ended = true;
    });
    if (!began) {
        return Complain("the system has no thread for an update");
    }
    while (!ended && !UpdaterRuns(installed)) {
        Sleep(kPollMs);
    }
    SetConsoleCtrlHandler(nullptr, FALSE);
    while (!ended) {
        Sleep(kPollMs);
    }
    SetLastWords(nullptr);
    if (updated) {
        PrintOut(LoggedSince(log, logged) + "Update finished\n");
        return kExitClean;
    }
    PrintError(LoggedSince(log, logged) + Utf8FromAnsi(title) + "\n" + Utf8FromAnsi(message) + "\n");
    return kExitError;
}

}  // namespace kesto::host
