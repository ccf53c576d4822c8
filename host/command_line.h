// What the user asks for.
#pragma once

#include <string>
#include <vector>

#include "common/fault.h"
#include "host/file_list.h"

namespace kesto::host {

enum class Task { kScan, kVersion, kUpdate, kCheck, kPing, kStats, kRestart, kHelp };

struct Options {
    Task task = Task::kScan;
    std::vector<std::wstring> paths;
    std::wstring file_list;  // a path or "-"; empty: none
    ListOptions list;
    std::wstring library;  // absolute
    std::wstring folder;   // absolute, without a backslash at its end
    std::wstring log;      // empty: none
    bool move = false;     // infected files are moved into list.quarantine, otherwise copied
    unsigned jobs = 1;
    unsigned timeout = 300;  // seconds for a file
    unsigned wait = 0;       // seconds for the engine to answer
    bool infected = false;
    bool json = false;
    bool summary = true;
};

// After wrong usage only `json` is set. Prints the help.
Fault ParseCommandLine(int count, wchar_t** arguments, Options& options);

}  // namespace kesto::host
