#include "host/common/extended_path.h"

#include <windows.h>

namespace kesto {
namespace {

constexpr DWORD kShortPath = MAX_PATH - 12;  // the system takes these as they are, folders included

}  // namespace

std::wstring ExtendedPath(const std::wstring& path) {
    const DWORD size = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    if (size < kShortPath || path.starts_with(L"\\\\?\\")) {
        return path;
    }
    std::wstring full(size, L'\0');
    full.resize(GetFullPathNameW(path.c_str(), size, full.data(), nullptr));
    if (full.starts_with(L"\\\\")) {
        return L"\\\\?\\UNC" + full.substr(1);
    }
    return L"\\\\?\\" + full;
}

}  // namespace kesto
