#include "common/guard_words.h"

#include "common/file_bytes.h"

namespace kesto {

std::wstring GuardPipe(const std::wstring& program_folder) {
    const FileIdentity folder = IdentityOf(program_folder).value_or(FileIdentity());
    return L"\\\\.\\pipe\\kestoav-" + std::to_wstring(folder.volume) + L"-" +
           std::to_wstring(folder.number >> 32) + L"-" + std::to_wstring(folder.number & 0xFFFFFFFF);
}

}  // namespace kesto
