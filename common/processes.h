// The running processes of a program, as an administrator wants to see them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kesto {

struct ProgramProcess {
    uint32_t id;
    bool visible;       // this account may query it; otherwise the plug-in would not see it from this account
    std::wstring path;  // of its program; empty when not visible
};

// Every process whose program file has this name, in any folder.
std::vector<ProgramProcess> ProcessesNamed(const wchar_t* name);
inline std::vector<ProgramProcess> EngineProcesses() {
    return ProcessesNamed(L"kestoav.exe");
}

// The name of a process's program file; empty when there is no such process.
std::wstring ProcessName(uint32_t id);

// Whether both name the same file, even if one of them uses short names.
bool NameSameFile(const std::wstring& a, const std::wstring& b);

}  // namespace kesto
