#include "host/common/file_bytes.h"

#include <windows.h>

#include <algorithm>
#include <new>

#include "host/common/extended_path.h"
#include "host/common/text.h"

namespace kesto {
namespace {

constexpr uint32_t kReadSize = 16u << 20;

FileBytes Failed(DWORD code) {
    return {nullptr, 0, SystemErrorText(code), static_cast<uint32_t>(code)};
}

FileBytes ReadOpened(HANDLE file) {
    LARGE_INTEGER size;
    if (!GetFileSizeEx(file, &size)) {
        return Failed(GetLastError());
    }
    FileBytes bytes;
    const auto wanted = static_cast<uint32_t>(std::min<int64_t>(size.QuadPart, INT32_MAX));
    if (size.QuadPart == wanted) {
        bytes.data.reset(new (std::nothrow) uint8_t[wanted]);
    }
    if (!bytes.data) {
        return {nullptr, 0, "File too large for a 32-bit process", ERROR_FILE_TOO_LARGE};
    }
    while (bytes.size < wanted) {
        DWORD read = 0;
        if (!ReadFile(file, bytes.data.get() + bytes.size, std::min(kReadSize, wanted - bytes.size), &read,
                      nullptr)) {
            return Failed(GetLastError());
        }
        if (read == 0) {
            break;  // it has become shorter
        }
        bytes.size += read;
    }
    return bytes;
}

}  // namespace

FileBytes ReadWholeFile(const std::wstring& path) {
    HANDLE file = CreateFileW(ExtendedPath(path).c_str(), GENERIC_READ,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                              FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return Failed(GetLastError());
    }
    FileBytes bytes = ReadOpened(file);
    CloseHandle(file);
    return bytes;
}

}  // namespace kesto
