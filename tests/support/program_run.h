// A program as its user sees it: a process with arguments, output and an exit status.
#pragma once

#include <windows.h>

#include <filesystem>
#include <string>

#include "common/owned_handle.h"

namespace kesto {

// Where the programs were built: kestoscan.exe, CLAMDLL.dll, kestoav.exe, tests\engine_child.exe.
std::filesystem::path BuiltFolder();
std::string ReadFile(const std::filesystem::path& path);  // empty when there is none
void WriteFile(const std::filesystem::path& path, std::string_view content);

class ProgramRun {
 public:
    // Starts `program` in a folder, with `arguments` taken literally and `input` as its standard input.
    explicit ProgramRun(const std::filesystem::path& program, const std::wstring& arguments = L"",
                        const std::filesystem::path& folder = L"C:\\", const std::string& input = "");
    ~ProgramRun();  // ends it if it still runs

    void PressCtrlC() const;  // as the system itself tells a single process
    // Waits for the end, and tells the exit status and all that was said: "0: ", its output, "! " and its
    // errors.
    std::string Told() const;

 private:
    static constexpr DWORD kLongestRunMs = 40'000;  // longer than a check may take

    // Its standard input, output and errors. Files, unlike pipes, take any amount without a thread to read
    // it.
    std::filesystem::path files_[3];
    OwnedHandle process_;
};

}  // namespace kesto
