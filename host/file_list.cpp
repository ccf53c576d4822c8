#include "host/file_list.h"

#include <windows.h>

#include <string_view>

#include "host/common/extended_path.h"
#include "host/common/text.h"

namespace kesto {
namespace {

// The part of `path` up to and with its last separator.
std::wstring FolderPart(const std::wstring& path) {
    const size_t end = path.find_last_of(L"\\/:");
    return end == std::wstring::npos ? L"" : path.substr(0, end + 1);
}

ListedFile Failed(const std::wstring& path, DWORD code) {
    return {path, 0, SystemErrorText(code), static_cast<uint32_t>(code)};
}

bool IsFolder(DWORD attributes) {
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

class Lister {
 public:
    Lister(bool recursive, std::vector<ListedFile>& files) : recursive_(recursive), files_(files) {}

    void AddNamed(const std::wstring& path) {
        if (path.find(L'"') != std::wstring::npos) {
            files_.push_back(
                {path, 0, "Quotation mark in the path (write \"C:\\folder\" without a backslash at its end)",
                 ERROR_INVALID_NAME});
            return;
        }
        if (path.find_first_of(L"*?", FolderPart(path).size()) != std::wstring::npos) {
            AddMatches(path, FolderPart(path), true);
            return;
        }
        WIN32_FILE_ATTRIBUTE_DATA data;
        if (!GetFileAttributesExW(ExtendedPath(path).c_str(), GetFileExInfoStandard, &data)) {
            files_.push_back(Failed(path, GetLastError()));
        } else if (IsFolder(data.dwFileAttributes)) {
            AddFolder(path);
        } else {
            files_.push_back({path, Size(data.nFileSizeHigh, data.nFileSizeLow), "", 0});
        }
    }

 private:
    static uint64_t Size(DWORD high, DWORD low) { return static_cast<uint64_t>(high) << 32 | low; }

    void AddFolder(const std::wstring& path) {
        if (!recursive_) {
            files_.push_back({path, 0, "Is a folder (--recursive scans it)", ERROR_DIRECTORY});
            return;
        }
        const bool ends = path.find_last_of(L"\\/:") == path.size() - 1;
        const std::wstring inside = ends ? path : path + L"\\";
        AddMatches(inside + L"*", inside, false);
    }

    // `named`: the pattern is the user's own, so that folders which it matches count as named.
    void AddMatches(const std::wstring& pattern, const std::wstring& folder, bool named) {
        WIN32_FIND_DATAW found;
        HANDLE search = FindFirstFileW(ExtendedPath(pattern).c_str(), &found);
        if (search == INVALID_HANDLE_VALUE) {
            // An empty folder has no file, not even "." when it is a drive's root.
            if (named || GetLastError() != ERROR_FILE_NOT_FOUND) {
                files_.push_back(Failed(named ? pattern : folder, GetLastError()));
            }
            return;
        }
        std::vector<std::wstring> folders;
        do {
            const std::wstring_view name = found.cFileName;
            if (name == L"." || name == L"..") {
                continue;
            }
            const std::wstring path = folder + found.cFileName;
            if (!IsFolder(found.dwFileAttributes)) {
                files_.push_back({path, Size(found.nFileSizeHigh, found.nFileSizeLow), "", 0});
            } else if (named || !(found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT)) {
                folders.push_back(path);
            }
        } while (FindNextFileW(search, &found));
        const DWORD end = GetLastError();
        FindClose(search);
        if (end != ERROR_NO_MORE_FILES) {
            files_.push_back(Failed(folder, end));
        }
        for (const std::wstring& path : folders) {
            AddFolder(path);
        }
    }

    const bool recursive_;
    std::vector<ListedFile>& files_;
};

}  // namespace

std::vector<ListedFile> ListFiles(const std::vector<std::wstring>& paths, bool recursive) {
    std::vector<ListedFile> files;
    Lister lister(recursive, files);
    for (const std::wstring& path : paths) {
        lister.AddNamed(path);
    }
    return files;
}

}  // namespace kesto
