#include "host/command_line.h"

#include <windows.h>

#include <CLI/CLI.hpp>

#include "common/program_folder.h"
#include "common/text.h"
#include "host/common/exit_status.h"
#include "host/common/output.h"

namespace kesto::host {
namespace {

constexpr unsigned kMostJobs = 16;
constexpr unsigned kLongestTime = 86400;  // seconds

constexpr char kFooter[] =
    "Exit status: 0 nothing found, 1 something infected, 2 an error and nothing infected.\n"
    "Without files to scan: 0 or 2. Interrupted: 2.\n"
    "\n"
    "Examples:\n"
    "  kestoscan --check\n"
    "  kestoscan --recursive --infected --exclude *.iso C:\\mail\n"
    "  kestoscan --wait 60 --json --jobs 4 C:\\mail\\*.eml\n"
    "  kestoscan --recursive --move D:\\quarantine --log D:\\scan.log C:\\mail\n"
    "  dir /b /s C:\\mail\\*.eml | kestoscan --file-list -\n"
    "  type sample.eml | kestoscan -\n"
    "  kestoscan --stats > D:\\metrics\\kestoav.prom";

std::wstring FullPath(const std::string& utf8) {
    const std::wstring path = WideFromUtf8(utf8);
    std::wstring full(GetFullPathNameW(path.c_str(), 0, nullptr, nullptr), L'\0');
    full.resize(GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr));
    while (full.size() > 3 && full.back() == L'\\') {
        full.pop_back();
    }
    return full;
}

std::vector<std::wstring> AllWide(const std::vector<std::string>& texts) {
    std::vector<std::wstring> wide;
    wide.reserve(texts.size());
    for (const std::string& text : texts) {
        wide.push_back(WideFromUtf8(text));
    }
    return wide;
}

// As the command line gives it, before anything is made of it.
struct Given {
    std::vector<std::string> paths;
    std::vector<std::string> excluded_files;
    std::vector<std::string> excluded_folders;
    std::string file_list;
    std::string library;
    std::string folder;
    std::string log;
    std::string move;
    std::string copy;
    bool no_summary = false;
    bool version = false;
    bool update = false;
    bool check = false;
    bool ping = false;
    bool stats = false;
    bool restart = false;
};

void AddOptions(CLI::App& app, Given& given, Options& options) {
    app.add_option("FILE", given.paths,
                   "Files to scan; * and ? stand for what they match, - for standard input")
        ->type_name("");
    app.add_option("--file-list", given.file_list,
                   "Scan what this file names, one path a line; - reads standard input")
        ->type_name("FILE");
    app.add_flag("-r,--recursive", options.list.recursive, "Scan the files in and below named folders");
    app.add_option("--exclude", given.excluded_files, "Leave out files of such a name; may be repeated")
        ->type_name("PATTERN")
        ->allow_extra_args(false);
    app.add_option("--exclude-dir", given.excluded_folders,
                   "Leave out folders of such a name; may be repeated")
        ->type_name("PATTERN")
        ->allow_extra_args(false);
    app.add_flag("-i,--infected", options.infected, "Print infected files only; errors go to standard error");
    app.add_option("-j,--jobs", options.jobs, "Files scanned at a time, 1 (the default) to 16")
        ->type_name("N")
        ->check(CLI::Range(1u, kMostJobs).description(""));
    app.add_option("--timeout", options.timeout, "Give a file up after this time (default 300)")
        ->type_name("SECONDS")
        ->check(CLI::Range(1u, kLongestTime).description(""));
    app.add_option("--wait", options.wait, "Wait so long for the engine to answer; alone: as --ping")
        ->type_name("SECONDS")
        ->check(CLI::Range(0u, kLongestTime).description(""));
    app.add_option("--move", given.move, "Move what is found into this folder")->type_name("FOLDER");
    app.add_option("--copy", given.copy, "Copy what is found into this folder")->type_name("FOLDER");
    app.add_flag("--json", options.json, "Print one JSON document");
    app.add_flag("--no-summary", given.no_summary, "Print no totals at the end");
    app.add_option("--log", given.log, "Append all that is printed to this file, too")->type_name("FILE");
    app.add_option("--library", given.library, "The plug-in (default: CLAMDLL.dll beside this program)")
        ->type_name("PATH");
    app.add_option("--folder", given.folder, "The plug-in's folder (default: the folder of this program)")
        ->type_name("PATH");
    app.add_flag("--check", given.check, "Diagnose the installation and say what to do");
    app.add_flag("--ping", given.ping, "Tell whether the engine answers a scan");
    app.add_flag("--stats", given.stats, "Print the engine bridge's counters, in the Prometheus text format");
    app.add_flag("--restart", given.restart, "Start the engine bridge anew without losing a scan");
    app.add_flag("--version", given.version, "Print what plug-in and engine say of their versions");
    app.add_flag("--update", given.update, "Update the signatures as the mail server does");
}

// What does not go together; empty when all does.
std::string Contradiction(const CLI::App& app, const Given& given, const Options& options) {
    const bool scan = !given.paths.empty() || app.count("--file-list") != 0;
    const bool ping = given.ping || (app.count("--wait") != 0 && !scan);
    if (scan + given.version + given.update + given.check + ping + given.stats + given.restart != 1) {
        return "name files to scan, or one of --check, --ping, --restart, --stats, --version and --update";
    }
    for (const char* name : {"--folder", "--library", "--file-list", "--log", "--move", "--copy"}) {
        if (app.count(name) != 0 && app.get_option(name)->as<std::string>().empty()) {
            return std::string(name) + " names nothing";
        }
    }
    if (options.json && !scan && !given.check) {
        return "--json goes with a scan or with --check";
    }
    const bool standard_input = std::find(given.paths.begin(), given.paths.end(), "-") != given.paths.end();
    if (!given.move.empty() && !given.copy.empty()) {
        return "--move and --copy exclude each other";
    }
    if (standard_input && (!given.move.empty() || !given.copy.empty())) {
        return "--move and --copy need files, and - is none";
    }
    if (standard_input && given.file_list == "-") {
        return "standard input can be a file or a list, not both";
    }
    return "";
}

std::nullopt_t WrongUsage(const std::string& error, int& status) {
    PrintError("kestoscan: " + error + "\nkestoscan --help lists what it takes.\n");
    status = kExitError;
    return std::nullopt;
}

}  // namespace

