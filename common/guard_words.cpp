#include "common/guard_words.h"

#include <windows.h>

namespace kesto {

std::wstring GuardPipe(const std::wstring& program_folder) {
    BY_HANDLE_FILE_INFORMATION identity = {};
    const HANDLE folder = CreateFileW(program_folder.c_str(), FILE_READ_ATTRIBUTES,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                      OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (folder != INVALID_HANDLE_VALUE) {
        GetFileInformationByHandle(folder, &identity);
        CloseHandle(folder);
    }
    return L"\\\\.\\pipe\\kestoav-" + std::to_wstring(identity.dwVolumeSerialNumber) + L"-" +
           std::to_wstring(identity.nFileIndexHigh) + L"-" + std::to_wstring(identity.nFileIndexLow);
}

}  // namespace kesto
