#include "host/restart.h"

#include "common/guard_words.h"
// windows.h must come after winsock2.h, which that includes.
#include <windows.h>

#include <string>

#include "common/error_words.h"
#include "common/text.h"
#include "host/common/exit_status.h"
#include "host/common/output.h"

namespace kesto::host {
namespace {

constexpr DWORD kLimitMs = 15'000;  // the guard itself needs 10 s at most

// The guard's answer, or the reason why there is none.
std::string AskGuard(const InstalledPlugin& installed) {
    // Should a stranger have made a pipe of this name, he learns nothing about us.
    HANDLE pipe =
        CreateFileW(GuardPipe(installed.engine_folder).c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                    FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_ANONYMOUS, nullptr);
    switch (pipe == INVALID_HANDLE_VALUE ? GetLastError() : 0) {
        case 0:
            break;
        case ERROR_FILE_NOT_FOUND:
            return "no " + Utf8FromWide(installed.engine) + " runs";
        case ERROR_PIPE_BUSY:
            return "another restart is under way";
        case ERROR_ACCESS_DENIED:
            return "only its own account and administrators may ask for it";
        default:
            return "the guard cannot be asked: " + SystemErrorWithCode(GetLastError());
    }
    OVERLAPPED reading = {};
    reading.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::string answer(4096, '\0');
    DWORD size = 0;
    ReadFile(pipe, answer.data(), static_cast<DWORD>(answer.size()), nullptr, &reading);
    if (WaitForSingleObject(reading.hEvent, kLimitMs) != WAIT_OBJECT_0) {
        CancelIo(pipe);
    }
    GetOverlappedResult(pipe, &reading, &size, TRUE);
    CloseHandle(reading.hEvent);
    CloseHandle(pipe);
    answer.resize(size);
    return answer.empty() ? "the guard does not answer" : Utf8FromAnsi(answer);
}

}  // namespace

int Restart(const InstalledPlugin& installed) {
    const std::string answer = AskGuard(installed);
    if (answer == kRestarted) {
        PrintOut("Restarted\n");
        return kExitClean;
    }
    PrintError("kestoscan: not restarted - " + answer + "\n");
    return kExitError;
}

}  // namespace kesto::host
