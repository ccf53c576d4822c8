#include <windows.h>

#include "common/error_words.h"
#include "common/file_bytes.h"
#include "common/text.h"
#include "host/check/checks.h"
#include "host/check/ini_lint.h"

namespace kesto::host {
namespace {

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
    const std::string_view text(reinterpret_cast<const char*>(bytes.data.get()), bytes.size);
    const bool wide = text.starts_with("\xFF\xFE");  // which the profile reader also takes
    for (const IniFinding& finding : LintIni(wide ? AnsiFromWide(WideFromFile(text)) : std::string(text))) {
        findings.Add(finding.misread ? CheckState::kFailed : CheckState::kWarning, "settings",
                     "kestoav.ini line " + std::to_string(finding.line) + ": " + Utf8FromAnsi(finding.text),
                     finding.remedy);
    }
}

}  // namespace

void CheckSettings(Findings& findings, const InstalledPlugin& installed) {
    CheckIni(findings, installed.folder + L"\\kestoav.ini");
    const ScannerSettings& settings = installed.settings;
    findings.Ok("settings", "in effect: servers=" + Utf8FromAnsi(settings.servers) +
                                " encrypt=" + (settings.encrypt ? "1" : "0") +
                                " autostart=" + (settings.autostart ? "1" : "0") +
                                " startwait=" + std::to_string(settings.startwait) +
                                " connectwait=" + std::to_string(settings.connectwait));
}

}  // namespace kesto::host
