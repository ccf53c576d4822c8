// Which files the named paths stand for.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kesto::host {

struct ListedFile {
    std::wstring path;     // as named, with what was found below it
    std::wstring exact{};  // to open it by; empty for standard input
    uint64_t size = 0;     // when it was listed
    std::string error{};   // not empty: this is not a file to scan, and this is why (UTF-8)
    uint32_t code = 0;     // the system's code for it
    bool skipped = false;  // the error is none, but a folder that a pattern happened to match
};

struct ListOptions {
    bool recursive = false;
    // Names to leave out; a pattern with a separator is for whole paths as they are printed.
    std::vector<std::wstring> excluded_files;
    std::vector<std::wstring> excluded_folders;
};

inline constexpr wchar_t kStandardInput[] = L"-";  // as a path

// A last part with * or ? stands for the files it matches: the command shell leaves that to programs. A
// folder stands for the files in it and below it when `recursive`, and for an error when not. Junctions and
// links to folders below a named one are not entered, so that a loop ends. What is not there is listed too,
// with its error, and so are devices.
std::vector<ListedFile> ListFiles(const std::vector<std::wstring>& paths, const ListOptions& options);

// The lines of `file`, or of standard input, that are not empty, as WideFromFile reads them. False with
// `error` set (UTF-8) when it cannot be read.
bool ReadPathList(const std::wstring& file, std::vector<std::wstring>& paths, std::string& error);

}  // namespace kesto::host
