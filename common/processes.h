// The running processes of a program, as an administrator wants to see and end them.
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

// Windows lets an administrator look at the processes of other accounts, such as the mail server's, and end
// them, only with a privilege that administrators have but that is off. Turns it on where this account has
// it.
void EnableDebugPrivilege();

// Every process whose program file has this name, in any folder.
std::vector<ProgramProcess> ProcessesNamed(const wchar_t* name);
inline std::vector<ProgramProcess> EngineProcesses() {
    return ProcessesNamed(L"kestoav.exe");
}

// Those that run from this program file, or from one in its folder that had its name when they started, as
// far as this account may see them.
std::vector<ProgramProcess> ProcessesOf(const std::wstring& file);

// Of the engine in this folder: first the guards, which would start a worker again.
std::vector<ProgramProcess> EngineIn(const std::wstring& folder);

bool AnyVisible(const std::vector<ProgramProcess>& processes);

// "kestoav.exe runs as process 12 under another account", where this account may see none of these; else
// empty.
std::string HiddenEngine(const std::vector<ProgramProcess>& engines);

// "MACHINE\\name" of a process; empty when Windows does not tell.
std::wstring AccountOf(uint32_t id);

// Ends a process and waits for its end, for 10 s at most. False when it may run on. A guard's worker ends
// with it, a moment later.
bool EndProcess(uint32_t id);

// The path of a process's program file; empty when this account may not see it.
std::wstring ProgramOf(uint32_t id);

// The name of a process's program file; empty when there is no such process.
std::wstring ProcessName(uint32_t id);

// Whether both name the same file, even if one of them uses short names.
bool NameSameFile(const std::wstring& a, const std::wstring& b);

// Whether a program's file lies in this folder.
bool LiesIn(const std::wstring& program, const std::wstring& folder);

}  // namespace kesto
