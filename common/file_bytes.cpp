#include "common/file_bytes.h"

#include <windows.h>

#include <algorithm>
#include <utility>

#include "common/error_words.h"
#include "common/owned_handle.h"
#include "common/text.h"

namespace kesto {
namespace {

constexpr uint32_t kReadSize = 16u << 20;
constexpr uint32_t kFirstCapacity = 64u << 10;  // where the size is unknown
constexpr uint32_t kMostBytes = INT32_MAX;

FileBytes TooLarge() {
    return {.fault = {"File too large for a 32-bit process", ERROR_FILE_TOO_LARGE}};
}

std::optional<FileIdentity> Identify(HANDLE file) {
    const auto joined = [](DWORD high, DWORD low) { return static_cast<uint64_t>(high) << 32 | low; };
    BY_HANDLE_FILE_INFORMATION is;
    if (!GetFileInformationByHandle(file, &is)) {
        return std::nullopt;
    }
    return FileIdentity{is.dwVolumeSerialNumber, joined(is.nFileIndexHigh, is.nFileIndexLow),
                        joined(is.nFileSizeHigh, is.nFileSizeLow),
                        joined(is.ftLastWriteTime.dwHighDateTime, is.ftLastWriteTime.dwLowDateTime)};
}

bool Grow(FileBytes& bytes, uint32_t capacity) {
    void* const more = realloc(bytes.data.get(), capacity);
    if (more != nullptr) {
        static_cast<void>(bytes.data.release());
        bytes.data.reset(static_cast<uint8_t*>(more));
    }
    return more != nullptr;
}

// Has room for one byte more than the expected size, so that the end shows without taking more memory.
FileBytes ReadToEnd(HANDLE file, uint64_t told_size) {
    FileBytes bytes;
    auto capacity = static_cast<uint32_t>(std::min<uint64_t>(told_size + 1, kMostBytes));
    if (told_size >= kMostBytes || !Grow(bytes, capacity)) {
        return TooLarge();
    }
    for (;;) {
        DWORD read = 0;
        if (!ReadFile(file, bytes.data.get() + bytes.size, std::min(kReadSize, capacity - bytes.size), &read,
                      nullptr)) {
            const DWORD code = GetLastError();
            const bool writer_ended = code == ERROR_BROKEN_PIPE;
            return writer_ended ? std::move(bytes) : FileBytes{.fault = SystemFault(code)};
        }
        if (read == 0) {
            return bytes;
        }
        bytes.size += read;
        if (bytes.size == capacity) {
            capacity = std::max(kFirstCapacity, capacity < kMostBytes / 2 ? capacity * 2 : kMostBytes);
            if (bytes.size == kMostBytes || !Grow(bytes, capacity)) {
                return TooLarge();
            }
        }
    }
}

OwnedHandle Open(const std::wstring& path, DWORD access, DWORD flags) {
    return Own(CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                           nullptr, OPEN_EXISTING, flags, nullptr));
}

}  // namespace

FileBytes ReadWholeFile(const std::wstring& path) {
    const OwnedHandle file = Open(path, GENERIC_READ, FILE_FLAG_SEQUENTIAL_SCAN);
    const auto identity = file ? Identify(file.get()) : std::nullopt;  // a device has none
    if (!identity) {
        return {.fault = SystemFault(GetLastError())};
    }
    FileBytes bytes = ReadToEnd(file.get(), identity->size);
    bytes.identity = *identity;
    return bytes;
}

FileBytes ReadStandardInput() {
    return ReadToEnd(GetStdHandle(STD_INPUT_HANDLE), 0);
}

std::optional<FileIdentity> IdentityOf(const std::wstring& path) {
    return Identify(Open(path, FILE_READ_ATTRIBUTES, FILE_FLAG_BACKUP_SEMANTICS).get());
}

bool SameFile(const std::optional<FileIdentity>& a, const std::optional<FileIdentity>& b) {
    return a && b && a->volume == b->volume && a->number == b->number;
}

std::string FileTail(const std::wstring& path, uint32_t most) {
    const OwnedHandle file = Open(path, GENERIC_READ, 0);
    LARGE_INTEGER size;
    if (!file || !GetFileSizeEx(file.get(), &size)) {
        return "";
    }
    size.QuadPart = std::max<int64_t>(0, size.QuadPart - most);
    SetFilePointerEx(file.get(), size, nullptr, FILE_BEGIN);
    std::string tail(most, '\0');
    DWORD read = 0;
    tail.resize(ReadFile(file.get(), tail.data(), most, &read, nullptr) ? read : 0);
    return tail;
}

}  // namespace kesto
