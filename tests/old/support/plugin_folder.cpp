#include "tests/support/plugin_folder.h"

#include <gtest/gtest.h>
#include <tlhelp32.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/support/plugin_library.h"

namespace kesto {

std::string ReadFile(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

void WriteFile(const std::string& path, std::string_view content) {
    std::ofstream(path, std::ios::binary) << content;
}

std::vector<DWORD> ProcessesNamed(std::string_view name) {
    std::vector<DWORD> found;
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32 entry{};
    entry.dwSize = sizeof entry;
    for (BOOL more = Process32First(snapshot, &entry); more; more = Process32Next(snapshot, &entry)) {
        if (_stricmp(entry.szExeFile, std::string(name).c_str()) == 0) {
            found.push_back(entry.th32ProcessID);
        }
    }
    CloseHandle(snapshot);
    return found;
}

void EndProcesses(std::string_view name) {
    for (const DWORD id : ProcessesNamed(name)) {
        const HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, id);
        TerminateProcess(process, 1);
        CloseHandle(process);
    }
}

PluginFolder::PluginFolder(const std::string& name) {
    EXPECT_TRUE(WaitFor([] { return ProcessesNamed("kestoav.exe").empty(); }))
        << "an engine process is running that is not this test's";
    char temp[MAX_PATH];
    GetTempPathA(sizeof temp, temp);
    static int folders = 0;
    event_name_ = "kesto_test_" + std::to_string(GetCurrentProcessId()) + "_" + std::to_string(++folders);
    parent_ = temp + event_name_;
    path_ = parent_ + "\\" + name;
    std::filesystem::create_directories(engine_folder());
    end_ = CreateEventA(nullptr, TRUE, FALSE, event_name_.c_str());
    release_ = CreateEventA(nullptr, TRUE, FALSE, (event_name_ + "_release").c_str());
}

PluginFolder::~PluginFolder() {
    SetEvent(end_);
    EXPECT_TRUE(WaitFor([] { return ProcessesNamed("kestoav.exe").empty(); }));
    // Programs hold their files as long as they live.
    std::filesystem::filesystem_error error("", {});
    EXPECT_TRUE(WaitFor([&] {
        try {
            std::filesystem::remove_all(parent_);
            return true;
        } catch (const std::filesystem::filesystem_error& thrown) {
            error = thrown;
            return false;
        }
    })) << error.what();
    CloseHandle(end_);
    CloseHandle(release_);
}

void PluginFolder::WriteSettings(std::string_view lines) const {
    WriteFile(path_ + "\\kestoav.ini", "[kestoav]\r\n" + std::string(lines) + "\r\n");
}

std::vector<std::string> PluginFolder::LogMessages() const {
    std::istringstream lines(ReadFile(log_path()));
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

bool PluginFolder::WaitForLog(std::string_view message, size_t times) const {
    return WaitFor([&] {
        const auto messages = LogMessages();
        return std::count_if(messages.begin(), messages.end(), [&](const auto& each) {
                   return each.starts_with(message);
               }) >= static_cast<std::ptrdiff_t>(times);
    });
}

void PluginFolder::PlaceProgram(const std::string& program, const std::string& role) const {
    WriteFile(program + ".role", event_name_ + '\n' + std::to_string(GetCurrentProcessId()) + '\n' + role);
    // A program that runs cannot be written over, and need not be.
    CopyFileA((TestProgramFolder() + "\\old_engine_child.exe").c_str(), program.c_str(), TRUE);
}

void PluginFolder::StartProgram(const std::string& program) const {
    const size_t starts = Starts(program).size();
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    ASSERT_TRUE(CreateProcessA(program.c_str(), nullptr, nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                               &startup, &process))
        << GetLastError();
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    ASSERT_TRUE(WaitForStarts(program, starts + 1));
}

std::vector<ProgramStart> PluginFolder::Starts(const std::string& program) const {
    std::istringstream lines(ReadFile(program + ".started"));
    std::vector<ProgramStart> starts;
    std::string id, folder, command_line, show_state;
    while (std::getline(lines, id, '\t') && std::getline(lines, folder, '\t') &&
           std::getline(lines, command_line, '\t') && std::getline(lines, show_state) && !lines.eof()) {
        if (show_state.ends_with('\r')) {
            show_state.pop_back();
        }
        starts.push_back({std::stoul(id), folder, command_line, show_state});
    }
    return starts;
}

bool PluginFolder::WaitForStarts(const std::string& program, size_t count) const {
    return WaitFor([&] { return Starts(program).size() >= count; });
}

}  // namespace kesto
