#include "host/file_list.h"

#include <windows.h>

#include <algorithm>
#include <string_view>

#include "common/error_words.h"
#include "common/exact_path.h"
#include "common/file_bytes.h"
#include "common/text.h"
#include "host/name_pattern.h"

namespace kesto::host {
namespace {

bool IsFolder(DWORD attributes) {
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

uint64_t Size(DWORD high, DWORD low) {
    return static_cast<uint64_t>(high) << 32 | low;
}

// A link to a folder or a junction; not what a cloud or deduplicating file system marks in the same way.
bool IsLink(const WIN32_FIND_DATAW& found) {
    const DWORD tag = found.dwReserved0;
    return (found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
           (tag == 0 || IsReparseTagNameSurrogate(tag));
}

// Of what the user wrote in exact form himself: a file's path, and no device's.
bool NamesDevice(const std::wstring& path) {
    const bool on_drive = path.size() > 6 && path[5] == L':' && path[6] == L'\\';
    return path.starts_with(L"\\\\.\\") ||
           (path.starts_with(L"\\\\?\\") && !on_drive && !path.starts_with(L"\\\\?\\UNC\\"));
}

class Lister {
 public:
    Lister(const ListOptions& options, std::vector<ListedFile>& files) : options_(options), files_(files) {}

    void AddNamed(const std::wstring& path) {
        const std::wstring folder = FolderPart(path);
        if (path == kStandardInput) {
            files_.push_back({.path = path});
        } else if (path.empty()) {
            AddFailed(path, "Empty path", ERROR_INVALID_NAME);
        } else if (path.find(L'"') != std::wstring::npos) {
            AddFailed(path,
                      "Quotation mark in the path (write \"C:\\folder\" without a backslash at its end)",
                      ERROR_INVALID_NAME);
        } else if (NamesDevice(path)) {
            AddFailed(path, "Is a device, no file", ERROR_INVALID_NAME);
        } else if (path.find_first_of(L"*?", folder.size()) != std::wstring::npos) {
            AddMatches(folder, ExactPath(folder.empty() ? L"." : folder), path.substr(folder.size()), true);
        } else {
            AddPlain(path);
        }
    }

 private:
    void AddPlain(const std::wstring& path) {
        const std::wstring exact = ExactPath(path);
        const std::wstring_view name = std::wstring_view(path).substr(FolderPart(path).size());
        WIN32_FILE_ATTRIBUTE_DATA data;
        if (!GetFileAttributesExW(exact.c_str(), GetFileExInfoStandard, &data)) {
            AddFailed(path, GetLastError());
        } else if (IsFolder(data.dwFileAttributes)) {
            AddFolder(path, exact, name, false);
        } else {
            AddFile(path, exact, name, Size(data.nFileSizeHigh, data.nFileSizeLow));
        }
    }

    void AddFailed(const std::wstring& path, const std::string& error, DWORD code) {
        files_.push_back({.path = path, .error = error, .code = static_cast<uint32_t>(code)});
    }

    void AddFailed(const std::wstring& path, DWORD code) { AddFailed(path, SystemErrorText(code), code); }

    static bool Excluded(const std::vector<std::wstring>& patterns, std::wstring_view path,
                         std::wstring_view name) {
        return std::any_of(patterns.begin(), patterns.end(), [&](const std::wstring& pattern) {
            const bool whole = pattern.find_first_of(L"\\/") != std::wstring::npos;
            return MatchesPattern(whole ? path : name, pattern);
        });
    }

    void AddFile(const std::wstring& path, const std::wstring& exact, std::wstring_view name, uint64_t size) {
        if (!Excluded(options_.excluded_files, path, name)) {
            files_.push_back({.path = path, .exact = exact, .size = size});
        }
    }

    void AddFolder(const std::wstring& path, const std::wstring& exact, std::wstring_view name,
                   bool matched) {
        if (Excluded(options_.excluded_folders, path, name)) {
            return;
        }
        if (!options_.recursive) {
            AddFailed(path, "Is a folder (--recursive scans it)", ERROR_DIRECTORY);
            files_.back().skipped = matched;
            return;
        }
        const bool ends = path.find_last_of(L"\\/:") == path.size() - 1;
        AddMatches(ends ? path : path + L"\\", exact, L"*", false);
    }

    // `folder` is empty or ends with a separator. `named`: the pattern is the user's own, so that folders
    // which it matches count as named.
    void AddMatches(const std::wstring& folder, const std::wstring& exact, const std::wstring& pattern,
                    bool named) {
        const std::wstring inside = exact.ends_with(L'\\') ? exact : exact + L"\\";
        WIN32_FIND_DATAW found;
        HANDLE search = FindFirstFileW((inside + pattern).c_str(), &found);
        if (search == INVALID_HANDLE_VALUE) {
            // An empty folder has no file, not even "." when it is a drive's root.
            if (named || GetLastError() != ERROR_FILE_NOT_FOUND) {
                AddFailed(named ? folder + pattern : folder, GetLastError());
            }
            return;
        }
        std::vector<std::wstring> folders;
        do {
            const std::wstring_view name = found.cFileName;
            if (name == L"." || name == L"..") {
                continue;
            }
            if (!IsFolder(found.dwFileAttributes)) {
                AddFile(folder + found.cFileName, inside + found.cFileName, name,
                        Size(found.nFileSizeHigh, found.nFileSizeLow));
            } else if (named || !IsLink(found)) {
                folders.emplace_back(name);
            }
        } while (FindNextFileW(search, &found));
        const DWORD end = GetLastError();
        FindClose(search);
        if (end != ERROR_NO_MORE_FILES) {
            AddFailed(folder, end);
        }
        for (const std::wstring& name : folders) {
            AddFolder(folder + name, inside + name, name, named);
        }
    }

    const ListOptions& options_;
    std::vector<ListedFile>& files_;
};

}  // namespace

std::vector<ListedFile> ListFiles(const std::vector<std::wstring>& paths, const ListOptions& options) {
    std::vector<ListedFile> files;
    Lister lister(options, files);
    for (const std::wstring& path : paths) {
        lister.AddNamed(path);
    }
    return files;
}

bool ReadPathList(const std::wstring& file, std::vector<std::wstring>& paths, std::string& error) {
    const FileBytes bytes = file == kStandardInput ? ReadStandardInput() : ReadWholeFile(ExactPath(file));
    if (!bytes.error.empty()) {
        error = "the list " + Utf8FromWide(file) + " cannot be read: " + bytes.error + " (" +
                std::to_string(bytes.code) + ")";
        return false;
    }
    const std::wstring text = WideFromFile({reinterpret_cast<const char*>(bytes.data.get()), bytes.size});
    for (std::wstring_view rest = text; !rest.empty();) {
        const size_t end = std::min(rest.find_first_of(L"\r\n"), rest.size());
        if (end > 0) {
            paths.emplace_back(rest.substr(0, end));
        }
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return true;
}

}  // namespace kesto::host