std::optional<Options> ParseCommandLine(int count, wchar_t** arguments, int& status) {
    Options options;
    Given given;
    CLI::App app("Scans files through the mail server's anti-virus plug-in.", "kestoscan");
    app.allow_windows_style_options(false);  // a path may begin with a slash
    app.footer(kFooter);
    AddOptions(app, given, options);
    std::vector<std::string> utf8_arguments;  // last first, as the parser wants them
    while (count > 1) {
        utf8_arguments.push_back(Utf8FromWide(arguments[--count]));
    }
    try {
        app.parse(std::move(utf8_arguments));
    } catch (const CLI::CallForHelp&) {
        PrintOut(app.help());
        status = OutputFailure().empty() ? kExitClean : kExitError;
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        return WrongUsage(error.what(), status);
    }
    if (const std::string contradiction = Contradiction(app, given, options); !contradiction.empty()) {
        return WrongUsage(contradiction, status);
    }

    options.task = given.version                                    ? Task::kVersion
                   : given.update                                   ? Task::kUpdate
                   : given.check                                    ? Task::kCheck
                   : given.stats                                    ? Task::kStats
                   : given.restart                                  ? Task::kRestart
                   : given.paths.empty() && given.file_list.empty() ? Task::kPing
                                                                    : Task::kScan;
    options.paths = AllWide(given.paths);
    options.file_list = WideFromUtf8(given.file_list);
    options.list.excluded_files = AllWide(given.excluded_files);
    options.list.excluded_folders = AllWide(given.excluded_folders);
    options.library = given.library.empty() ? ProgramFolder() + L"\\CLAMDLL.dll" : FullPath(given.library);
    options.folder = given.folder.empty() ? ProgramFolder() : FullPath(given.folder);
    options.log = WideFromUtf8(given.log);
    options.move = !given.move.empty();
    if (const std::string& quarantine = options.move ? given.move : given.copy; !quarantine.empty()) {
        options.quarantine = FullPath(quarantine);
    }
    options.summary = !given.no_summary;
    return options;
}

}  // namespace kesto::host
