#include "host/command_line.h"

#include <windows.h>

#include <CLI/CLI.hpp>

#include "host/common/exit_status.h"
#include "host/common/output.h"
#include "host/common/text.h"

namespace kesto {
namespace {

constexpr unsigned kMostJobs = 16;

std::wstring ProgramFolder() {
    std::wstring path(32768, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path.substr(0, path.find_last_of(L'\\'));
}

std::wstring FullPath(const std::string& utf8) {
    const std::wstring path = WideFromUtf8(utf8);
    std::wstring full(GetFullPathNameW(path.c_str(), 0, nullptr, nullptr), L'\0');
    full.resize(GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr));
    while (full.size() > 3 && full.back() == L'\\') {
        full.pop_back();
    }
    return full;
}

std::nullopt_t WrongUsage(const std::string& error, int& status) {
    PrintError("kestoscan: " + error + "\nkestoscan --help lists what it takes.\n");
    status = kExitError;
    return std::nullopt;
}

}  // namespace

std::optional<Options> ParseCommandLine(int count, wchar_t** arguments, int& status) {
    Options options;
    std::vector<std::string> paths;
    std::string library;
    std::string folder;
    bool version = false;
    bool update = false;
    bool check = false;
    CLI::App app("Scans files through the mail server's anti-virus plug-in.", "kestoscan");
    app.allow_windows_style_options(false);  // a path may begin with a slash
    app.footer(
        "Exit status: 0 nothing found, 1 something infected, 2 an error and nothing infected.\n"
        "With --version, --update and --check: 0 or 2. Interrupted: 2.");
    app.add_option("FILE", paths, "Files to scan; * and ? stand for what they match")->type_name("");
    app.add_flag("-r,--recursive", options.recursive, "Scan the files in and below named folders");
    app.add_flag("-i,--infected", options.infected, "Print infected files only; errors go to standard error");
    app.add_option("-j,--jobs", options.jobs, "Files scanned at a time, 1 (the default) to 16")
        ->type_name("N")
        ->check(CLI::Range(1u, kMostJobs).description(""));
    app.add_flag("--json", options.json, "Print one JSON document");
    app.add_option("--library", library, "The plug-in (default: CLAMDLL.dll beside this program)")
        ->type_name("PATH");
    app.add_option("--folder", folder, "The plug-in's folder (default: the folder of this program)")
        ->type_name("PATH");
    app.add_flag("--version", version, "Print what plug-in and engine say of their versions");
    app.add_flag("--update", update, "Update the signatures as the mail server does");
    app.add_flag("--check", check, "Diagnose the installation and say what to do");

    std::vector<std::string> utf8_arguments;  // last first, as the parser wants them
    while (count > 1) {
        utf8_arguments.push_back(Utf8FromWide(arguments[--count]));
    }
    try {
        app.parse(std::move(utf8_arguments));
    } catch (const CLI::CallForHelp&) {
        PrintOut(app.help());
        status = kExitClean;
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        return WrongUsage(error.what(), status);
    }

    if (!paths.empty() + version + update + check != 1) {
        return WrongUsage("name files to scan, or one of --version, --update and --check", status);
    }
    if (options.json && (version || update)) {
        return WrongUsage("--json goes with a scan or with --check", status);
    }
    options.task = version ? Task::kVersion : update ? Task::kUpdate : check ? Task::kCheck : Task::kScan;
    for (const std::string& path : paths) {
        options.paths.push_back(WideFromUtf8(path));
    }
    options.library = library.empty() ? ProgramFolder() + L"\\CLAMDLL.dll" : FullPath(library);
    options.folder = folder.empty() ? ProgramFolder() : FullPath(folder);
    return options;
}

}  // namespace kesto
