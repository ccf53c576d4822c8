// What is to be scanned, whole in memory.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

namespace kesto {

struct FileBytes {
    struct Free {
        void operator()(uint8_t* bytes) const { free(bytes); }
    };
    std::unique_ptr<uint8_t, Free> data;
    uint32_t size = 0;
    std::string error;  // not empty: it was not read, or not whole (UTF-8)
    uint32_t code = 0;  // the system's code for it
};

// Reads to the file's end, whatever size was told before. What a 32-bit process cannot hold is an error like
// any other. The path is taken as it stands: see ExactPath.
FileBytes ReadWholeFile(const std::wstring& path);

FileBytes ReadStandardInput();

// The last `most` bytes of a file that may be large; empty when it cannot be read.
std::string FileTail(const std::wstring& path, uint32_t most);

}  // namespace kesto
