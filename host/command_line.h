// What the user asks for.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kesto {

enum class Task { kScan, kVersion, kUpdate, kCheck };

struct Options {
    Task task = Task::kScan;
    std::vector<std::wstring> paths;
    std::wstring library;  // absolute
    std::wstring folder;   // absolute, without a backslash at its end
    unsigned jobs = 1;
    bool recursive = false;
    bool infected = false;
    bool json = false;
};

// None when there is nothing to be done but to end with `status`: help, or wrong usage, has been printed.
std::optional<Options> ParseCommandLine(int count, wchar_t** arguments, int& status);

}  // namespace kesto
