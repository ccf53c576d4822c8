// kestoscan: the plug-in's command-line host.
#include <windows.h>

#include <exception>
#include <string>

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

int Fail(const Options& options, const Fault& fault) {
    PrintError("kestoscan: " + fault.text + (fault.text.ends_with('\n') ? "" : "\n"));
    if (options.json) {
        PrintOut(JsonLine({{"error", fault.text}}) + "\n");
    }
    return kExitError;
}

int PrintVersion(const PluginLibrary& plugin, const InstalledPlugin& installed, bool engine_is_new) {
    const DWORD start = GetTickCount();
    bool told = VersionIsTold(installed);
    while (!told && engine_is_new && GetTickCount() - start < kEngineListensMs) {
        Sleep(kPollMs);
        told = VersionIsTold(installed);
    }
    char text[1024] = "";
    plugin.get_version_details(text, sizeof text);
    PrintOut(PrintableLines(Utf8FromAnsi(text)) + "\n");
    return told ? kExitClean : kExitError;
}

Fault FindFiles(const Options& options, FileListing& listing) {
    std::vector<std::wstring> from_list;
    if (!options.file_list.empty()) {
        if (Fault fault = ReadPathList(options.file_list, from_list)) {
            return fault;
        }
    }
    const std::wstring& quarantine = options.list.quarantine;
    const DWORD attributes = GetFileAttributesW(quarantine.c_str());
    if (!quarantine.empty() &&
        (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY))) {
        return {Utf8FromWide(quarantine) + " is not a folder that files can be put into"};
    }
    listing = ListFiles(options.paths, from_list, options.list);
    return {};
}

// Does the tasks that need the plug-in. `stays`: it must not be unloaded.
int RunTask(const Options& options, const InstalledPlugin& installed, const PluginLibrary& plugin,
            bool& stays) {
    const bool scan = options.task == Task::kScan;
    FileListing listing;
    if (const Fault fault = scan ? FindFiles(options, listing) : Fault()) {
        return Fail(options, fault);
    }
    // A scan starts an engine sooner or later, whatever autostart says.
    EngineStart engine = EngineStart::kRuns;
    if (scan || installed.settings.autostart) {
        engine = EnsureEngine(installed);
    }
    if (engine == EngineStart::kEndedAtOnce) {
        const std::string words = EngineEndsText(installed);
        if (scan) {
            return Fail(options, {words});
        }
        PrintError("kestoscan: " + words);
    }
    bool without_engine = false;
    if (const Fault fault = StartPlugin(plugin, options.folder, without_engine)) {
        // Without an engine each scan would wait for one in vain; the other tasks need none.
        if (scan || !without_engine) {
            return Fail(options, fault);
        }
        PrintError("kestoscan: " + fault.text + "\n");
    }
    std::string words;
    if (options.wait != 0 && !EngineAnswers(installed, options.wait, words)) {
        return Fail(options, {"the engine does not answer - " + words});
    }
    if (options.task == Task::kVersion) {
        return PrintVersion(plugin, installed, engine == EngineStart::kStarted);
    }
    if (options.task == Task::kUpdate) {
        return Update(plugin, installed);
    }
    const ScanOutcome scanned = ScanFiles(plugin, installed, std::move(listing),
                                          {options.jobs,
                                           options.timeout,
                                           options.list.quarantine,
                                           options.move,
                                           {options.json, options.infected, options.summary}});
    stays = scanned.threads_left;
    return scanned.status;
}

int RunOptions(const Options& options) {
    if (!options.log.empty()) {
        if (const Fault fault = PrintToFileToo(options.log)) {
            return Fail(options, fault);
        }
    }
    if (options.task == Task::kCheck) {
        return CheckInstallation(options.library, options.folder, options.json);
    }
    const InstalledPlugin installed = ReadInstalledPlugin(options.folder);
    if (installed.folder_fault) {
        return Fail(options, installed.folder_fault);
    }
    if (!HoldsPlugin(installed)) {
        return Fail(options, {Utf8FromWide(options.folder) +
                              " holds no part of the plug-in: --folder names the folder in which "
                              "kestoav.ini and plugins lie"});
    }
    if (options.task == Task::kPing) {
        return Ping(installed, options.wait);
    }
    if (options.task == Task::kStats) {
        return PrintStats(installed);
    }
    if (options.task == Task::kRestart) {
        const int status = Restart(installed);
        if (status != kExitClean) {
            PrintError(WhyEngineEnds(installed));
        }
        return status;
    }
    PluginLibrary plugin;
    if (const Fault fault = LoadPlugin(options.library, plugin)) {
        return Fail(options, fault);
    }
    bool stays = false;
    const int status = RunTask(options, installed, plugin, stays);
    if (!stays) {
        ClosePlugin(plugin);
    }
    return status;
}

int Run(int count, wchar_t** arguments) {
    SetErrorMode(
        SEM_FAILCRITICALERRORS);  // a damaged library or an empty drive is an error, without a dialogue
    WatchForInterrupt();
    Options options;
    int status = kExitClean;
    if (const Fault fault = ParseCommandLine(count, arguments, options)) {
        status = Fail(options, fault);
        PrintError("kestoscan --help lists the options.\n");
    } else if (options.task != Task::kHelp) {
        status = RunOptions(options);
    }
    if (const Fault fault = OutputFault()) {
        PrintError("kestoscan: " + fault.text + "\n");
        status = status == kExitInfected ? status : kExitError;
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
    // Nothing is buffered. An orderly end would unload the plug-in while threads are inside it.
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(status));
    return status;
}
