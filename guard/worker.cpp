#include "guard/worker.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <iterator>
#include <span>

#include "common/guard_words.h"

namespace kesto::guard {
namespace {

constexpr struct {
    DWORD code;
    const char* words;
} kEnds[] = {
    {3, "stopped itself"},  // abort
    {kCannotFollow, "cannot follow its settings"},
    {kCannotTakeOver, "could not take over the socket"},
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

// Starts the program with these handles and no others of ours, the first one as its standard input.
bool Start(const std::wstring& program, const std::wstring& folder, std::span<HANDLE> inherited,
           PROCESS_INFORMATION& started) {
    alignas(std::max_align_t) std::byte memory[256];  // enough for one attribute
    SIZE_T size = sizeof memory;
    STARTUPINFOEXW startup = {};
    startup.StartupInfo.cb = sizeof startup;
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES | STARTF_USESHOWWINDOW;
    startup.StartupInfo.wShowWindow = SW_HIDE;
    startup.StartupInfo.hStdInput = inherited[0];
    startup.lpAttributeList = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(memory);
    return InitializeProcThreadAttributeList(startup.lpAttributeList, 1, 0, &size) &&
           UpdateProcThreadAttribute(startup.lpAttributeList, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST,
                                     inherited.data(), inherited.size_bytes(), nullptr, nullptr) &&
           CreateProcessW(program.c_str(), nullptr, nullptr, nullptr, TRUE,
                          DETACHED_PROCESS | EXTENDED_STARTUPINFO_PRESENT, nullptr, folder.c_str(),
                          &startup.StartupInfo, &started);
}

}  // namespace

DWORD StartWorker(const std::wstring& folder, SOCKET listener, WorkerOrders orders, Worker& worker) {
    SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
    HANDLE reading = nullptr, writing = nullptr;
    if (!CreatePipe(&reading, &writing, nullptr, 4096)) {
        return GetLastError();
    }
    const OwnedHandle input(reading);
    worker.orders.reset(writing);
    worker.alive.reset(CreateEventW(&inheritable, TRUE, FALSE, nullptr));
    worker.closed.reset(CreateEventW(&inheritable, TRUE, TRUE, nullptr));
    HANDLE inherited[] = {reading, worker.alive.get(), worker.closed.get()};
    PROCESS_INFORMATION started = {};
    if (!worker.alive || !worker.closed ||
        !SetHandleInformation(reading, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT) ||
        !Start(folder + L"\\" + kWorkerProgram, folder, inherited, started)) {
        return std::max<DWORD>(GetLastError(), 1);  // a failure may leave 0
    }
    worker.process.reset(started.hProcess);
    CloseHandle(started.hThread);
    if (WSADuplicateSocketW(listener, started.dwProcessId, &orders.listener) != 0) {
        return static_cast<DWORD>(WSAGetLastError());  // its pipe breaks, and it ends
    }
    orders.alive = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(worker.alive.get()));
    orders.closed = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(worker.closed.get()));
    DWORD written = 0;
    WriteFile(worker.orders.get(), &orders, sizeof orders, &written, nullptr);
    return 0;
}

bool GaveSign(const Worker& worker) {
    return WaitForSingleObject(worker.alive.get(), 0) == WAIT_OBJECT_0 && ResetEvent(worker.alive.get());
}

void TellToLeave(const Worker& worker) {
    DWORD written = 0;
    WriteFile(worker.orders.get(), &kLeave, 1, &written, nullptr);
}

std::string EndInWords(DWORD exit_code) {
    const auto* known = std::find_if(std::begin(kEnds), std::end(kEnds),
                                     [exit_code](const auto& end) { return end.code == exit_code; });
    char number[16];
    std::snprintf(number, sizeof number, exit_code > 0xFFFF ? "0x%08lX" : "%lu", exit_code);
    return std::string(known != std::end(kEnds) ? known->words : "ended") + " (" + number + ")";
}

}  // namespace kesto::guard
