#include "tests/support/program_run.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace kesto {
namespace {

constexpr DWORD kLongestRunMs = 40'000;  // longer than a check may take

// Files, unlike pipes, take any amount of output without a thread to read it.
std::filesystem::path TemporaryFile() {
    wchar_t file[MAX_PATH];
    GetTempFileNameW(std::filesystem::temp_directory_path().c_str(), L"run", 0, file);
    return file;
}

HANDLE OpenForChild(const std::filesystem::path& path, DWORD access) {
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    return CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                       &inherited, OPEN_EXISTING, 0, nullptr);
}

}  // namespace

std::filesystem::path BuiltFolder() {
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    return std::filesystem::path(path).parent_path().parent_path();
}

std::string ReadFile(const std::filesystem::path& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

std::string ReadText(const std::filesystem::path& path) {
    std::string text = ReadFile(path);
    std::erase(text, '\r');
    return text;
}

void WriteFile(const std::filesystem::path& path, std::string_view content) {
    std::ofstream(path, std::ios::binary) << content;
}

ProgramRun::ProgramRun(const std::filesystem::path& program, const std::wstring& arguments,
                       const std::filesystem::path& folder, const std::string& input)
    : in_path_(TemporaryFile()), out_path_(TemporaryFile()), err_path_(TemporaryFile()) {
    WriteFile(in_path_, input);
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = OpenForChild(in_path_, GENERIC_READ);
    startup.hStdOutput = OpenForChild(out_path_, GENERIC_WRITE);
    startup.hStdError = OpenForChild(err_path_, GENERIC_WRITE);
    std::wstring command = L"\"" + program.wstring() + L"\" " + arguments;
    const BOOL started = CreateProcessW(program.c_str(), command.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                        folder.c_str(), &startup, &process_);
    const DWORD error = GetLastError();
    for (const HANDLE each : {startup.hStdInput, startup.hStdOutput, startup.hStdError}) {
        CloseHandle(each);
    }
    if (!started) {
        throw std::runtime_error(program.string() + " does not start: " + std::to_string(error));
    }
}

ProgramRun::~ProgramRun() {
    TerminateProcess(process_.hProcess, 99);
    WaitForSingleObject(process_.hProcess, kLongestRunMs);
    CloseHandle(process_.hThread);
    CloseHandle(process_.hProcess);
    for (const auto& each : {in_path_, out_path_, err_path_}) {
        DeleteFileW(each.c_str());
    }
}

void ProgramRun::SendConsoleEvent(DWORD event) const {
    const auto routine = reinterpret_cast<LPTHREAD_START_ROUTINE>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("kernelbase.dll"), "CtrlRoutine")));
    void* const argument = reinterpret_cast<void*>(static_cast<uintptr_t>(event));
    CloseHandle(CreateRemoteThread(process_.hProcess, nullptr, 0, routine, argument, 0, nullptr));
}

RunResult ProgramRun::Finish() const {
    WaitForSingleObject(process_.hProcess, kLongestRunMs);
    RunResult result = {.out = ReadFile(out_path_), .err = ReadFile(err_path_)};
    GetExitCodeProcess(process_.hProcess, &result.status);
    return result;
}

}  // namespace kesto
