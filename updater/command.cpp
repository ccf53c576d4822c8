#include "updater/command.h"

#include <windows.h>

#include <algorithm>

#include "base/bounded_text.h"
#include "common/error_words.h"
#include "common/text.h"
#include "updater/update_log.h"

namespace kesto::updater {
namespace {

constexpr DWORD kPollMs = 50;
constexpr unsigned kMostLines = 200;  // of one command

// The lines that a program writes. Of a line that it overwrites, such as a progress bar, the last state
// counts.
class OutputLines {
 public:
    void Take(const char* bytes, size_t count) {
        for (const char* at = bytes; at != bytes + count; ++at) {
            if (*at == '\n') {
                EndLine();
            } else if (*at == '\r') {
                returned_ = true;
            } else {
                if (returned_) {
                    line_.clear();
                    returned_ = false;
                }
                if (line_.size() < kMessageSize) {
                    line_ += *at;
                }
            }
        }
    }

    void End() {
        EndLine();
        if (lines_ > kMostLines) {
            LogUpdate(std::to_string(lines_ - kMostLines) + " more lines left out, the last: " + last_);
        }
    }

 private:
    void EndLine() {
        if (!line_.empty() && ++lines_ <= kMostLines) {
            LogUpdate(line_);
        } else if (!line_.empty()) {
            last_ = line_;
        }
        line_.clear();
        returned_ = false;
    }

    std::string line_;
    std::string last_;
    bool returned_ = false;
    unsigned lines_ = 0;
};

void Drain(HANDLE pipe, OutputLines& lines) {
    char bytes[4096];
    DWORD waiting = 0;
    DWORD count = 0;
    while (PeekNamedPipe(pipe, nullptr, 0, nullptr, &waiting, nullptr) && waiting != 0 &&
           ReadFile(pipe, bytes, std::min<DWORD>(waiting, sizeof bytes), &count, nullptr)) {
        lines.Take(bytes, count);
    }
}

uint32_t NotStarted() {
    const DWORD error = GetLastError();
    LogUpdate("the command could not be started - " + ErrorWords(error));
    return error;
}

}  // namespace

uint32_t RunCommand(const std::string& command, const std::wstring& folder, unsigned seconds) {
    LogUpdate("running " + command);
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    HANDLE output;
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited,
                                    OPEN_EXISTING, 0, nullptr);
    if (!CreatePipe(&output, &startup.hStdOutput, &inherited, 0)) {
        return NotStarted();
    }
    SetHandleInformation(output, HANDLE_FLAG_INHERIT, 0);
    startup.hStdError = startup.hStdOutput;
    // Programs that the command has started end with it when its time is over.
    HANDLE job = CreateJobObjectW(nullptr, nullptr);
    PROCESS_INFORMATION started;
    if (!CreateProcessW(nullptr, WideFromAnsi(command).data(), nullptr, nullptr, TRUE,
                        CREATE_NO_WINDOW | CREATE_SUSPENDED, nullptr, folder.c_str(), &startup, &started)) {
        return NotStarted();
    }
    AssignProcessToJobObject(job, started.hProcess);
    ResumeThread(started.hThread);

    OutputLines lines;
    const ULONGLONG end = GetTickCount64() + seconds * 1000ULL;
    bool ended = false;
    while (!ended && GetTickCount64() < end) {
        ended = WaitForSingleObject(started.hProcess, kPollMs) == WAIT_OBJECT_0;
        Drain(output, lines);
    }
    lines.End();
    if (!ended) {
        TerminateJobObject(job, ERROR_TIMEOUT);
        TerminateProcess(started.hProcess, ERROR_TIMEOUT);  // in case it could not be put into the job
        LogUpdate("the command was ended: it took more than timeout=" + std::to_string(seconds) + " seconds");
        return ERROR_TIMEOUT;
    }
    DWORD exit_code = 0;
    GetExitCodeProcess(started.hProcess, &exit_code);
    LogUpdate("the command ended with exit code " + std::to_string(exit_code));
    return exit_code;
}

}  // namespace kesto::updater
