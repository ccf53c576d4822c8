#include <windows.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "host/exit_status.h"
#include "host/file_list.h"
#include "host/interrupt.h"
#include "host/json.h"
#include "host/output.h"
#include "host/plugin_library.h"
#include "host/scan_files.h"
#include "host/text.h"

namespace kesto {
namespace {

struct Options {
    std::vector<std::string> paths;
    std::string library;
    std::string folder;
    unsigned jobs = 1;
    bool recursive = false;
    bool infected = false;
    bool json = false;
    bool version = false;
    bool update = false;
};

std::wstring ProgramFolder() {
    std::wstring path(32768, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path.substr(0, path.find_last_of(L'\\'));
}

// An absolute path: the library's own folder and the mail server's working folder may differ from ours.
std::wstring FullPath(const std::string& utf8) {
    const std::wstring path = WideFromUtf8(utf8);
    std::wstring full(GetFullPathNameW(path.c_str(), 0, nullptr, nullptr), L'\0');
    full.resize(GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr));
    while (full.size() > 3 && full.back() == L'\\') {
        full.pop_back();
    }
    return full;
}

void Describe(CLI::App& app, Options& options) {
    app.allow_windows_style_options(false);
    app.footer(
        "Exit status: 0 nothing found, 1 something infected, 2 an error and nothing infected.\n"
        "With --version, --update and --check: 0 or 2.");
    app.add_option("FILE", options.paths, "files to scan; * and ? stand for what they match");
    app.add_flag("-r,--recursive", options.recursive, "scan the files in and below named folders");
    app.add_flag("-i,--infected", options.infected, "print infected files only; errors go to standard error");
    app.add_option("-j,--jobs", options.jobs, "files scanned at a time (1 to 16, default 1)")
        ->check(CLI::Range(1, 16));
    CLI::Option* json = app.add_flag("--json", options.json, "print one JSON document");
    app.add_option("--library", options.library, "the plug-in (default: CLAMDLL.dll beside this program)");
    app.add_option("--folder", options.folder, "the plug-in's folder (default: the folder of this program)");
    CLI::Option_group* tasks = app.add_option_group("tasks", "instead of scanning");
    tasks->add_flag("--version", options.version, "print what plug-in and engine say of their versions")
        ->excludes(json);
    tasks->add_flag("--update", options.update, "update the signatures as the mail server does")
        ->excludes(json);
    tasks->require_option(0, 1);
}

int Fail(const Options& options, const std::string& error) {
    PrintError("kestoscan: " + error + "\n");
    if (options.json) {
        PrintOut(JsonObject().Add("error", error).Text() + "\n");
    }
    return kExitError;
}

int PrintVersion(const PluginLibrary& plugin) {
    char text[1024] = "";
    plugin.get_version_details(text, sizeof text);
    PrintOut(Utf8FromAnsi(text) + "\n");
    return kExitClean;
}

int Update(const PluginLibrary& plugin) {
    plugin.get_expiry(0, 0, 0);  // as the mail server does: without it every update is refused
    char title[kUpdateTitleSize] = "";
    char message[kUpdateMessageSize] = "";
    if (plugin.do_simple_update(title, message)) {
        PrintOut("Update finished\n");
        return kExitClean;
    }
    PrintError(Utf8FromAnsi(title) + "\n" + Utf8FromAnsi(message) + "\n");
    return kExitError;
}

int RunTask(const Options& options, const PluginLibrary& plugin, const std::wstring& folder) {
    std::string error;
    const StartOutcome outcome = StartPlugin(plugin, folder, error);
    const bool needs_engine = !options.version && !options.update;
    if (outcome == StartOutcome::kRefused || (outcome == StartOutcome::kEngineNotStarted && needs_engine)) {
        return Fail(options, error);
    }
    if (outcome == StartOutcome::kEngineNotStarted) {
        PrintError("kestoscan: " + error + "\n");
    }
    if (options.version) {
        return PrintVersion(plugin);
    }
    if (options.update) {
        return Update(plugin);
    }
    std::vector<std::wstring> paths;
    for (const std::string& path : options.paths) {
        paths.push_back(WideFromUtf8(path));
    }
    return ScanFiles(plugin, ListFiles(paths, options.recursive), options.jobs,
                     {options.json, options.infected});
}

int Run(int count, wchar_t** wide_arguments) {
    WatchForInterrupt();
    Options options;
    CLI::App app("Scans files through the mail server's anti-virus plug-in.", "kestoscan");
    Describe(app, options);
    std::vector<std::string> arguments;  // last first, as the parser wants them
    while (count > 1) {
        arguments.push_back(Utf8FromWide(wide_arguments[--count]));
    }
    try {
        app.parse(std::move(arguments));
    } catch (const CLI::CallForHelp&) {
        PrintOut(app.help());
        return kExitClean;
    } catch (const CLI::ParseError& error) {
        PrintError("kestoscan: " + std::string(error.what()) + "\nkestoscan --help lists what it takes.\n");
        return kExitError;
    }
    if (options.paths.empty() && !options.version && !options.update) {
        PrintError("kestoscan: no files named\nkestoscan --help lists what it takes.\n");
        return kExitError;
    }
    const std::wstring folder = options.folder.empty() ? ProgramFolder() : FullPath(options.folder);
    const std::wstring library =
        options.library.empty() ? ProgramFolder() + L"\\CLAMDLL.dll" : FullPath(options.library);
    std::string error;
    const std::optional<PluginLibrary> plugin = LoadPlugin(library, error);
    if (!plugin) {
        return Fail(options, error);
    }
    const int status = RunTask(options, *plugin, folder);
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
