// A whole file in memory.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace kesto {

struct FileBytes {
    std::unique_ptr<uint8_t[]> data;
    uint32_t size = 0;
    std::string error;  // not empty: the file was not read (UTF-8)
    uint32_t code = 0;  // the system's code for it
};

// Files that a 32-bit process cannot hold are an error like any other.
FileBytes ReadWholeFile(const std::wstring& path);

}  // namespace kesto
