// kestoscan: the plug-in's command-line host.
#include <windows.h>

#include <exception>
#include <memory>
#include <string>
#include <utility>

#include "common/error_words.h"
#include "common/processes.h"
#include "common/text.h"
#include "host/check/check.h"
#include "host/command_line.h"
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

// What its task needs is filled in before it runs.
struct TaskRun {
    const Options& options;
    InstalledPlugin installed{};
    std::shared_ptr<PluginLibrary> plugin{};
    FileListing files{};
    EngineStart engine = EngineStart::kRuns;
};

namespace {

constexpr DWORD kEngineListensMs = 5000;  // a new engine gets this long to tell its version
constexpr DWORD kPollMs = 100;

int Refuse(const Options& options, const Fault& fault) {
    const int status = Complain(fault.text);
    if (options.report.json) {
        PrintOut(JsonLine({{"error", fault.text}}) + "\n");
    }
    return status;
}

int RestartBridge(TaskRun& run) {
    const int status = Restart(run.installed);
    if (status != kExitClean) {
        PrintError(WhyEngineEnds(run.installed));
    }
    return status;
}

int PrintVersion(TaskRun& run) {
    const DWORD start = GetTickCount();
    bool told = VersionIsTold(run.installed);
    while (!told && run.engine == EngineStart::kStarted && GetTickCount() - start < kEngineListensMs) {
        Sleep(kPollMs);
        told = VersionIsTold(run.installed);
    }
    char text[1024] = "";
    run.plugin->get_version_details(text, sizeof text);
    PrintOut(PrintableLines(Utf8FromAnsi(text)) + "\n");
    return told ? kExitClean : kExitError;
}

constexpr Task kTasks[] = {
    {nullptr, TaskNeeds::kEngine, kFileOptions | kJson | kWait,
     [](TaskRun& run) {
         return ScanFiles(run.plugin, run.installed, std::move(run.files), run.options.scan,
                          run.options.report);
     },
     ""},
    {"--check", TaskNeeds::kNothing, kJson,
     [](TaskRun& run) {
         return CheckInstallation(run.options.library, run.options.folder, run.options.report.json);
     },
     "Diagnose the installation and say what to do"},
    {"--ping", TaskNeeds::kInstallation, kWait | kWaitAlone,
     [](TaskRun& run) { return Ping(run.installed, run.options.wait); },
     "Check that the engine can complete a scan"},
    {"--stats", TaskNeeds::kInstallation, 0, [](TaskRun& run) { return PrintStats(run.installed); },
     "Print the bridge's numbers, in the Prometheus text format"},
    {"--restart", TaskNeeds::kInstallation, 0, RestartBridge, "Restart the bridge without losing a scan"},
    {"--version", TaskNeeds::kPlugin, kWait, PrintVersion, "Print the versions of plug-in and engine"},
    {"--update", TaskNeeds::kPlugin, kWait, [](TaskRun& run) { return Update(*run.plugin, run.installed); },
     "Update the signatures as the mail server does"},
};

Fault FindFiles(const Options& options, FileListing& files) {
    std::vector<std::wstring> from_list;
    if (Fault fault = options.file_list.empty() ? Fault() : ReadPathList(options.file_list, from_list)) {
        return fault;
    }
    const std::wstring& quarantine = options.scan.quarantine;
    const DWORD attributes = GetFileAttributesW(quarantine.c_str());
    if (!quarantine.empty() &&
        (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY))) {
        return {Utf8FromWide(quarantine) + " is not a folder that files can be put into"};
    }
    files = ListFiles(options.paths, from_list, options.list, quarantine);
    return {};
}

// INITIALIZESCANNER. After a fault nothing else may be called. One with a code leaves a plug-in that can
// update and tell its version, but whose scans have no engine.
Fault StartPlugin(const PluginLibrary& plugin, const InstalledPlugin& installed) {
    char short_name[kShortNameSize];
    char long_name[kLongNameSize];
    uint32_t out_value;
    const int32_t result = plugin.initialize_scanner(kInterfaceVersion, short_name, long_name, &out_value,
                                                     installed.ansi_folder.c_str());
    if (result == 0) {
        return {};
    }
    if (result == 1) {
        return {"the plug-in refuses this interface version (1): program and library do not belong together"};
    }
    if (result == -1) {
        return {"the plug-in cannot start the Windows Sockets layer (-1)"};
    }
    const auto code = static_cast<uint32_t>(result);
    return {"the engine program " + Utf8FromWide(installed.engine) +
                " cannot be started: " + SystemErrorWithCode(code),
            code};
}

// Fills in what the task needs.
Fault Prepare(TaskRun& run) {
    const Options& options = run.options;
    const TaskNeeds needs = options.task->needs;
    if (needs == TaskNeeds::kNothing) {
        return {};
    }
    run.installed = ReadInstalledPlugin(options.folder);
    if (run.installed.folder_fault) {
        return run.installed.folder_fault;
    }
    if (!HoldsPlugin(run.installed)) {
        return {
            Utf8FromWide(options.folder) +
            " holds no part of the plug-in: --folder names the folder in which kestoav.ini and plugins lie"};
    }
    if (needs == TaskNeeds::kInstallation) {
        return {};
    }
    const bool engine_needed = needs == TaskNeeds::kEngine;
    run.plugin = std::make_shared<PluginLibrary>();
    if (Fault fault = LoadPlugin(options.library, *run.plugin)) {
        return fault;
    }
    if (Fault fault = FindFiles(options, run.files)) {
        return fault;
    }
    // A scan starts an engine sooner or later, whatever autostart says.
    if (engine_needed || run.installed.settings.autostart) {
        run.engine = EnsureEngine(run.installed);
    }
    if (run.engine == EngineStart::kUnusable) {
        const std::string words = WhyUnusable(run.installed);
        if (engine_needed) {
            return {words};
        }
        Complain(words);
    }
    if (Fault fault = StartPlugin(*run.plugin, run.installed)) {
        // Without an engine each scan would wait for one in vain; the other tasks need none.
        if (engine_needed || fault.code == 0) {
            return fault;
        }
        Complain(fault.text);
    }
    std::string words;
    return options.wait == 0 ? Fault() : AwaitEngine(run.installed, options.wait, words);
}

int RunTask(const Options& options) {
    TaskRun run{options};
    Fault fault = options.log.empty() ? Fault() : PrintToFileToo(options.log);
    if (!fault) {
        fault = Prepare(run);
    }
    return fault ? Refuse(options, fault) : options.task->run(run);
}

int Run(int count, wchar_t** arguments) {
    // A damaged library or an empty drive is an error, without a dialogue.
    SetErrorMode(SEM_FAILCRITICALERRORS);
    EnableDebugPrivilege();
    WatchForInterrupt();
    Options options;
    int status = kExitClean;
    if (const Fault fault = ParseCommandLine(count, arguments, kTasks, options)) {
        status = Refuse(options, fault);
        PrintError("kestoscan --help lists the options.\n");
    } else if (options.task != nullptr) {
        status = RunTask(options);
        PrintError(EndOwnEngines());
    }
    if (const Fault fault = OutputFault()) {
        Complain(fault.text);
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
        kesto::host::Complain(error.what());
    }
    // Nothing is buffered. An orderly end would unload the plug-in while threads are inside it.
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(status));
    return status;
}
