#include "host/interrupt.h"

#include <windows.h>

#include <mutex>
#include <utility>

#include "host/common/exit_status.h"
#include "host/common/output.h"

namespace kesto::host {
namespace {

std::function<void()> g_last_words;

BOOL WINAPI OnControlEvent(DWORD) {
    OutputLock().lock();
    ClearProgress();
    if (g_last_words) {
        g_last_words();
    }
    // Not ExitProcess: it would unload the plug-in under threads that are inside it.
    TerminateProcess(GetCurrentProcess(), kExitError);
    return TRUE;
}

}  // namespace

void WatchForInterrupt() {
    // A parent may have had us ignore Ctrl-C.
    SetConsoleCtrlHandler(nullptr, FALSE);
    SetConsoleCtrlHandler(OnControlEvent, TRUE);
}

void SetLastWords(std::function<void()> last_words) {
    g_last_words = std::move(last_words);
}

}  // namespace kesto::host
