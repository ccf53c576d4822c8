#include "host/file_list.h"

#include <windows.h>

#include <algorithm>
#include <optional>
#include <string_view>

#include "common/error_words.h"
#include "common/file_bytes.h"
#include "common/text.h"
#include "host/exact_path.h"
#include "host/name_pattern.h"

namespace kesto::host {
namespace {

constexpr size_t kExactPrefix = 4;  // characters in front of the drive

// In the form in which patterns are compared: with the system's separators, and without one at the end.
std::wstring Plain(std::wstring path) {
    std::replace(path.begin(), path.end(), L'/', L'\\');
    while (path.size() > 1 && path.back() == L'\\') {
        path.pop_back();
    }
    return path;
}

bool IsFolder(DWORD attributes) {
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

uint64_t Size(DWORD high, DWORD low) {
    return static_cast<uint64_t>(high) << 32 | low;
}

// A link to a folder or a junction, but not what cloud or deduplicating file systems mark in a similar way.
bool IsLink(const WIN32_FIND_DATAW& found) {
    const DWORD tag = found.dwReserved0;
    return (found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
           (tag == 0 || IsReparseTagNameSurrogate(tag));
}

// Whether a path that the user wrote in the exact form leads to a file and not to a device.
bool NamesDevice(const std::wstring& path) {
    const bool on_drive = path.size() > 6 && path[5] == L':' && path[6] == L'\\';
    return path.starts_with(L"\\\\.\\") ||
           (path.starts_with(L"\\\\?\\") && !on_drive && !path.starts_with(L"\\\\?\\UNC\\"));
}

class Lister {
 public:
    Lister(const ListOptions& options, const std::wstring& quarantine, FileListing& listing)
        : options_(options),
          quarantine_(quarantine.empty() ? std::nullopt : IdentityOf(ExactPath(quarantine))),
          listing_(listing) {}

    void AddNamed(const std::wstring& path) {
        const std::wstring folder = FolderPart(path);
        if (path.empty()) {
            AddFailed(path, {"Empty path", ERROR_INVALID_NAME});
        } else if (path.find(L'"') != std::wstring::npos) {
            AddFailed(path,
                      {"Quotation mark in the path (write \"C:\\folder\" without a backslash at its end)",
                       ERROR_INVALID_NAME});
        } else if (NamesDevice(path)) {
            AddFailed(path, {"Is a device, not a file", ERROR_INVALID_NAME});
        } else if (path.find_first_of(L"*?", folder.size()) != std::wstring::npos) {
            AddMatches(folder, ExactPath(folder.empty() ? L"." : folder), path.substr(folder.size()), true);
        } else {
            AddPlain(path);
        }
    }

 private:
    void AddPlain(const std::wstring& path) {
        const std::wstring exact = ExactPath(path);
        WIN32_FILE_ATTRIBUTE_DATA data;
        if (!GetFileAttributesExW(exact.c_str(), GetFileExInfoStandard, &data)) {
            AddFailed(path, SystemFault(GetLastError()));
        } else if (IsFolder(data.dwFileAttributes)) {
            AddFolder(path, exact, false);
        } else {
            listing_.files.push_back({path, exact, Size(data.nFileSizeHigh, data.nFileSizeLow)});
        }
    }

    void AddFailed(const std::wstring& path, const Fault& fault, bool skipped = false) {
        listing_.files.push_back({.path = path, .fault = fault, .skipped = skipped});
    }

    // Counts what is.
    bool LeftOut(const std::vector<std::wstring>& patterns, const std::wstring& path,
                 const std::wstring& exact) {
        const bool left_out = std::any_of(patterns.begin(), patterns.end(), [&](const std::wstring& each) {
            const std::wstring pattern = Plain(each);
            const bool whole = pattern.find(L'\\') != std::wstring::npos;
            return whole ? MatchesPattern(Plain(path), pattern) ||
                               MatchesPattern(exact.substr(kExactPrefix), pattern)
                         : MatchesPattern(exact.substr(exact.rfind(L'\\') + 1), pattern);
        });
        listing_.left_out += left_out ? 1 : 0;
        return left_out;
    }

    void AddFolder(const std::wstring& path, const std::wstring& exact, bool matched) {
        if (!options_.recursive) {
            AddFailed(path, {"Is a folder (--recursive scans it)", ERROR_DIRECTORY}, matched);
            return;
        }
        const bool ends = path.find_last_of(L"\\/:") == path.size() - 1;
        AddMatches(ends ? path : path + L"\\", exact, L"*", false);
    }

    // `folder` is empty or ends with a separator. `named`: the pattern is from the user, so that the folders
    // that it matches count as named.
    void AddMatches(const std::wstring& folder, const std::wstring& exact, const std::wstring& pattern,
                    bool named) {
        const std::wstring inside = exact.ends_with(L'\\') ? exact : exact + L"\\";
        WIN32_FIND_DATAW found;
        HANDLE search = FindFirstFileW((inside + pattern).c_str(), &found);
        if (search == INVALID_HANDLE_VALUE) {
            // An empty folder has no file, not even "." when it is a drive's root.
            if (named || GetLastError() != ERROR_FILE_NOT_FOUND) {
                AddFailed(named ? folder + pattern : folder, SystemFault(GetLastError()));
            }
            return;
        }
        std::vector<std::wstring> folders;
        do {
            const std::wstring_view name = found.cFileName;
            if (name == L"." || name == L"..") {
                continue;
            }
            if (IsFolder(found.dwFileAttributes)) {
                if (named || !IsLink(found)) {
                    folders.emplace_back(name);
                }
            } else if (!LeftOut(options_.excluded_files, folder + found.cFileName,
                                inside + found.cFileName)) {
                listing_.files.push_back({folder + found.cFileName, inside + found.cFileName,
                                          Size(found.nFileSizeHigh, found.nFileSizeLow)});
            }
        } while (FindNextFileW(search, &found));
        const DWORD end = GetLastError();
        FindClose(search);
        if (end != ERROR_NO_MORE_FILES) {
            AddFailed(folder, SystemFault(end));
        }
        for (const std::wstring& name : folders) {
            const std::wstring path = folder + name, exact_path = inside + name;
            if (LeftOut(options_.excluded_folders, path, exact_path)) {
                continue;
            }
            if (options_.recursive && quarantine_ && SameFile(IdentityOf(exact_path), quarantine_)) {
                AddFailed(path, {"Is the folder that found files are put into", ERROR_DIRECTORY}, true);
            } else {
                AddFolder(path, exact_path, named);
            }
        }
    }

    const ListOptions& options_;
    const std::optional<FileIdentity> quarantine_;
    FileListing& listing_;
};

}  // namespace

FileListing ListFiles(const std::vector<std::wstring>& arguments, const std::vector<std::wstring>& from_list,
                      const ListOptions& options, const std::wstring& quarantine) {
    FileListing listing;
    Lister lister(options, quarantine, listing);
    for (const std::wstring& path : arguments) {
        if (path == kStandardInput) {
            listing.files.push_back({.path = path});
        } else {
            lister.AddNamed(path);
        }
    }
    for (const std::wstring& path : from_list) {
        lister.AddNamed(path);
    }
    return listing;
}

Fault ReadPathList(const std::wstring& file, std::vector<std::wstring>& paths) {
    const std::string name = "the list " + Utf8FromWide(file);
    const FileBytes bytes = file == kStandardInput ? ReadStandardInput() : ReadWholeFile(ExactPath(file));
    if (bytes.fault) {
        return {name + " cannot be read: " + bytes.fault.text + " (" + std::to_string(bytes.fault.code) +
                ")"};
    }
    const std::wstring text = WideFromFile({reinterpret_cast<const char*>(bytes.data.get()), bytes.size});
    // Such a list is partly UTF-16, or not text at all: some of its lines would be lost.
    if (text.find(L'\0') != std::wstring::npos) {
        return {name + " holds NUL characters: save it as UTF-8, or all of it as UTF-16"};
    }
    for (std::wstring_view rest = text; !rest.empty();) {
        const size_t end = std::min(rest.find_first_of(L"\r\n"), rest.size());
        if (end > 0) {
            paths.emplace_back(rest.substr(0, end));
        }
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return {};
}

}  // namespace kesto::host
