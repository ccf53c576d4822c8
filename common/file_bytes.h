// What is to be scanned, all of it in memory.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "common/fault.h"

namespace kesto {

// What distinguishes a file from others, and its present state from later ones.
struct FileIdentity {
    uint32_t volume = 0;
    uint64_t number = 0;  // of the file on that volume
    uint64_t size = 0;
    uint64_t written = 0;  // the time of the last write
    bool operator==(const FileIdentity&) const = default;
};

struct FileBytes {
    struct Free {
        void operator()(uint8_t* bytes) const { free(bytes); }
    };
    std::unique_ptr<uint8_t, Free> data{};
    uint32_t size = 0;
    Fault fault{};            // why it was not read, or not to its end
    FileIdentity identity{};  // of a named file, before it was read
};

// Reads to the file's end, even when its size has changed. A file that does not fit into a 32-bit process is
// an error like any other. The path is taken literally: see ExactPath.
FileBytes ReadWholeFile(const std::wstring& path);

FileBytes ReadStandardInput();

// None when the path leads nowhere or this account may not look. Folders have an identity, too.
std::optional<FileIdentity> IdentityOf(const std::wstring& path);

// Whether both are known and belong to the same file, in whatever state.
bool SameFile(const std::optional<FileIdentity>& a, const std::optional<FileIdentity>& b);

// The last `most` bytes of a file that may be large; empty when it cannot be read.
std::string FileTail(const std::wstring& path, uint32_t most);

}  // namespace kesto
