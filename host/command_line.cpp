#include "host/command_line.h"

#include <windows.h>

#include <CLI/CLI.hpp>
#include <algorithm>

#include "common/program_folder.h"
#include "common/text.h"
#include "host/common/output.h"

namespace kesto::host {
namespace {

constexpr unsigned kMostJobs = 16;
constexpr unsigned kLongestTime = 86400;  // seconds

constexpr char kFooter[] =
    "Exit status: 0 if nothing was found, 1 if something infected was found, whatever else happened, 2 "
    "after\n"
    "an error or an interruption with nothing infected. Without files to scan: 0 or 2.\n"
    "\n"
    "Examples:\n"
    "  kestoscan --check\n"
    "  kestoscan --recursive --infected --exclude *.iso C:\\mail\n"
    "  kestoscan --wait 60 --json --jobs 4 C:\\mail\\*.eml\n"
    "  kestoscan --recursive --move D:\\quarantine --log D:\\scan.log C:\\mail\n"
    "  dir /b /s C:\\mail\\*.eml | kestoscan --file-list -\n"
    "  type sample.eml | kestoscan -\n"
    "  kestoscan --stats > D:\\metrics\\kestoav.prom";

std::wstring FullPath(const std::wstring& path) {
    std::wstring full(GetFullPathNameW(path.c_str(), 0, nullptr, nullptr), L'\0');
    full.resize(GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr));
    while (full.size() > 3 && full.back() == L'\\') {
        full.pop_back();
    }
    return full;
}

// The parser would split "[a,b]" into two values. This prefix, which no argument has, prevents it.
constexpr char kAsItStands[] = "\"";

std::wstring Given(std::string_view text) {
    return WideFromUtf8(text.starts_with(kAsItStands) ? text.substr(1) : text);
}

using Names = std::vector<CLI::Option*>;

struct Parser {
    explicit Parser(Options& options);

    std::string Contradiction(const Options& options) const;  // empty when all options go together
    Task ChosenTask() const;

    CLI::App app{"Scans files through the mail server's anti-virus plug-in.", "kestoscan"};
    std::vector<std::pair<CLI::Option*, Task>> tasks;
    Names scan_only;
    CLI::Option *files, *file_list, *move, *copy, *wait, *json;

