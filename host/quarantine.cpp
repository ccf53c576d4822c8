#include "host/quarantine.h"

#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <iterator>

#include "common/error_words.h"
#include "host/exact_path.h"

namespace kesto::host {
namespace {

constexpr int kMostOfOneName = 1000;

PutAwayResult Left(bool move, const Fault& fault) {
    return {.fault = {(move ? "Not moved: " : "Not copied: ") + fault.text, fault.code}};
}

// Returns the system's error code.
DWORD Remove(const std::wstring& path) {
    SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);  // the system would not delete a read-only file
    return DeleteFileW(path.c_str()) ? 0 : GetLastError();
}

// Moves the file to the first name in the folder that is free, and adds to `name` what makes it so. Returns
// the system's error code.
DWORD MoveInto(const std::wstring& inside, const std::wstring& from, std::wstring& name) {
    for (int i = 0; i < kMostOfOneName; ++i) {
        wchar_t number[8] = L"";
        if (i > 0) {
            std::swprintf(number, std::size(number), L".%03d", i);
        }
        if (MoveFileExW(from.c_str(), (inside + name + number).c_str(), 0)) {
            name += number;
            return 0;
        }
        const DWORD code = GetLastError();
        if (code != ERROR_ALREADY_EXISTS && code != ERROR_FILE_EXISTS) {
            return code;
        }
    }
    return ERROR_ALREADY_EXISTS;
}

// The same with a copy, which gets its name only when it is complete.
DWORD CopyInto(const std::wstring& inside, const std::wstring& from, std::wstring& name) {
    const std::wstring part = inside + L"kestoscan." + std::to_wstring(GetCurrentProcessId()) + L".part";
    const bool copied = CopyFileW(from.c_str(), part.c_str(), FALSE) != FALSE;
    const DWORD code = copied ? MoveInto(inside, part, name) : GetLastError();
    if (code != 0) {
        Remove(part);
    }
    return code;
}

}  // namespace

PutAwayResult PutAway(const std::wstring& exact_path, const FileIdentity& scanned, const std::wstring& folder,
                      bool move) {
    const std::wstring exact_folder = ExactPath(folder);
    const std::wstring inside = exact_folder.ends_with(L'\\') ? exact_folder : exact_folder + L"\\";
    const size_t name_at = exact_path.find_last_of(L'\\') + 1;
    if (_wcsicmp(exact_path.substr(0, name_at).c_str(), inside.c_str()) == 0) {
        return {};
    }
    if (IdentityOf(exact_path) != scanned) {
        return Left(move, {"the file has changed since it was read", ERROR_FILE_INVALID});
    }
    std::wstring name = exact_path.substr(name_at);
    DWORD code = move ? MoveInto(inside, exact_path, name) : ERROR_NOT_SAME_DEVICE;
    const bool copy = code == ERROR_NOT_SAME_DEVICE;
    if (copy) {
        code = CopyInto(inside, exact_path, name);
    }
    if (code != 0) {
        return Left(move, SystemFault(code));
    }
    PutAwayResult result = {move ? "moved" : "copied",
                            folder + (folder.ends_with(L'\\') ? L"" : L"\\") + name};
    if (copy && move && (code = Remove(exact_path)) != 0) {
        result.done = "copied";
        result.fault = SystemFault(code, "Copied, but not removed: ");
    }
    return result;
}

}  // namespace kesto::host
