#include "guard/requests.h"

#include <sddl.h>

#include <utility>

#include "common/guard_words.h"

namespace kesto::guard {
namespace {

// The system, administrators, and the account under which the guard runs.
constexpr wchar_t kWhoMayAsk[] = L"D:P(A;;GA;;;SY)(A;;GA;;;BA)(A;;GA;;;OW)";
constexpr DWORD kAnswerSize = 4096;  // larger than any answer

}  // namespace

DWORD Requests::Open(const std::wstring& folder) {
    SECURITY_ATTRIBUTES security = {sizeof security, nullptr, FALSE};
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(kWhoMayAsk, SDDL_REVISION_1,
                                                              &security.lpSecurityDescriptor, nullptr)) {
        return GetLastError();
    }
    pipe_ = CreateNamedPipeW(GuardPipe(folder).c_str(),
                             PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
                             PIPE_TYPE_BYTE | PIPE_REJECT_REMOTE_CLIENTS, 1, kAnswerSize, 0, 0, &security);
    const DWORD error = GetLastError();
    LocalFree(security.lpSecurityDescriptor);
    if (pipe_ == INVALID_HANDLE_VALUE) {
        return error;
    }
    Wait();
    return 0;
}

void Requests::Wait() {
    waiting_ = true;
    // Whoever has connected before this may have left already.
    if (!ConnectNamedPipe(pipe_, &event_) &&
        (GetLastError() == ERROR_PIPE_CONNECTED || GetLastError() == ERROR_NO_DATA)) {
        SetEvent(event_.hEvent);
    }
}

bool Requests::Take() {
    ResetEvent(event_.hEvent);
    if (std::exchange(waiting_, false)) {
        return true;
    }
    DisconnectNamedPipe(pipe_);
    Wait();
    return false;
}

void Requests::Answer(const std::string& text) {
    // There is room for all of it, so that this is done at once.
    OVERLAPPED writing = {};
    WriteFile(pipe_, text.data(), static_cast<DWORD>(text.size()), nullptr, &writing);
    // This ends when whoever asked has read the answer and closed the pipe.
    if (!ReadFile(pipe_, &scrap_, 1, nullptr, &event_) && GetLastError() != ERROR_IO_PENDING) {
        SetEvent(event_.hEvent);
    }
}

}  // namespace kesto::guard
