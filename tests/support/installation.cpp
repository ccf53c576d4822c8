#include "tests/support/installation.h"

#include <tlhelp32.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace kesto {
namespace {

constexpr DWORD kEndMs = 10'000;

// What is started here, and by what is started here, ends with this process, however that ends.
[[maybe_unused]] const bool g_children_end_with_us = [] {
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    const HANDLE job = CreateJobObjectA(nullptr, nullptr);  // closed with the process
    return SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits) &&
           AssignProcessToJobObject(job, GetCurrentProcess());
}();

std::filesystem::path NewFolder() {
    static int folders = 0;
    return std::filesystem::temp_directory_path() /
           ("kesto" + std::to_string(GetCurrentProcessId()) + "." + std::to_string(++folders));
}

std::vector<PROCESSENTRY32W> AllProcesses() {
    std::vector<PROCESSENTRY32W> all;
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof entry;
    for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry)) {
        all.push_back(entry);
    }
    CloseHandle(snapshot);
    return all;
}

void End(HANDLE process) {
    TerminateProcess(process, 1);
    WaitForSingleObject(process, kEndMs);
    CloseHandle(process);
}

// PROGRAM.role and its like.
std::filesystem::path Beside(std::filesystem::path program, const char* ending) {
    return program += ending;
}

}  // namespace

std::vector<DWORD> ProcessesNamed(const char* name) {
    std::vector<DWORD> found;
    for (const PROCESSENTRY32W& each : AllProcesses()) {
        if (_wcsicmp(each.szExeFile, std::filesystem::path(name).c_str()) == 0) {
            found.push_back(each.th32ProcessID);
        }
    }
    return found;
}

Installation::Installation(const std::wstring& name) : top(NewFolder()), folder(top / name) {
    std::filesystem::create_directories(engine_folder);
    for (const char* each : {"CLAMDLL.dll", "kestoscan.exe"}) {
        std::filesystem::copy_file(BuiltFolder() / each, folder / each);
    }
}

Installation::~Installation() {
    for (const HANDLE each : started_) {
        End(each);
    }
    EndPrograms();
    // In its exact form, for the names in it that Windows would read as others. A program's file may be held
    // for a moment after its end.
    std::error_code error;
    if (!WaitFor([&] { return std::filesystem::remove_all(L"\\\\?\\" + top.wstring(), error), !error; })) {
        std::fprintf(stderr, "%s stays: %s\n", top.string().c_str(), error.message().c_str());
    }
}

void Installation::EndPrograms() const {
    for (const PROCESSENTRY32W& each : AllProcesses()) {
        const HANDLE process = OpenProcess(
            PROCESS_QUERY_LIMITED_INFORMATION | PROCESS_TERMINATE | SYNCHRONIZE, FALSE, each.th32ProcessID);
        wchar_t path[MAX_PATH] = L"";
        DWORD size = MAX_PATH;
        QueryFullProcessImageNameW(process, 0, path, &size);
        if (std::wstring(path).starts_with(top.wstring() + L"\\")) {
            End(process);
        } else {
            CloseHandle(process);
        }
    }
}

void Installation::WriteSettings(std::string_view lines) const {
    WriteFile(folder / "kestoav.ini", "[kestoav]\r\n" + std::string(lines) + "\r\n");
}

std::vector<std::string> Installation::LogMessages() const {
    std::istringstream lines(ReadFile(log));
    std::vector<std::string> messages;
    for (std::string line; std::getline(lines, line) && !lines.eof();) {
        if (line.ends_with('\r')) {
            line.pop_back();
        }
        int year, rest[5], stamp = 0;
        if (sscanf(line.c_str(), "%4d/%2d/%2d %2d:%2d:%2d: %n", &year, &rest[0], &rest[1], &rest[2], &rest[3],
                   &rest[4], &stamp) == 6 &&
            stamp > 0) {
            messages.push_back(line.substr(static_cast<size_t>(stamp)));
        } else if (!messages.empty()) {
            messages.back() += '\n' + line;
        }
    }
    return messages;
}

bool Installation::WaitForLog(std::string_view beginning, size_t times) const {
    return WaitFor([&] {
        const auto messages = LogMessages();
        return std::count_if(messages.begin(), messages.end(), [&](const auto& each) {
                   return each.starts_with(beginning);
               }) >= static_cast<std::ptrdiff_t>(times);
    });
}

void Installation::PlaceStandIn(const std::filesystem::path& program, const std::string& role) const {
    WriteFile(Beside(program, ".role"), role);
    // One that runs cannot be written over, and need not be.
    CopyFileW((BuiltFolder() / "tests" / "engine_child.exe").c_str(), program.c_str(), TRUE);
}

uint16_t Installation::PlaceBridge(const std::string& upstreams, const std::string& more_lines) const {
    const uint16_t port = FreePort();
    WriteFile(engine_folder / "bridge.ini", "[bridge]\r\nlisten=127.0.0.1:" + std::to_string(port) +
                                                "\r\nupstreams=" + upstreams + "\r\n" + more_lines + "\r\n");
    CopyFileW((BuiltFolder() / "kestoav.exe").c_str(), engine.c_str(), FALSE);
    return port;
}

void Installation::StartStandIn(const std::filesystem::path& program) {
    const size_t starts = Starts(program).size();
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    if (!CreateProcessW(program.c_str(), nullptr, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &process) ||
        !WaitForStarts(program, starts + 1)) {
        throw std::runtime_error(program.string() + " does not start: " + std::to_string(GetLastError()));
    }
    CloseHandle(process.hThread);
    started_.push_back(process.hProcess);
}

std::vector<ProgramStart> Installation::Starts(const std::filesystem::path& program) const {
    std::istringstream lines(ReadFile(Beside(program, ".started")));
    std::vector<ProgramStart> starts;
    std::string id, folder_text, command_line, show_state;
    while (std::getline(lines, id, '\t') && std::getline(lines, folder_text, '\t') &&
           std::getline(lines, command_line, '\t') && std::getline(lines, show_state) && !lines.eof()) {
        starts.push_back({std::stoul(id), folder_text, command_line, show_state});
    }
    return starts;
}

bool Installation::WaitForStarts(const std::filesystem::path& program, size_t count) const {
    return WaitFor([&] { return Starts(program).size() >= count; });
}

void Installation::Release(const std::filesystem::path& program) const {
    WriteFile(Beside(program, ".release"), "");
}

}  // namespace kesto
