#include "host/quarantine.h"

#include <windows.h>

#include <cstdio>
#include <cwchar>

#include "common/exact_path.h"

namespace kesto::host {
namespace {

constexpr int kMostOfOneName = 1000;

}  // namespace

unsigned long PutAway(const std::wstring& exact_path, const std::wstring& folder, bool move,
                      std::wstring& where) {
    const std::wstring exact_folder = ExactPath(folder);
    const std::wstring inside = exact_folder.ends_with(L'\\') ? exact_folder : exact_folder + L"\\";
    const size_t name_at = exact_path.find_last_of(L'\\') + 1;
    if (_wcsicmp(exact_path.substr(0, name_at).c_str(), inside.c_str()) == 0) {
        return 0;
    }
    for (int i = 0; i < kMostOfOneName; ++i) {
        wchar_t number[8] = L"";
        if (i > 0) {
            std::swprintf(number, std::size(number), L".%03d", i);
        }
        const std::wstring name = exact_path.substr(name_at) + number;
        const std::wstring to = inside + name;
        const BOOL done = move ? MoveFileExW(exact_path.c_str(), to.c_str(), MOVEFILE_COPY_ALLOWED)
                               : CopyFileW(exact_path.c_str(), to.c_str(), TRUE);
        if (done) {
            where = folder;
            where += folder.ends_with(L'\\') ? L"" : L"\\";
            where += name;
            return 0;
        }
        const DWORD code = GetLastError();
        if (code != ERROR_ALREADY_EXISTS && code != ERROR_FILE_EXISTS) {
            return code;
        }
    }
    return ERROR_ALREADY_EXISTS;
}

}  // namespace kesto::host
