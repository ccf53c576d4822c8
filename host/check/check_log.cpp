#include <windows.h>

#include "common/error_words.h"
#include "common/owned_handle.h"
#include "common/text.h"
#include "host/check/checks.h"

namespace kesto::host {

void CheckLog(Findings& findings, const InstalledPlugin& installed) {
    if (installed.log.empty()) {
        findings.Warning("log", "off",
                         "write logfile= and a path in a folder that the mail server's account may write "
                         "to into kestoav.ini");
    } else {
        CheckLogFile(findings, "log", installed.log);
    }
}

void CheckLogFile(Findings& findings, const char* check, const std::wstring& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    const bool exists = attributes != INVALID_FILE_ATTRIBUTES;
    const std::string name = Utf8FromWide(path);
    const std::string fault = name + " cannot be written: ";
    if (exists && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        findings.Failed(check, fault + "it is a folder", "remove the folder, or name a file in it");
        return;
    }
    if (exists && (attributes & FILE_ATTRIBUTE_READONLY) != 0) {
        findings.Failed(check, fault + "it is read-only", "clear its read-only mark");
        return;
    }
    // A file that was not there is not left behind.
    const OwnedHandle file = Own(CreateFileW(
        path.c_str(), FILE_APPEND_DATA | (exists ? 0 : DELETE),
        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, exists ? OPEN_EXISTING : CREATE_NEW,
        exists ? FILE_ATTRIBUTE_NORMAL : FILE_FLAG_DELETE_ON_CLOSE, nullptr));
    if (!file) {
        const DWORD code = GetLastError();
        findings.Failed(check, fault + SystemErrorWithCode(code),
                        code == ERROR_PATH_NOT_FOUND ? "create its folder"
                        : code == ERROR_ACCESS_DENIED
                            ? "give the mail server's account the right to write it, or name another file"
                            : "name another file");
        return;
    }
    findings.Ok(check, name + " can be written by this account");
}

}  // namespace kesto::host
