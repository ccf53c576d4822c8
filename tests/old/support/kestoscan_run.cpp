#include "tests/support/kestoscan_run.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace kesto {
namespace {

constexpr DWORD kLongestRunMs = 30'000;

// Files, unlike pipes, take any amount of output without a thread to read it.
std::wstring TemporaryFile() {
    wchar_t folder[MAX_PATH];
    wchar_t file[MAX_PATH];
    GetTempPathW(MAX_PATH, folder);
    GetTempFileNameW(folder, L"kst", 0, file);
    return file;
}

HANDLE OpenForChild(const std::wstring& path) {
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    return CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, &inherited,
                       CREATE_ALWAYS, 0, nullptr);
}

std::string Content(const std::wstring& path) {
    std::ostringstream content;
    content << std::ifstream(std::filesystem::path(path), std::ios::binary).rdbuf();
    return content.str();
}

}  // namespace

std::wstring BuiltKestoscan() {
    std::wstring path(MAX_PATH, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), MAX_PATH));
    return (std::filesystem::path(path).parent_path().parent_path() / L"kestoscan.exe").wstring();
}

KestoscanRun::KestoscanRun(const std::wstring& arguments, const std::wstring& program, bool own_console)
    : out_path_(TemporaryFile()), err_path_(TemporaryFile()) {
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = INVALID_HANDLE_VALUE;
    startup.hStdOutput = OpenForChild(out_path_);
    startup.hStdError = OpenForChild(err_path_);
    std::wstring command = L"\"" + program + L"\" " + arguments;
    EXPECT_TRUE(CreateProcessW(program.c_str(), command.data(), nullptr, nullptr, TRUE,
                               own_console ? CREATE_NO_WINDOW : 0, nullptr, nullptr, &startup, &process_))
        << GetLastError();
    CloseHandle(startup.hStdOutput);
    CloseHandle(startup.hStdError);
}

KestoscanRun::~KestoscanRun() {
    TerminateProcess(process_.hProcess, 99);
    WaitForSingleObject(process_.hProcess, kLongestRunMs);
    CloseHandle(process_.hThread);
    CloseHandle(process_.hProcess);
    DeleteFileW(out_path_.c_str());
    DeleteFileW(err_path_.c_str());
}

void KestoscanRun::Interrupt() {
    SetConsoleCtrlHandler(nullptr, TRUE);  // the event reaches all who share the console, this process too
    FreeConsole();
    EXPECT_TRUE(AttachConsole(process_.dwProcessId)) << GetLastError();
    EXPECT_TRUE(GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0)) << GetLastError();
    FreeConsole();
}

RunResult KestoscanRun::Finish() {
    DWORD status = STILL_ACTIVE;
    EXPECT_EQ(WaitForSingleObject(process_.hProcess, kLongestRunMs), WAIT_OBJECT_0);
    GetExitCodeProcess(process_.hProcess, &status);
    return {status, Content(out_path_), Content(err_path_)};
}

}  // namespace kesto
