// What the user asks for.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/file_list.h"

namespace kesto::host {

enum class Task { kScan, kVersion, kUpdate, kCheck, kPing, kStats, kRestart };

struct Options {
    Task task = Task::kScan;
    std::vector<std::wstring> paths;
    std::wstring file_list;  // a path or "-"; empty: none
    ListOptions list;
    std::wstring library;     // absolute
    std::wstring folder;      // absolute, without a backslash at its end
    std::wstring log;         // empty: none
    std::wstring quarantine;  // absolute; empty: what is found stays where it is
    bool move = false;        // there; otherwise it is copied
    unsigned jobs = 1;
    unsigned timeout = 300;  // seconds for a file
    unsigned wait = 0;       // seconds for the engine to answer
    bool infected = false;
    bool json = false;
    bool summary = true;
};

// None when there is nothing to be done but to end with `status`: help, or wrong usage, has been printed.
std::optional<Options> ParseCommandLine(int count, wchar_t** arguments, int& status);

}  // namespace kesto::host
