#include "host/name_pattern.h"

#include <windows.h>

namespace kesto::host {
namespace {

// As the file system compares letters.
bool SameLetter(wchar_t a, wchar_t b) {
    return CompareStringOrdinal(&a, 1, &b, 1, TRUE) == CSTR_EQUAL;
}

}  // namespace

bool MatchesPattern(std::wstring_view name, std::wstring_view pattern) {
    size_t in_name = 0;
    size_t in_pattern = 0;
    size_t star = std::wstring_view::npos;  // the last star, and the end of the characters that it matches
    size_t star_end = 0;
    while (in_name < name.size()) {
        const wchar_t wanted = in_pattern < pattern.size() ? pattern[in_pattern] : L'\0';
        if (wanted == L'*') {
            star = in_pattern++;
            star_end = in_name;
        } else if (wanted != L'\0' && (wanted == L'?' || SameLetter(wanted, name[in_name]))) {
            ++in_pattern;
            ++in_name;
        } else if (star != std::wstring_view::npos) {
            in_pattern = star + 1;
            in_name = ++star_end;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of(L'*', in_pattern) == std::wstring_view::npos;
}

}  // namespace kesto::host
