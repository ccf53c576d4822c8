#include "host/interrupt.h"

#include <windows.h>

#include <mutex>
#include <utility>

#include "common/detached_thread.h"
#include "host/common/exit_status.h"
#include "host/common/output.h"

namespace kesto::host {
namespace {

constexpr DWORD kOutputMs = 2000;  // for the reader of our output to take it

std::function<int()> g_last_words;

// Not ExitProcess: it would unload the plug-in under threads that are inside it.
void End(int status) {
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(status));
}

BOOL WINAPI OnControlEvent(DWORD) {
    RunDetached([] {
        Sleep(kOutputMs);
        End(kExitError);
    });
    OutputLock().lock();
    ClearProgress();
    End(g_last_words ? g_last_words() : kExitError);
    return TRUE;
}

}  // namespace

void WatchForInterrupt() {
    // The parent may have started us so that Ctrl-C is ignored.
    SetConsoleCtrlHandler(nullptr, FALSE);
    SetConsoleCtrlHandler(OnControlEvent, TRUE);
}

void SetLastWords(std::function<int()> last_words) {
    g_last_words = std::move(last_words);
}

}  // namespace kesto::host
