#include "bench/child_process.h"

#include <tlhelp32.h>

#include <chrono>
#include <cwchar>
#include <fstream>
#include <stdexcept>

#include "base/clamd_words.h"
#include "bench/wire.h"
#include "common/server_talk.h"
#include "tests/loopback/loopback.h"

namespace kesto {

std::filesystem::path ProgramFolder() {
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    return std::filesystem::path(path).parent_path();
}

ChildProcess::ChildProcess(const std::filesystem::path& program, const std::string& arguments) {
    std::string command_line = '"' + program.string() + "\" " + arguments;
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started = {};
    if (!CreateProcessA(nullptr, command_line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &started)) {
        throw std::runtime_error(command_line + " does not start: error " + std::to_string(GetLastError()));
    }
    CloseHandle(started.hThread);
    process_ = started.hProcess;
}

ChildProcess::~ChildProcess() {
    TerminateProcess(process_, 0);
    WaitForSingleObject(process_, 10000);
    CloseHandle(process_);
}

DWORD ChildProcess::WaitForEnd() const {
    DWORD status = 0;
    WaitForSingleObject(process_, INFINITE);
    GetExitCodeProcess(process_, &status);
    return status;
}

namespace {

std::filesystem::path PlaceBridge(uint16_t port, uint16_t upstream) {
    std::filesystem::create_directory("bridge");
    for (const char* program : {"kestoav.exe", "kestobridge.exe"}) {
        CopyFileW((ProgramFolder() / ".." / program).c_str(),
                  (std::filesystem::path("bridge") / program).c_str(), FALSE);
    }
    std::ofstream("bridge/bridge.ini")
        << "[bridge]\nlisten=127.0.0.1:" << port << "\nupstreams=127.0.0.1:" << upstream << '\n';
    return "bridge\\kestoav.exe";
}

// The guard's worker; no other runs.
HANDLE OpenWorker() {
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof entry;
    BOOL more = Process32FirstW(snapshot, &entry);
    while (more && _wcsicmp(entry.szExeFile, L"kestobridge.exe") != 0) {
        more = Process32NextW(snapshot, &entry);
    }
    CloseHandle(snapshot);
    return OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, entry.th32ProcessID);
}

}  // namespace

BridgeProcess::BridgeProcess(uint16_t upstream) : port_(FreePort()), process_(PlaceBridge(port_, upstream)) {
    WaitForListener(port_);
    AskServer({"127.0.0.1", port_}, kStatsCommand,
              std::chrono::steady_clock::now() + std::chrono::seconds(10));
    worker_ = OpenWorker();
}

}  // namespace kesto
