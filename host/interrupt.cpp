#include "host/interrupt.h"

#include <windows.h>

#include <mutex>
#include <string>
#include <utility>

#include "common/detached_thread.h"
#include "host/common/output.h"
#include "host/engine_start.h"

namespace kesto::host {
namespace {

// For our engines to end, and for the reader of our output to take it.
constexpr DWORD kOutputMs = 2000;

std::function<int()> g_last_words;

// Not ExitProcess: it would unload the plug-in under threads that are inside it.
void End(int status) {
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(status));
}

BOOL WINAPI OnControlEvent(DWORD) {
    RunDetached([] {
        Sleep(kOutputMs);
        EndOwnEngines();
        End(kExitError);
    });
    OutputLock().lock();
    ClearProgress();
    const std::string engines = EndOwnEngines();
    const int status = g_last_words ? g_last_words() : kExitError;
    PrintError(engines);
    End(status);
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
