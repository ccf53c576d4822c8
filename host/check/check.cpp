#include "host/check/check.h"

#include <windows.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "base/server_list.h"
#include "base/settings.h"
#include "host/check/check_report.h"
#include "host/check/check_server.h"
#include "host/check/ini_lint.h"
#include "host/common/engine_processes.h"
#include "host/common/file_bytes.h"
#include "host/common/plugin_library.h"
#include "host/common/text.h"

namespace kesto {
namespace {

std::string CodeText(DWORD code) {
    return SystemErrorText(code) + " (" + std::to_string(code) + ")";
}

bool IsFile(const std::wstring& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

void CheckLibrary(CheckReport& report, const std::wstring& path) {
    std::string error;
    const std::optional<PluginLibrary> plugin = LoadPlugin(path, error);
    if (!plugin) {
        report.Failed("library", error, "copy CLAMDLL.dll from the release again");
        return;
    }
    ClosePlugin(*plugin);
    report.Ok("library",
              Utf8FromWide(path) + " loads and has its " + std::to_string(kExportNames.size()) + " exports");
}

// The file as the profile reader sees it, which also takes UTF-16.
std::string IniText(const FileBytes& bytes) {
    const auto* text = reinterpret_cast<const char*>(bytes.data.get());
    if (bytes.size >= 2 && text[0] == '\xFF' && text[1] == '\xFE') {
        const auto* wide = reinterpret_cast<const wchar_t*>(bytes.data.get());
        return AnsiFromWide({wide + 1, bytes.size / sizeof(wchar_t) - 1});
    }
    return {text, bytes.size};
}

void CheckIni(CheckReport& report, const std::wstring& folder) {
    const std::wstring path = folder + L"\\kestoav.ini";
    const FileBytes bytes = ReadWholeFile(path);
    if (bytes.code == ERROR_FILE_NOT_FOUND) {
        report.Warning("settings", Utf8FromWide(path) + " is missing: every setting has its default",
                       "put one there, or check that the folder is the plug-in's");
        return;
    }
    if (!bytes.error.empty()) {
        report.Failed("settings", Utf8FromWide(path) + " cannot be read: " + CodeText(bytes.code),
                      "create the folder, or give the mail server's account the right to read the file");
        return;
    }
    const std::vector<IniFinding> findings = LintIni(IniText(bytes));
    for (const IniFinding& finding : findings) {
        const std::string text =
            "kestoav.ini line " + std::to_string(finding.line) + ": " + Utf8FromAnsi(finding.text);
        if (finding.misread) {
            report.Failed("settings", text, finding.remedy);
        } else {
            report.Warning("settings", text, finding.remedy);
        }
    }
}

void TellSettings(CheckReport& report) {
    const ScannerSettings& settings = Settings();
    report.Ok("settings", "in effect: servers=" + Utf8FromAnsi(settings.servers) +
                              " encrypt=" + (settings.encrypt ? "1" : "0") +
                              " autostart=" + (settings.autostart ? "1" : "0") +
                              " startwait=" + std::to_string(settings.startwait) +
                              " connectwait=" + std::to_string(settings.connectwait));
}

// Opened as the plug-in opens it, but a file that was not there is gone again afterwards.
void CheckLog(CheckReport& report, const std::string& log_path, const std::wstring& folder) {
    std::string path = log_path;
    if (path.empty()) {
        const std::wstring default_path = folder + L"\\kestoav.log";
        if (GetFileAttributesW(default_path.c_str()) == INVALID_FILE_ATTRIBUTES) {
            report.Warning("log", "off", "create an empty " + Utf8FromWide(default_path) + " to turn it on");
            return;
        }
        path = AnsiFromWide(default_path);
    }
    const bool exists = GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
    HANDLE file = CreateFileA(path.c_str(), FILE_APPEND_DATA | (exists ? 0 : DELETE),
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                              exists ? OPEN_EXISTING : CREATE_NEW,
                              exists ? FILE_ATTRIBUTE_NORMAL : FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        report.Failed(
            "log", Utf8FromAnsi(path) + " cannot be written: " + CodeText(GetLastError()),
            "create its folder, clear the read-only mark, or give the mail server's account the right "
            "to write it");
        return;
    }
    CloseHandle(file);
    report.Ok("log", Utf8FromAnsi(path) + " can be written by this account");
}

// The plug-in starts programs by an unquoted command line, in which the system tries each part up to a
// blank first.
void CheckBlanks(CheckReport& report, const std::wstring& program) {
    for (size_t blank = program.find(L' '); blank != std::wstring::npos;
         blank = program.find(L' ', blank + 1)) {
        const std::wstring part = program.substr(0, blank);
        for (const std::wstring& other : {part, part + L".exe"}) {
            if (IsFile(other)) {
                report.Failed(
                    "folder", Utf8FromWide(other) + " would be started in place of the engine",
                    "remove it and find out who put it there, or install into a folder without blanks");
                return;
            }
        }
    }
    if (program.find(L' ') != std::wstring::npos) {
        report.Warning(
            "folder", "its path holds a blank: another program could be put in the engine's place",
            "install into a folder without blanks, or keep users from writing to the folders above it");
    }
}

void CheckEngineProgram(CheckReport& report, const std::wstring& program) {
    if (!IsFile(program)) {
        report.Failed("engine program", Utf8FromWide(program) + " is missing: no engine can be started",
                      "copy kestoav.exe from the release there");
        return;
    }
    report.Ok("engine program", Utf8FromWide(program) + " is there");
    CheckBlanks(report, program);
}

void CheckEngineProcess(CheckReport& report, const std::wstring& program) {
    const std::vector<EngineProcess> engines = EngineProcesses();
    const auto hidden =
        std::count_if(engines.begin(), engines.end(), [](const auto& e) { return !e.visible; });
    if (engines.empty()) {
        report.Failed("engine process", "kestoav.exe does not run: no scan connects before it does",
                      "start the mail server, or " + Utf8FromWide(program));
    } else if (hidden == static_cast<int64_t>(engines.size())) {
        report.Failed("engine process", "kestoav.exe runs, but this account may not see it",
                      "run the check as the mail server's account or as an administrator");
    } else if (engines.size() > 1) {
        report.Warning("engine process",
                       std::to_string(engines.size()) +
                           " processes named kestoav.exe run: the plug-in cannot restart its engine then",
                       "end all but one");
    } else if (!engines[0].path.empty() && _wcsicmp(engines[0].path.c_str(), program.c_str()) != 0) {
        report.Warning("engine process", "kestoav.exe runs from elsewhere: " + Utf8FromWide(engines[0].path),
                       "end it unless it is meant to be this plug-in's engine");
    } else {
        report.Ok("engine process", "kestoav.exe runs as process " + std::to_string(engines[0].id));
    }
}

void CheckUpdater(CheckReport& report, const std::wstring& updater) {
    if (IsFile(updater)) {
        report.Ok("updater", Utf8FromWide(updater) + " is there");
    } else {
        report.Warning("updater",
                       Utf8FromWide(updater) + " is missing: the mail server cannot update signatures",
                       "put the updater there, or have the engine's own updater run by schedule");
    }
}

}  // namespace

int CheckInstallation(const std::wstring& library, const std::wstring& folder, bool json) {
    CheckReport report(json);
    CheckLibrary(report, library);
    CheckIni(report, folder);
    std::string ansi_folder;
    std::string error;
    char log_path[kPathSize] = "";
    if (AnsiFolder(folder, ansi_folder, error)) {
        ReadSettings(ansi_folder.c_str(), log_path);
    } else {
        report.Failed("folder", error, "install into such a folder");
    }
    TellSettings(report);
    CheckLog(report, log_path, folder);
    const std::wstring engine_folder = folder + L"\\plugins\\kestoav";
    CheckEngineProgram(report, engine_folder + L"\\kestoav.exe");
    CheckEngineProcess(report, engine_folder + L"\\kestoav.exe");
    ServerList servers;
    servers.Append(Settings().servers);
    for (const ServerEntry& server : servers) {
        CheckServer(report, server, Settings().encrypt);
    }
    CheckUpdater(report, engine_folder + L"\\kestoavu.exe");
    return report.Finish();
}

}  // namespace kesto
