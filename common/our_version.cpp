#include "common/our_version.h"

#include <windows.h>

#include <vector>

namespace kesto {

std::wstring OurVersion(const std::wstring& program) {
    std::vector<char> block(GetFileVersionInfoSizeW(program.c_str(), nullptr));
    const auto text = [&](const wchar_t* name) {
        void* value = nullptr;
        UINT length = 0;
        return VerQueryValueW(block.data(), (L"\\StringFileInfo\\040904E4\\" + std::wstring(name)).c_str(),
                              &value, &length)
                   ? std::wstring(static_cast<const wchar_t*>(value))
                   : L"";
    };
    const bool known =
        !block.empty() &&
        GetFileVersionInfoW(program.c_str(), 0, static_cast<DWORD>(block.size()), block.data()) &&
        text(L"ProductName") == L"KESTO AV";
    return known ? text(L"ProductVersion") : L"";
}

}  // namespace kesto
