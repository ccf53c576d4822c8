#include "tests/support/bridge_process.h"

#include <algorithm>
#include <atomic>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace kesto {
namespace {

std::string BuiltBridge() {
    char path[MAX_PATH] = "";
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string folder(path);
    folder.resize(folder.find_last_of('\\'));
    return folder + "\\..\\kestoav.exe";
}

std::string NewFolder() {
    static std::atomic<unsigned> number = 0;
    char temp[MAX_PATH] = "";
    GetTempPathA(MAX_PATH, temp);
    const std::string folder =
        temp + ("bridge " + std::to_string(GetCurrentProcessId())) + "-" + std::to_string(++number);
    CreateDirectoryA(folder.c_str(), nullptr);
    return folder;
}

std::string Contents(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace

BridgeProcess::BridgeProcess(const std::string& upstreams, const std::string& more_settings)
    : port_(FreePort()) {
    Start("[bridge]\nlisten=127.0.0.1:" + std::to_string(port_) + "\nupstreams=" + upstreams + "\n" +
          more_settings + "\n");
    if (!WaitUntilListening()) {
        throw std::runtime_error("the bridge does not listen: " + ErrorOutput());
    }
}

BridgeProcess BridgeProcess::WithIni(const std::string& ini) {
    BridgeProcess process;
    process.Start(ini);
    return process;
}

BridgeProcess::~BridgeProcess() {
    TerminateProcess(process_.hProcess, 99);
    WaitForSingleObject(process_.hProcess, INFINITE);
    CloseHandle(process_.hProcess);
    CloseHandle(process_.hThread);
    for (const char* name : {"\\kestoav.exe", "\\bridge.ini", "\\bridge.log", "\\errors.txt"}) {
        DeleteFileA((folder_ + name).c_str());
    }
    RemoveDirectoryA(folder_.c_str());
}

void BridgeProcess::Start(const std::string& ini) {
    folder_ = NewFolder();
    const std::string program = folder_ + "\\kestoav.exe";
    CopyFileA(BuiltBridge().c_str(), program.c_str(), FALSE);
    std::ofstream(folder_ + "\\bridge.ini") << ini;
    std::ofstream(folder_ + "\\bridge.log");

    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    const HANDLE errors = CreateFileA((folder_ + "\\errors.txt").c_str(), GENERIC_WRITE, FILE_SHARE_READ,
                                      &inherited, CREATE_ALWAYS, 0, nullptr);
    STARTUPINFOA how = {};
    how.cb = sizeof how;
    how.dwFlags = STARTF_USESTDHANDLES;
    how.hStdError = errors;
    const BOOL started =
        CreateProcessA(program.c_str(), nullptr, nullptr, nullptr, TRUE, 0, nullptr, "C:\\", &how, &process_);
    CloseHandle(errors);
    if (!started) {
        throw std::runtime_error("cannot start " + program);
    }
}

bool BridgeProcess::WaitUntilListening() const {
    return WaitFor([this] {
               return WaitForSingleObject(process_.hProcess, 0) == WAIT_OBJECT_0 || !Stats(port_).empty();
           }) &&
           WaitForSingleObject(process_.hProcess, 0) == WAIT_TIMEOUT;
}

void BridgeProcess::PressCtrlBreak() const {
    // The system's own way of telling a process. A test run has no console on which to press keys.
    const auto routine = reinterpret_cast<LPTHREAD_START_ROUTINE>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("kernelbase.dll"), "CtrlRoutine")));
    void* const event = reinterpret_cast<void*>(static_cast<uintptr_t>(CTRL_BREAK_EVENT));
    CloseHandle(CreateRemoteThread(process_.hProcess, nullptr, 0, routine, event, 0, nullptr));
}

DWORD BridgeProcess::WaitForExit() const {
    WaitForSingleObject(process_.hProcess, static_cast<DWORD>(kTestLimit.count()));
    DWORD code = 0;
    GetExitCodeProcess(process_.hProcess, &code);
    return code;
}

std::string BridgeProcess::Log() const {
    return Contents(folder_ + "\\bridge.log");
}

std::string BridgeProcess::ErrorOutput() const {
    return Contents(folder_ + "\\errors.txt");
}

std::string ChunkStreamOf(const std::string& data, size_t chunk_size) {
    std::string stream;
    for (size_t at = 0; at < data.size(); at += chunk_size) {
        const size_t size = std::min(chunk_size, data.size() - at);
        for (int shift = 24; shift >= 0; shift -= 8) {
            stream += static_cast<char>(size >> shift & 0xFF);
        }
        stream.append(data, at, size);
    }
    return stream + std::string(4, '\0');
}

std::string ShiftedDown(std::string data) {
    for (char& c : data) {
        c = static_cast<char>(c - 1);
    }
    return data;
}

std::string Ask(uint16_t port, const std::string& bytes) {
    Wire wire(ConnectToLoopback(port));
    wire.Send(bytes);
    const auto [reply, ended] = wire.ReceiveRest();
    return ended ? reply : reply + "(no end)";
}

std::string Scan(uint16_t port, const std::string& data) {
    return Ask(port, WithNul("zINSTREAM") + ChunkStreamOf(ShiftedDown(data)));
}

std::string Stats(uint16_t port) {
    return Ask(port, WithNul("zSTATS"));
}

unsigned StatsValue(uint16_t port, const std::string& name) {
    std::istringstream stats(Stats(port));
    std::string word;
    unsigned value = 0;
    while (stats >> word && word != name) {
    }
    stats >> value;
    return value;
}

}  // namespace kesto
