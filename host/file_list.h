// Turns the paths that the user names into a list of files.
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
    Fault fault{};         // why this is not a file to scan
    bool skipped = false;  // that is not an error
};

struct ListOptions {
    bool recursive = false;
    // Names to leave out; a pattern with a separator is for whole paths, as they are printed or in full.
    std::vector<std::wstring> excluded_files;
    std::vector<std::wstring> excluded_folders;
};

struct FileListing {
    std::vector<ListedFile> files;
    uint64_t left_out = 0;  // files and folders, by the patterns
};

inline constexpr wchar_t kStandardInput[] = L"-";  // as an argument

// A last part with * or ? stands for the files that it matches, since the command shell leaves that to
// programs. A folder stands for the files in it and below it if `recursive` is set, otherwise it is an error.
// Junctions and links to folders below a named folder are not entered, so that loops end. Paths that do not
// exist are listed with their error, and so are devices. The patterns of `options` apply to what was found,
// not to what was named. "-" is standard input among the `arguments` only; in a list it is a file of that
// name. What is in the quarantine, if it is not empty, is not scanned again.
FileListing ListFiles(const std::vector<std::wstring>& arguments, const std::vector<std::wstring>& from_list,
                      const ListOptions& options, const std::wstring& quarantine);

// The lines of `file`, or of standard input, that are not empty, as WideFromFile reads them.
Fault ReadPathList(const std::wstring& file, std::vector<std::wstring>& paths);

}  // namespace kesto::host
