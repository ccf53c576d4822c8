#include "host/check/check_settings.h"

#include <windows.h>

#include "common/error_words.h"
#include "common/file_bytes.h"
#include "common/text.h"
#include "host/check/ini_lint.h"

namespace kesto::host {
namespace {

// The file as the profile reader sees it, which also takes UTF-16.
std::string IniText(const FileBytes& bytes) {
    const std::string_view text(reinterpret_cast<const char*>(bytes.data.get()), bytes.size);
    return text.starts_with("\xFF\xFE") ? AnsiFromWide(WideFromFile(text)) : std::string(text);
}

void CheckIni(Findings& findings, const std::wstring& path) {
    const FileBytes bytes = ReadWholeFile(path);
    if (bytes.fault.code == ERROR_FILE_NOT_FOUND) {
        findings.Warning("settings", Utf8FromWide(path) + " is missing: every setting has its default",
                         "put one there, or check that the folder is the plug-in's");
        return;
    }
    if (bytes.fault) {
        findings.Failed("settings",
                        Utf8FromWide(path) + " cannot be read: " + SystemErrorWithCode(bytes.fault.code),
                        bytes.fault.code == ERROR_PATH_NOT_FOUND
                            ? "create the folder"
                            : "give this account, and the mail server's, the right to read it");
        return;
    }
    for (const IniFinding& finding : LintIni(IniText(bytes))) {
        const std::string text =
            "kestoav.ini line " + std::to_string(finding.line) + ": " + Utf8FromAnsi(finding.text);
        if (finding.misread) {
            findings.Failed("settings", text, finding.remedy);
        } else {
            findings.Warning("settings", text, finding.remedy);
        }
    }
}

}  // namespace

Findings CheckSettings(const InstalledPlugin& installed) {
    Findings findings;
    CheckIni(findings, installed.folder + L"\\kestoav.ini");
    const ScannerSettings& settings = installed.settings;
    findings.Ok("settings", "in effect: servers=" + Utf8FromAnsi(settings.servers) +
                                " encrypt=" + (settings.encrypt ? "1" : "0") +
                                " autostart=" + (settings.autostart ? "1" : "0") +
                                " startwait=" + std::to_string(settings.startwait) +
                                " connectwait=" + std::to_string(settings.connectwait));
    return findings;
}

Findings CheckLog(const InstalledPlugin& installed) {
    Findings findings;
    if (installed.log.empty()) {
        findings.Warning("log", "off",
                         "write logfile= and a path in a folder that the mail server's account may write "
                         "to into kestoav.ini");
    } else {
        CheckLogFile(findings, "log", installed.log);
    }
    return findings;
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
    HANDLE file = CreateFileW(path.c_str(), FILE_APPEND_DATA | (exists ? 0 : DELETE),
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                              exists ? OPEN_EXISTING : CREATE_NEW,
                              exists ? FILE_ATTRIBUTE_NORMAL : FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        const DWORD code = GetLastError();
        findings.Failed(check, fault + SystemErrorWithCode(code),
                        code == ERROR_PATH_NOT_FOUND ? "create its folder"
                        : code == ERROR_ACCESS_DENIED
                            ? "give the mail server's account the right to write it, or name another file"
                            : "name another file");
        return;
    }
    CloseHandle(file);
    findings.Ok(check, name + " can be written by this account");
}

}  // namespace kesto::host
