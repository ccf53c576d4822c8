// The records and codes that the mail server and the plug-in exchange. The mail server determines their
// layout: 32-bit, no padding.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kesto {

inline constexpr size_t kShortNameSize = 32;  // bytes of the host's short-name buffer
inline constexpr size_t kLongNameSize = 256;  // bytes of the host's long-name buffer
inline constexpr size_t kFileNameSize = 256;  // bytes of a file name, its NUL included
inline constexpr size_t kVirusNameSize = 50;  // bytes of a virus name, its NUL included
inline constexpr size_t kUpdateTitleSize = 255;
inline constexpr size_t kUpdateMessageSize = 4000;
inline constexpr int32_t kInterfaceVersion = 1;

// What a failed scan reports.
inline constexpr uint32_t kErrorConnect = 1001;      // no engine can be reached, even after a restart; fatal
inline constexpr uint32_t kErrorCommunicate = 1002;  // sending to the engine failed
inline constexpr uint32_t kErrorReply = 1003;        // the engine's reply was not understood

// One file to scan. Owned by the host, read only.
struct ScanFileInput {
    char name[kFileNameSize];  // may fill all bytes without a NUL
    uint32_t size;             // bytes at `data`; the host may change it while the scan runs
    const uint8_t* data;
};

// Owned by the host; written to only when a virus is found.
struct ScanFileResult {
    uint32_t reserved;  // the host's own, never touched
    uint32_t infected;  // set to 1
    char* detection;    // kDetectionSize bytes: the file's name, then the virus name
};

inline constexpr size_t kDetectionFileName = 0;  // offsets into `detection`
inline constexpr size_t kDetectionVirusName = kFileNameSize;
inline constexpr size_t kDetectionSize = kFileNameSize + kVirusNameSize;

static_assert(kDetectionSize == 306);
static_assert(offsetof(ScanFileInput, size) == 256);
#ifdef _WIN32
static_assert(sizeof(ScanFileInput) == 264);
static_assert(sizeof(ScanFileResult) == 12);
#endif

}  // namespace kesto
