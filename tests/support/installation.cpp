#include "tests/support/installation.h"

#include <gtest/gtest.h>
#include <psapi.h>

#include <atomic>
#include <fstream>
#include <span>
#include <sstream>
#include <thread>

#include "common/processes.h"

namespace kesto {
namespace {

// A test that hangs ends its program, with its children, before the runner's limit passes: a signal from
// outside has taken Wine's server along. The thread outlives the test framework, so it touches nothing of
// that.
std::atomic<ULONGLONG> g_test_ends_by = ULLONG_MAX;

class Watch : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override {
        g_test_ends_by = GetTickCount64() + 10 * kTestLimit.count();
    }
    void OnTestEnd(const testing::TestInfo&) override { g_test_ends_by = ULLONG_MAX; }
};

[[maybe_unused]] const bool g_watched = [] {
    // All programs that this process starts, and that those start, end with it, however it ends.
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    const HANDLE job = CreateJobObjectA(nullptr, nullptr);  // closed with the process
    SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits);
    AssignProcessToJobObject(job, GetCurrentProcess());
    testing::UnitTest::GetInstance()->listeners().Append(new Watch);
    std::thread([] {
        while (GetTickCount64() < g_test_ends_by) {
            Sleep(250);
        }
        fputs("the test hangs\n", stderr);
        TerminateProcess(GetCurrentProcess(), 1);
    }).detach();
    return true;
}();

int g_installations = 0;

}  // namespace

Installation::Installation(const std::wstring& name)
    : top(std::filesystem::temp_directory_path() /
          ("kesto" + std::to_string(GetCurrentProcessId()) + "." + std::to_string(++g_installations))),
      folder(top / name) {
    std::filesystem::remove_all(top);  // left by a process that had the same ID
    std::filesystem::create_directories(engine_folder);
    for (const char* each : {"CLAMDLL.dll", "kestoscan.exe"}) {
        std::filesystem::copy_file(BuiltFolder() / each, folder / each);
    }
}

Installation::~Installation() {
    started_.clear();
    EndPrograms();
    // The path is in its exact form, for names that Windows would take for others. A program's file may be in
    // use for a moment after its end.
    std::error_code error;
    EXPECT_TRUE(WaitFor([&] {
        return std::filesystem::remove_all(L"\\\\?\\" + top.wstring(), error), !error;
    })) << error.message();
}

std::vector<DWORD> Installation::ProcessesOf(const std::wstring& program) {
    std::vector<DWORD> found;
    DWORD ids[4096], bytes = 0;
    EnumProcesses(ids, sizeof ids, &bytes);
    for (const DWORD id : std::span(ids, bytes / sizeof *ids)) {
        if (ProgramOf(id).starts_with(program)) {
            found.push_back(id);
        }
    }
    return found;
}

void Installation::EndPrograms(const std::wstring& program) const {
    for (const DWORD id : ProcessesOf(program.empty() ? top.wstring() + L"\\" : program)) {
        EndProcess(id);
    }
}

void Installation::WriteSettings(std::string_view lines) const {
    WriteFile(folder / "kestoav.ini", "[kestoav]\r\n" + std::string(lines) + "\r\n");
}

std::vector<std::string> Installation::LogMessages() const {
    std::istringstream lines(ReadText(log));
    std::vector<std::string> messages;
    for (std::string line; std::getline(lines, line) && !lines.eof();) {
        if (line.starts_with("20")) {
            messages.push_back(line.substr(line.find(": ") + 2));
        } else {
            messages.back() += '\n' + line;
        }
    }
    return messages;
}

void Installation::PlaceStandIn(const std::filesystem::path& program, const std::string& role) const {
    WriteFile(program.native() + L".role", role);
    // A program that runs cannot be overwritten, and need not be.
    CopyFileW((BuiltFolder() / "tests" / "engine_child.exe").c_str(), program.c_str(), TRUE);
}

uint16_t Installation::PlaceBridge(const std::string& upstreams, const std::string& more_lines,
                                   const char* program) const {
    const uint16_t port = FreePort();
    WriteFile(engine_folder / "bridge.ini", "[bridge]\r\nlisten=127.0.0.1:" + std::to_string(port) +
                                                "\r\nupstreams=" + upstreams + "\r\n" + more_lines + "\r\n");
    WriteFile(engine_folder / "bridge.log", "");
    CopyFileW((BuiltFolder() / "kestoav.exe").c_str(), (engine_folder / program).c_str(), FALSE);
    CopyFileW((BuiltFolder() / "kestobridge.exe").c_str(), worker.c_str(), FALSE);
    return port;
}

void Installation::StartStandIn(const std::filesystem::path& program) {
    PlaceStandIn(program, "wait");
    const size_t starts = Starts(program);
    started_.emplace_back(program);
    EXPECT_TRUE(WaitFor([&] { return Starts(program) > starts; }));
}

size_t Installation::Starts(const std::filesystem::path& program) const {
    return ReadFile(program.native() + L".started").size();
}

}  // namespace kesto
