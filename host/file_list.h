// Which files the named paths stand for.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/fault.h"

namespace kesto::host {

struct ListedFile {
    std::wstring path;     // as named, with what was found below it
    std::wstring exact{};  // to open it by; empty for standard input
    uint64_t size = 0;     // when it was listed
    Fault fault{};         // this is not a file to scan, and this is why
    bool skipped = false;  // nothing is wrong about that
};

struct ListOptions {
    bool recursive = false;
    // Names to leave out; a pattern with a separator is for whole paths, as they are printed or in full.
    std::vector<std::wstring> excluded_files;
    std::vector<std::wstring> excluded_folders;
    std::wstring quarantine;  // absolute; its files are not scanned again. Empty: there is none
};

struct FileListing {
    std::vector<ListedFile> files;
    uint64_t left_out = 0;  // files and folders, by the patterns
};

inline constexpr wchar_t kStandardInput[] = L"-";  // as an argument

// A last part with * or ? stands for the files it matches: the command shell leaves that to programs. A
// folder stands for the files in it and below it when `recursive`, and for an error when not. Junctions and
// links to folders below a named one are not entered, so that a loop ends. What is not there is listed too,
// with its error, and so are devices. The patterns of `options` are for what was found, not for what was
// named. Only among the `arguments` "-" is standard input: a list has it for a file of that name.
FileListing ListFiles(const std::vector<std::wstring>& arguments, const std::vector<std::wstring>& from_list,
                      const ListOptions& options);

// The lines of `file`, or of standard input, that are not empty, as WideFromFile reads them.
Fault ReadPathList(const std::wstring& file, std::vector<std::wstring>& paths);

}  // namespace kesto::host
