#include "updater/command.h"

#include <windows.h>

#include "common/bridge_log.h"
#include "common/error_words.h"
#include "common/file_bytes.h"
#include "common/owned_handle.h"
#include "common/text.h"

namespace kesto::updater {

uint32_t RunCommand(const std::string& command, const std::wstring& folder, unsigned seconds,
                    const std::wstring& log) {
    LogBridge("command", "running " + command);
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited,
                                    OPEN_EXISTING, 0, nullptr);
    const OwnedHandle output = Own(InheritedLog());
    startup.hStdOutput = startup.hStdError = output.get();
    // Programs that the command has started end with it when its time is over.
    HANDLE job = CreateJobObjectW(nullptr, nullptr);
    PROCESS_INFORMATION started;
    if (!CreateProcessW(nullptr, WideFromAnsi(command).data(), nullptr, nullptr, TRUE,
                        CREATE_NO_WINDOW | CREATE_SUSPENDED, nullptr, folder.c_str(), &startup, &started)) {
        const DWORD error = GetLastError();
        LogBridge("command", "the command could not be started - " + ErrorWords(error));
        return error;
    }
    AssignProcessToJobObject(job, started.hProcess);
    ResumeThread(started.hThread);

    const bool ended = WaitForSingleObject(started.hProcess, seconds * 1000) == WAIT_OBJECT_0;
    if (!ended) {
        TerminateJobObject(job, ERROR_TIMEOUT);
        TerminateProcess(started.hProcess, ERROR_TIMEOUT);  // in case it could not be put into the job
    }
    if (FileTail(log, 1) != "\n") {  // its last line may lack its end
        DWORD written = 0;
        WriteFile(output.get(), "\r\n", 2, &written, nullptr);
    }
    if (!ended) {
        LogBridge("command",
                  "the command was ended: it took more than timeout=" + std::to_string(seconds) + " seconds");
        return ERROR_TIMEOUT;
    }
    DWORD exit_code = 0;
    GetExitCodeProcess(started.hProcess, &exit_code);
    LogBridge("command", "the command ended with exit code " + std::to_string(exit_code));
    return exit_code;
}

}  // namespace kesto::updater
