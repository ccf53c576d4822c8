// Which files the named paths stand for.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kesto {

struct ListedFile {
    std::wstring path;  // as named, with what was found below it
    uint64_t size = 0;  // when it was listed
    std::string error;  // not empty: this is not a file to scan, and this is why (UTF-8)
    uint32_t code = 0;  // the system's code for it
};

// A last part with * or ? stands for the files it matches: the command shell leaves that to programs. A
// folder stands for the files in it and below it when `recursive`, and for an error when not. Junctions and
// links to folders below a named one are not entered, so that a loop ends. What is not there is listed too,
// with its error.
std::vector<ListedFile> ListFiles(const std::vector<std::wstring>& paths, bool recursive);

}  // namespace kesto
