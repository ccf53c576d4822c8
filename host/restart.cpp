#include "host/restart.h"

#include <windows.h>

#include <string>

#include "common/bridge_ini.h"
#include "common/error_words.h"
#include "common/guard_words.h"
#include "common/owned_handle.h"
#include "common/processes.h"
#include "common/text.h"
#include "host/common/output.h"
#include "host/common/port_owner.h"

namespace kesto::host {
namespace {

constexpr DWORD kLimitMs = std::chrono::milliseconds(kLongestRestart).count();

// The guard's answer, or the reason why there is none.
std::string AskGuard(const InstalledPlugin& installed) {
    // Should a stranger have made a pipe of this name, he learns nothing about us.
    const OwnedHandle pipe =
        Own(CreateFileW(GuardPipe(installed.engine_folder).c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                        FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_ANONYMOUS, nullptr));
    switch (pipe ? 0 : GetLastError()) {
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
    ULONG answering = 0;
    GetNamedPipeServerProcessId(pipe.get(), &answering);
    const ServerAddress listen = ReadBridgeIni(installed.engine_folder).settings.listen;
    const auto owner = ListenerOn(listen.host, listen.port);
    // Anybody could have made the pipe before the guard, which owns the port. Where Windows does not tell who
    // does, or nobody does since `listen` has been changed, its program has to be in the guard's folder.
    const bool is_guard = owner && owner->process_id != 0
                              ? owner->process_id == answering
                              : LiesIn(ProgramOf(answering), installed.engine_folder);
    if (!is_guard) {
        return "process " + std::to_string(answering) + " answers in the guard's place" +
               (owner && owner->process_id != 0
                    ? "; " + AddressText(listen) + " belongs to " + OwnerText(*owner)
                    : "");
    }
    const OwnedHandle event = Own(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    OVERLAPPED reading = {};
    reading.hEvent = event.get();
    std::string answer(4096, '\0');
    DWORD size = 0;
    ReadFile(pipe.get(), answer.data(), static_cast<DWORD>(answer.size()), nullptr, &reading);
    if (WaitForSingleObject(reading.hEvent, kLimitMs) != WAIT_OBJECT_0) {
        CancelIo(pipe.get());
    }
    GetOverlappedResult(pipe.get(), &reading, &size, TRUE);
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
    return Complain("not restarted - " + answer);
}

}  // namespace kesto::host
