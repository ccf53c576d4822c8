// What is to be scanned, whole in memory.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "common/fault.h"

namespace kesto {

// What tells one file, and one state of it, from another.
struct FileIdentity {
    uint32_t volume = 0;
    uint64_t number = 0;  // of the file there
    uint64_t size = 0;
    uint64_t written = 0;  // when
    bool operator==(const FileIdentity&) const = default;
};

struct FileBytes {
    struct Free {
        void operator()(uint8_t* bytes) const { free(bytes); }
    };
    std::unique_ptr<uint8_t, Free> data{};
    uint32_t size = 0;
    Fault fault{};            // it was not read, or not whole
    FileIdentity identity{};  // before it was read; of a named file
};

// Reads to the file's end, whatever size was told before. What a 32-bit process cannot hold is an error like
// any other. The path is taken as it stands: see ExactPath.
FileBytes ReadWholeFile(const std::wstring& path);

FileBytes ReadStandardInput();

// None when the path leads nowhere, or not for this account. Folders have one, too.
std::optional<FileIdentity> IdentityOf(const std::wstring& path);

// Whether both are known and of one file, whatever its state.
bool SameFile(const std::optional<FileIdentity>& a, const std::optional<FileIdentity>& b);

// The last `most` bytes of a file that may be large; empty when it cannot be read.
std::string FileTail(const std::wstring& path, uint32_t most);

}  // namespace kesto
