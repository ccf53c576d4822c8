// kestoscan: the plug-in's command-line host.
#include <windows.h>

#include <exception>
#include <optional>
#include <string>

#include "common/error_words.h"
#include "common/text.h"
#include "host/check/check.h"
#include "host/command_line.h"
#include "host/common/exit_status.h"
#include "host/common/installed_plugin.h"
#include "host/common/json_line.h"
#include "host/common/output.h"
#include "host/common/plugin_library.h"
#include "host/engine_start.h"
#include "host/file_list.h"
#include "host/interrupt.h"
#include "host/probe.h"
#include "host/restart.h"
#include "host/scan_files.h"
#include "host/update.h"

namespace kesto::host {
namespace {

constexpr DWORD kEngineListensMs = 5000;  // a new engine gets this long to tell its version
constexpr DWORD kPollMs = 100;

int Fail(const Options& options, const std::string& error) {
    PrintError("kestoscan: " + error + (error.ends_with('\n') ? "" : "\n"));
    if (options.json) {
        PrintOut(JsonLine({{"error", error}}) + "\n");
    }
    return kExitError;
}

std::string VersionText(const PluginLibrary& plugin) {
    char text[1024] = "";
    plugin.get_version_details(text, sizeof text);
    return Utf8FromAnsi(text);
}

bool VersionKnown(const std::string& text) {
    return !text.ends_with("unknown") && text.find("\nError -") == std::string::npos;
}

int PrintVersion(const PluginLibrary& plugin, bool engine_is_new) {
    std::string text = VersionText(plugin);
    const DWORD start = GetTickCount();
    while (engine_is_new && !VersionKnown(text) && GetTickCount() - start < kEngineListensMs) {
        Sleep(kPollMs);
        text = VersionText(plugin);
    }
    PrintOut(text + "\n");
    return VersionKnown(text) ? kExitClean : kExitError;
}

// The files to scan; none with `error` set.
std::optional<std::vector<ListedFile>> FilesToScan(const Options& options, std::string& error) {
    std::vector<std::wstring> paths = options.paths;
    if (!options.file_list.empty() && !ReadPathList(options.file_list, paths, error)) {
        return std::nullopt;
    }
    const DWORD attributes = GetFileAttributesW(options.quarantine.c_str());
    if (!options.quarantine.empty() &&
        (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY))) {
        error = Utf8FromWide(options.quarantine) + " is no folder to put away into";
        return std::nullopt;
    }
    return ListFiles(paths, options.list);
}

// With the plug-in loaded. `stays`: it must not be unloaded.
int RunTask(const Options& options, const InstalledPlugin& installed, const PluginLibrary& plugin,
            bool& stays) {
    const bool scan = options.task == Task::kScan;
    std::string error;
    std::optional<std::vector<ListedFile>> files;
    if (scan && !(files = FilesToScan(options, error))) {
        return Fail(options, error);
    }
    // A scan starts an engine sooner or later, whatever autostart says.
    EngineStart engine = EngineStart::kRuns;
    if (scan || installed.settings.autostart) {
        engine = EnsureEngine(installed);
    }
    if (engine == EngineStart::kEndedAtOnce) {
        const std::string words = EngineEndsText(installed);
        if (scan) {
            return Fail(options, words);
        }
        PrintError("kestoscan: " + words);
    }
    const StartOutcome outcome = StartPlugin(plugin, options.folder, error);
    // Without an engine every single scan would wait for one in vain; the other tasks need none.
    if (outcome == StartOutcome::kRefused || (outcome == StartOutcome::kEngineNotStarted && scan)) {
        return Fail(options, error);
    }
    if (outcome == StartOutcome::kEngineNotStarted) {
        PrintError("kestoscan: " + error + "\n");
    }
    if (options.wait != 0 && !EngineAnswers(installed, options.wait, error)) {
        return Fail(options, "the engine does not answer - " + error);
    }
    if (options.task == Task::kVersion) {
        return PrintVersion(plugin, engine == EngineStart::kStarted);
    }
    if (options.task == Task::kUpdate) {
        return Update(plugin, installed);
    }
    const ScanOutcome scanned = ScanFiles(plugin, installed, std::move(*files),
                                          {options.jobs,
                                           options.timeout,
                                           options.quarantine,
                                           options.move,
                                           {options.json, options.infected, options.summary}});
    stays = scanned.threads_left;
    return scanned.status;
}

int RunOptions(const Options& options) {
    if (!options.log.empty()) {
        if (const unsigned long code = PrintToFileToo(options.log)) {
            return Fail(options, "the log " + Utf8FromWide(options.log) +
                                     " cannot be written: " + SystemErrorWithCode(code));
        }
    }
    if (options.task == Task::kCheck) {
        return CheckInstallation(options.library, options.folder, options.json);
    }
    const InstalledPlugin installed = ReadInstalledPlugin(options.folder);
    if (!installed.folder_fault.empty()) {
        return Fail(options, installed.folder_fault);
    }
    if (!HoldsPlugin(installed)) {
        return Fail(options, Utf8FromWide(options.folder) +
                                 " holds no part of the plug-in: --folder names the folder in which "
                                 "kestoav.ini and plugins lie");
    }
    if (options.task == Task::kPing) {
        return Ping(installed, options.wait);
    }
    if (options.task == Task::kStats) {
        return PrintStats(installed);
    }
    if (options.task == Task::kRestart) {
        return Restart(installed);
    }
    std::string error;
    const std::optional<PluginLibrary> plugin = LoadPlugin(options.library, error);
    if (!plugin) {
        return Fail(options, error);
    }
    bool stays = false;
    const int status = RunTask(options, installed, *plugin, stays);
    if (!stays) {
        ClosePlugin(*plugin);
    }
    return status;
}

int Run(int count, wchar_t** arguments) {
    SetErrorMode(SEM_FAILCRITICALERRORS);  // a damaged library or an empty drive: no dialogue, an error
    WatchForInterrupt();
    int status = kExitError;
    const std::optional<Options> options = ParseCommandLine(count, arguments, status);
    if (options) {
        status = RunOptions(*options);
    }
    if (const std::string failure = OutputFailure(); !failure.empty()) {
        PrintError("kestoscan: " + failure + "\n");
        status = kExitError;
    }
    return status;
}

}  // namespace
}  // namespace kesto::host

int wmain(int count, wchar_t** arguments) {
    int status = kesto::host::kExitError;
    try {
        status = kesto::host::Run(count, arguments);
    } catch (const std::exception& error) {
        kesto::host::PrintError("kestoscan: " + std::string(error.what()) + "\n");
    }
    // Nothing is buffered. An orderly end would pull the plug-in from under threads that are inside it.
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(status));
    return status;
}
