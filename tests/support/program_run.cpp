#include "tests/support/program_run.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "common/program_folder.h"

namespace kesto {

std::filesystem::path BuiltFolder() {
    return std::filesystem::path(ProgramFolder()).parent_path();
}

std::string ReadFile(const std::filesystem::path& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

void WriteFile(const std::filesystem::path& path, std::string_view content) {
    std::ofstream(path, std::ios::binary) << content;
}

ProgramRun::ProgramRun(const std::filesystem::path& program, const std::wstring& arguments,
                       const std::filesystem::path& folder, const std::string& input) {
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    OwnedHandle opened[3];
    for (size_t i = 0; i < std::size(files_); ++i) {
        wchar_t file[MAX_PATH];
        GetTempFileNameW(std::filesystem::temp_directory_path().c_str(), L"run", 0, file);
        WriteFile(file, i == 0 ? input : "");
        opened[i] = Own(CreateFileW(file, GENERIC_READ | GENERIC_WRITE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &inherited,
                                    OPEN_EXISTING, 0, nullptr));
        files_[i] = file;
    }
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = opened[0].get();
    startup.hStdOutput = opened[1].get();
    startup.hStdError = opened[2].get();
    std::wstring command = L"\"" + program.wstring() + L"\" " + arguments;
    PROCESS_INFORMATION started;
    if (!CreateProcessW(program.c_str(), command.data(), nullptr, nullptr, TRUE, 0, nullptr, folder.c_str(),
                        &startup, &started)) {
        throw std::runtime_error(program.string() + " does not start: " + std::to_string(GetLastError()));
    }
    CloseHandle(started.hThread);
    process_ = Own(started.hProcess);
}

ProgramRun::~ProgramRun() {
    TerminateProcess(process_.get(), 99);
    WaitForSingleObject(process_.get(), kLongestRunMs);
    for (const auto& file : files_) {
        DeleteFileW(file.c_str());
    }
}

void ProgramRun::PressCtrlC() const {
    const auto routine = reinterpret_cast<LPTHREAD_START_ROUTINE>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("kernelbase.dll"), "CtrlRoutine")));
    CloseHandle(CreateRemoteThread(process_.get(), nullptr, 0, routine, CTRL_C_EVENT, 0, nullptr));
}

std::string ProgramRun::Told() const {
    WaitForSingleObject(process_.get(), kLongestRunMs);
    DWORD status = 0;  // STILL_ACTIVE when it did not end
    GetExitCodeProcess(process_.get(), &status);
    const std::string errors = ReadFile(files_[2]);
    return std::to_string(status) + ": " + ReadFile(files_[1]) + (errors.empty() ? "" : "! " + errors);
}

}  // namespace kesto
