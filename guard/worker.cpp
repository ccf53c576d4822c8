#include "guard/worker.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <iterator>

namespace kesto::guard {
namespace {

constexpr struct {
    DWORD code;
    const char* words;
} kEnds[] = {
    {3, "stopped itself"},  // abort
    {kCannotFollow, "cannot follow its settings"},
    {0x40010004, "was ended with the user's session"},
    {0xC0000005, "crashed by an access violation"},
    {0xC0000017, "found no memory"},
    {0xC000001D, "crashed by an illegal instruction"},
    {0xC00000FD, "crashed by a stack overflow"},
    {0xC0000135, "lacks a library"},
    {0xC0000142, "could not be readied by the system"},
    {0xC0000374, "crashed by a damaged heap"},
    {0xC0000409, "stopped itself"},
};

// Starts the program with these two handles and no others of ours.
bool Start(const std::wstring& program, const std::wstring& folder, HANDLE input, HANDLE alive,
           PROCESS_INFORMATION& started) {
    alignas(std::max_align_t) std::byte memory[256];  // enough for one attribute
    SIZE_T size = sizeof memory;
    HANDLE inherited[] = {input, alive};
    STARTUPINFOEXW startup = {};
    startup.StartupInfo.cb = sizeof startup;
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES | STARTF_USESHOWWINDOW;
    startup.StartupInfo.wShowWindow = SW_HIDE;
    startup.StartupInfo.hStdInput = input;
    startup.lpAttributeList = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(memory);
    return InitializeProcThreadAttributeList(startup.lpAttributeList, 1, 0, &size) &&
           UpdateProcThreadAttribute(startup.lpAttributeList, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, inherited,
                                     sizeof inherited, nullptr, nullptr) &&
           CreateProcessW(program.c_str(), nullptr, nullptr, nullptr, TRUE,
                          DETACHED_PROCESS | EXTENDED_STARTUPINFO_PRESENT, nullptr, folder.c_str(),
                          &startup.StartupInfo, &started);
}

}  // namespace

DWORD StartWorker(const std::wstring& folder, SOCKET listener, WorkerOrders orders, Worker& worker) {
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    HANDLE input = nullptr;
    PROCESS_INFORMATION started = {};
    worker.alive = CreateEventW(&inherited, TRUE, FALSE, nullptr);
    DWORD error = 0;
    if (worker.alive == nullptr || !CreatePipe(&input, &worker.orders, nullptr, 4096) ||
        !SetHandleInformation(input, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT) ||
        !Start(folder + L"\\" + kWorkerProgram, folder, input, worker.alive, started)) {
        error = GetLastError();
    } else if (WSADuplicateSocketW(listener, started.dwProcessId, &orders.listener) != 0) {
        error = static_cast<DWORD>(WSAGetLastError());
    }
    if (input != nullptr) {
        CloseHandle(input);
    }
    worker.process = started.hProcess;
    if (started.hThread != nullptr) {
        CloseHandle(started.hThread);
    }
    orders.alive = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(worker.alive));
    DWORD written = 0;
    if (error == 0) {
        WriteFile(worker.orders, &orders, sizeof orders, &written, nullptr);
    } else {
        Forget(worker);  // its pipe breaks, and it ends
    }
    return error;
}

bool GaveSign(const Worker& worker) {
    return WaitForSingleObject(worker.alive, 0) == WAIT_OBJECT_0 && ResetEvent(worker.alive);
}

void TellToLeave(Worker& worker) {
    DWORD written = 0;
    worker.state = State::kLeaving;
    WriteFile(worker.orders, &kLeave, 1, &written, nullptr);
}

void Forget(Worker& worker) {
    for (HANDLE* each : {&worker.process, &worker.orders, &worker.alive}) {
        if (*each != nullptr) {
            CloseHandle(*each);
            *each = nullptr;
        }
    }
}

std::string EndInWords(DWORD exit_code) {
    const auto* known = std::find_if(std::begin(kEnds), std::end(kEnds),
                                     [exit_code](const auto& end) { return end.code == exit_code; });
    char number[16];
    std::snprintf(number, sizeof number, exit_code > 0xFFFF ? "0x%08lX" : "%lu", exit_code);
    return std::string(known != std::end(kEnds) ? known->words : "ended") + " (" + number + ")";
}

}  // namespace kesto::guard
