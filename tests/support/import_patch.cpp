#include "tests/support/import_patch.h"

#include <windows.h>

#include <cstring>
#include <stdexcept>
#include <string>

namespace kesto {

void** ImportPatch::FindSlot(void* module, const char* name) {
    char* const base = static_cast<char*>(module);
    const auto& headers =
        *reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const DWORD imports = headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
    for (auto* from = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports); from->Name != 0; ++from) {
        const auto* names = reinterpret_cast<DWORD*>(base + from->OriginalFirstThunk);
        for (size_t i = 0; names[i] != 0; ++i) {
            if (names[i] < IMAGE_ORDINAL_FLAG && strcmp(base + names[i] + 2, name) == 0) {
                return reinterpret_cast<void**>(base + from->FirstThunk) + i;
            }
        }
    }
    throw std::runtime_error(std::string(name) + " is not imported");
}

void ImportPatch::Write(void* function) {
    DWORD before;
    VirtualProtect(slot_, sizeof *slot_, PAGE_READWRITE, &before);
    *slot_ = function;
    VirtualProtect(slot_, sizeof *slot_, before, &before);
}

}  // namespace kesto