 private:
    CLI::Option* Text(const char* name, const char* kind, std::wstring& value, const char* description) {
        return app
            .add_option_function<std::string>(
                name, [&value](const std::string& text) { value = Given(text); }, description)
            ->type_name(kind)
            ->check(
                CLI::Validator([](const std::string& text) { return text.empty() ? "is empty" : ""; }, ""));
    }
    CLI::Option* Texts(const char* name, const char* kind, std::vector<std::wstring>& values,
                       const char* description) {
        return app
            .add_option_function<std::vector<std::string>>(
                name,
                [&values](const std::vector<std::string>& texts) {
                    std::transform(texts.begin(), texts.end(), std::back_inserter(values), Given);
                },
                description)
            ->type_name(kind);
    }
    CLI::Option* Number(const char* name, const char* kind, unsigned& value, unsigned lowest,
                        unsigned highest, const char* description) {
        return app.add_option(name, value, description)
            ->type_name(kind)
            ->check(CLI::Range(lowest, highest).description(""));
    }
};

Parser::Parser(Options& options) {
    app.allow_windows_style_options(false);  // a path may begin with a slash
    app.footer(kFooter);
    const auto flag = [&](const char* name, bool& value, const char* description) {
        return app.add_flag(name, value, description);
    };
    files = Texts("FILE", "", options.paths, "Files to scan; * and ? are wildcards, - is standard input");
    file_list = Text("--file-list", "FILE", options.file_list,
                     "Scan the files that this file names, one path on each line; - reads standard input");
    scan_only = {files, file_list};
    scan_only.push_back(
        flag("-r,--recursive", options.list.recursive, "Scan the files in and below named folders"));
    scan_only.push_back(Texts("--exclude", "PATTERN", options.list.excluded_files,
                              "Leave out files whose name matches; may be repeated")
                            ->allow_extra_args(false));
    scan_only.push_back(Texts("--exclude-dir", "PATTERN", options.list.excluded_folders,
                              "Leave out folders whose name matches; may be repeated")
                            ->allow_extra_args(false));
    scan_only.push_back(
        flag("-i,--infected", options.infected, "Print infected files only; errors go to standard error"));
    scan_only.push_back(Number("-j,--jobs", "N", options.jobs, 1, kMostJobs,
                               "Files scanned at a time, 1 (the default) to 16"));
    scan_only.push_back(Number("--timeout", "SECONDS", options.timeout, 1, kLongestTime,
                               "Give up a file after this time (default 300)"));
    wait = Number("--wait", "SECONDS", options.wait, 0, kLongestTime,
                  "Wait up to this long until the engine answers");
    move = Text("--move", "FOLDER", options.list.quarantine, "Move infected files into this folder");
    copy = Text("--copy", "FOLDER", options.list.quarantine, "Copy infected files into this folder")
               ->excludes(move);
    json = flag("--json", options.json, "Print one JSON document");
    scan_only.insert(scan_only.end(),
                     {move, copy,
                      app.add_flag_callback(
                          "--no-summary", [&] { options.summary = false; }, "Print no totals at the end")});
    Text("--log", "FILE", options.log, "Also append all output to this file");
    Text("--library", "PATH", options.library, "The plug-in (default: CLAMDLL.dll beside this program)");
    Text("--folder", "PATH", options.folder, "The plug-in's folder (default: the folder of this program)");
    const std::tuple<const char*, Task, const char*> kTasks[] = {
        {"--check", Task::kCheck, "Diagnose the installation and say what to do"},
        {"--ping", Task::kPing, "Tell whether the engine answers when something is scanned"},
        {"--stats", Task::kStats, "Print the engine bridge's counters, in the Prometheus text format"},
        {"--restart", Task::kRestart, "Start the engine bridge anew without losing a scan"},
        {"--version", Task::kVersion, "Print the versions of plug-in and engine"},
        {"--update", Task::kUpdate, "Update the signatures as the mail server does"}};
    for (const auto& [name, task, description] : kTasks) {
        CLI::Option* const option = app.add_flag(name, description);
        for (const auto& [other, other_task] : tasks) {
            option->excludes(other);
        }
        tasks.emplace_back(option, task);
    }
}

Task Parser::ChosenTask() const {
    for (const auto& [option, task] : tasks) {
        if (option->count() != 0) {
            return task;
        }
    }
    return wait->count() != 0 && files->count() == 0 && file_list->count() == 0 ? Task::kPing : Task::kScan;
}

std::string Parser::Contradiction(const Options& options) const {
    const std::tuple<Names, std::vector<Task>, const char*> goes_with[] = {
        {scan_only, {Task::kScan}, " goes with files to scan only"},
        {{json}, {Task::kScan, Task::kCheck}, " goes with files to scan and with --check only"},
        {{wait},
         {Task::kScan, Task::kPing, Task::kVersion, Task::kUpdate},
         " goes with neither --check, --restart nor --stats"},
    };
    for (const auto& [names, allowed, words] : goes_with) {
        for (const CLI::Option* option : names) {
            if (option->count() != 0 &&
                std::find(allowed.begin(), allowed.end(), options.task) == allowed.end()) {
                return option->get_name() + words;
            }
        }
    }
    if (options.task != Task::kScan) {
        return "";
    }
    if (files->count() == 0 && file_list->count() == 0) {
        return "name files to scan, or one of --check, --ping, --restart, --stats, --version and --update";
    }
    if (std::find(options.paths.begin(), options.paths.end(), kStandardInput) == options.paths.end()) {
        return "";
    }
    return !options.list.quarantine.empty()      ? "--move and --copy need files, and - is not one"
           : options.file_list == kStandardInput ? "standard input can be a file or a list, not both"
                                                 : "";
}

}  // namespace

Fault ParseCommandLine(int count, wchar_t** arguments, Options& options) {
    Parser parser(options);
    std::vector<std::string> utf8_arguments;  // last first, as the parser wants them
    bool quoted = false;
    bool json = false;
    while (count > 1) {
        const std::wstring_view argument = arguments[--count];
        quoted = quoted || argument.find(*kAsItStands) != std::wstring_view::npos;
        json = json || argument == L"--json";
        const char* const mark = argument.starts_with(L'[') ? kAsItStands : "";
        utf8_arguments.push_back(mark + Utf8FromWide(argument));
    }
    options.json = json;
    if (quoted) {
        return {
            "an argument holds a quotation mark, which no name can: behind a backslash it does not end the "
            "argument, so write \"C:\\folder\" and not \"C:\\folder\\\""};
    }
    try {
        parser.app.parse(std::move(utf8_arguments));
    } catch (const CLI::CallForHelp&) {
        PrintOut(parser.app.help());
        options.task = Task::kHelp;
        return {};
    } catch (const CLI::ParseError& error) {
        options.json = json;
        return {error.what()};
    }
    options.task = parser.ChosenTask();
    if (const std::string contradiction = parser.Contradiction(options); !contradiction.empty()) {
        return {contradiction};
    }
    options.library =
        options.library.empty() ? ProgramFolder() + L"\\CLAMDLL.dll" : FullPath(options.library);
    options.folder = options.folder.empty() ? ProgramFolder() : FullPath(options.folder);
    options.move = parser.move->count() != 0;
    if (!options.list.quarantine.empty()) {
        options.list.quarantine = FullPath(options.list.quarantine);
    }
    return {};
}

}  // namespace kesto::host
