#include "bench/child_process.h"

#include <fstream>
#include <stdexcept>

#include "bench/wire.h"
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
    CopyFileW((ProgramFolder() / "../kestoav.exe").c_str(), L"bridge\\kestoav.exe", FALSE);
    std::ofstream("bridge/bridge.ini")
        << "[bridge]\nlisten=127.0.0.1:" << port << "\nupstreams=127.0.0.1:" << upstream << '\n';
    return "bridge\\kestoav.exe";
}

}  // namespace

BridgeProcess::BridgeProcess(uint16_t upstream) : port_(FreePort()), process_(PlaceBridge(port_, upstream)) {
    WaitForListener(port_);
}

}  // namespace kesto
