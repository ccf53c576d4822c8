// kestoscan: the plug-in's command-line host.
#include <windows.h>

#include <exception>
#include <optional>
#include <string>

#include "host/check/check.h"
#include "host/command_line.h"
#include "host/common/engine_processes.h"
#include "host/common/exit_status.h"
#include "host/common/json.h"
#include "host/common/output.h"
#include "host/common/plugin_library.h"
#include "host/common/text.h"
#include "host/file_list.h"
#include "host/interrupt.h"
#include "host/scan_files.h"

namespace kesto {
namespace {

constexpr DWORD kEngineListensMs = 5000;  // a new engine gets this long before its version counts as unknown
constexpr DWORD kPollMs = 100;

int Fail(const Options& options, const std::string& error) {
    PrintError("kestoscan: " + error + "\n");
    if (options.json) {
        PrintOut(JsonObject().Add("error", error).Text() + "\n");
    }
    return kExitError;
}

std::string VersionText(const PluginLibrary& plugin) {
    char text[1024] = "";
    plugin.get_version_details(text, sizeof text);
    return Utf8FromAnsi(text);
}

int PrintVersion(const PluginLibrary& plugin, bool engine_is_new) {
    std::string text = VersionText(plugin);
    const DWORD start = GetTickCount();
    while (engine_is_new && text.ends_with("unknown") && GetTickCount() - start < kEngineListensMs) {
        Sleep(kPollMs);
        text = VersionText(plugin);
    }
    PrintOut(text + "\n");
    return kExitClean;
}

int Update(const PluginLibrary& plugin) {
    plugin.get_expiry(0, 0, 0);  // as the mail server does: before it every update is refused
    char title[kUpdateTitleSize] = "";
    char message[kUpdateMessageSize] = "";
    if (plugin.do_simple_update(title, message)) {
        PrintOut("Update finished\n");
        return kExitClean;
    }
    PrintError(Utf8FromAnsi(title) + "\n" + Utf8FromAnsi(message) + "\n");
    return kExitError;
}

int RunTask(const Options& options, const PluginLibrary& plugin) {
    const bool engine_is_new = EngineProcesses().empty();
    std::string error;
    const StartOutcome outcome = StartPlugin(plugin, options.folder, error);
    // Without an engine every single scan would wait for one in vain; the other tasks need none.
    if (outcome == StartOutcome::kRefused ||
        (outcome == StartOutcome::kEngineNotStarted && options.task == Task::kScan)) {
        return Fail(options, error);
    }
    if (outcome == StartOutcome::kEngineNotStarted) {
        PrintError("kestoscan: " + error + "\n");
    }
    if (options.task == Task::kVersion) {
        return PrintVersion(plugin, engine_is_new && outcome == StartOutcome::kStarted);
    }
    if (options.task == Task::kUpdate) {
        return Update(plugin);
    }
    return ScanFiles(plugin, ListFiles(options.paths, options.recursive), options.jobs,
                     {options.json, options.infected});
}

int Run(int count, wchar_t** arguments) {
    SetErrorMode(SEM_FAILCRITICALERRORS);  // a damaged library or an empty drive: no dialogue, an error
    WatchForInterrupt();
    int status = kExitError;
    const std::optional<Options> options = ParseCommandLine(count, arguments, status);
    if (!options) {
        return status;
    }
    if (options->task == Task::kCheck) {
        return CheckInstallation(options->library, options->folder, options->json);
    }
    std::string error;
    const std::optional<PluginLibrary> plugin = LoadPlugin(options->library, error);
    if (!plugin) {
        return Fail(*options, error);
    }
    status = RunTask(*options, *plugin);
    ClosePlugin(*plugin);
    return status;
}

}  // namespace
}  // namespace kesto

int wmain(int count, wchar_t** arguments) {
    try {
        return kesto::Run(count, arguments);
    } catch (const std::exception& error) {
        kesto::PrintError("kestoscan: " + std::string(error.what()) + "\n");
        return kesto::kExitError;
    }
}
