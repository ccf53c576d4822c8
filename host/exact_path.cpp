#include "host/exact_path.h"

#include <windows.h>

#include <algorithm>
#include <string_view>
#include <vector>

namespace kesto::host {
namespace {

bool HasDrive(std::wstring_view path) {
    return path.size() >= 2 && path[1] == L':' && ((path[0] | 0x20) >= L'a' && (path[0] | 0x20) <= L'z');
}

// `path` with the current folder, or that of its drive, put in front.
std::wstring Rooted(const std::wstring& path) {
    if (path.starts_with(L"\\\\") || (HasDrive(path) && path.size() > 2 && path[2] == L'\\')) {
        return path;
    }
    if (path.starts_with(L"\\")) {
        return SystemFullPath(L"\\") + path;
    }
    const size_t drive = HasDrive(path) ? 2 : 0;
    return SystemFullPath(path.substr(0, drive) + L".") + L"\\" + path.substr(drive);
}

}  // namespace

std::wstring SystemFullPath(const std::wstring& path) {
    std::wstring full(GetFullPathNameW(path.c_str(), 0, nullptr, nullptr), L'\0');
    full.resize(GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr));
    return full;
}

std::wstring ExactPath(const std::wstring& path) {
    if (path.starts_with(L"\\\\?\\") || path.starts_with(L"\\\\.\\")) {
        return path;
    }
    std::wstring slashed = path;
    std::replace(slashed.begin(), slashed.end(), L'/', L'\\');
    const std::wstring rooted = Rooted(slashed);
    const bool on_server = rooted.starts_with(L"\\\\");
    const size_t root_parts = on_server ? 2 : 1;  // \\server\share, or the drive; ".." does not go beyond

    std::vector<std::wstring_view> parts;
    for (std::wstring_view rest = rooted; !rest.empty();) {
        const size_t end = std::min(rest.find(L'\\'), rest.size());
        const std::wstring_view part = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
        if (part == L"..") {
            parts.resize(std::max(std::min(root_parts, parts.size()), parts.size() - 1));
        } else if (!part.empty() && part != L".") {
            parts.push_back(part);
        }
    }
    std::wstring exact = on_server ? L"\\\\?\\UNC" : L"\\\\?";
    for (const std::wstring_view part : parts) {
        exact += L'\\';
        exact += part;
    }
    return parts.size() == root_parts ? exact + L'\\' : exact;
}

std::wstring FolderPart(const std::wstring& path) {
    const size_t end = path.find_last_of(L"\\/:");
    return end == std::wstring::npos ? L"" : path.substr(0, end + 1);
}

}  // namespace kesto::host
