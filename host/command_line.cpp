#include "host/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "common/program_folder.h"
#include "common/text.h"
#include "host/common/output.h"
#include "host/exact_path.h"

namespace kesto::host {
namespace {

constexpr unsigned kMostJobs = 16;
constexpr unsigned kLongestTime = 86400;  // seconds

constexpr char kFooter[] =
    "Exit status of a scan: 0 if nothing was found, 1 if something infected was found, whatever else\n"
    "happened, 2 after an error or an interruption with nothing infected. All other commands exit with\n"
    "0 or 2.\n"
    "An engine that this program starts ends with it, unless others have scanned there as well.\n"
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
    std::wstring full = SystemFullPath(path);
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

// "a, b and c"
std::string Listed(const std::vector<std::string>& items) {
    std::string text;
    for (size_t i = 0; i < items.size(); ++i) {
        text += (i == 0 ? "" : i + 1 < items.size() ? ", " : " and ") + items[i];
    }
    return text;
}

struct Parser {
    Parser(std::span<const Task> all, Options& options);

    const Task* ChosenTask(bool files_named) const;
    std::string Contradiction(const Options& options, bool files_named) const;  // empty: all go together

    CLI::App app{"Scans files through the mail server's anti-virus plug-in.", "kestoscan"};
    const std::span<const Task> tasks;
    std::vector<std::string> task_options;
    std::vector<std::pair<CLI::Option*, TaskTakes>> limited;  // that not every task goes with

 private:
    CLI::Option* Limited(TaskTakes kind, CLI::Option* option) {
        return limited.emplace_back(option, kind).first;
    }
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

Parser::Parser(std::span<const Task> all, Options& options) : tasks(all) {
    app.allow_windows_style_options(false);  // a path may begin with a slash
    app.footer(kFooter);
    Limited(kFileOptions,
            Texts("FILE", "", options.paths, "Files to scan; * and ? are wildcards, - is standard input"));
    Limited(kFileOptions,
            Text("--file-list", "FILE", options.file_list,
                 "Scan the files that this file names, one path on each line; - reads standard input"));
    Limited(kFileOptions, app.add_flag("-r,--recursive", options.list.recursive,
                                       "Scan the files in and below named folders"));
    Limited(kFileOptions, Texts("--exclude", "PATTERN", options.list.excluded_files,
                                "Leave out files whose name matches; may be repeated"))
        ->allow_extra_args(false);
    Limited(kFileOptions, Texts("--exclude-dir", "PATTERN", options.list.excluded_folders,
                                "Leave out folders whose name matches; may be repeated"))
        ->allow_extra_args(false);
    Limited(kFileOptions, app.add_flag("-i,--infected", options.report.infected_only,
                                       "Print infected files only; error messages go to standard error"));
    Limited(kFileOptions, Number("-j,--jobs", "N", options.scan.jobs, 1, kMostJobs,
                                 "Files scanned at a time, 1 (the default) to 16"));
    Limited(kFileOptions, Number("--timeout", "SECONDS", options.scan.timeout, 1, kLongestTime,
                                 "Give up a file after this time (default 300)"));
    Limited(kWait, Number("--wait", "SECONDS", options.wait, 0, kLongestTime,
                          "Wait up to this long for the engine to answer"));
    Limited(kFileOptions,
            Text("--move", "FOLDER", options.scan.quarantine, "Move infected files into this folder"));
    Limited(kFileOptions,
            Text("--copy", "FOLDER", options.scan.quarantine, "Copy infected files into this folder"))
        ->excludes("--move");
    Limited(kJson, app.add_flag("--json", options.report.json, "Print one JSON document"));
    Limited(kFileOptions,
            app.add_flag("--no-summary", options.report.no_summary, "Print no totals at the end"));
    Text("--log", "FILE", options.log, "Also append all output to this file");
    Text("--library", "PATH", options.library, "The plug-in (default: CLAMDLL.dll beside this program)");
    Text("--folder", "PATH", options.folder, "The plug-in's folder (default: the folder of this program)");
    for (const Task& task : tasks) {
        if (task.option == nullptr) {
            continue;
        }
        CLI::Option* const option = app.add_flag(task.option, task.help);
        for (const std::string& other : task_options) {
            option->excludes(other);
        }
        task_options.emplace_back(task.option);
    }
}

const Task* Parser::ChosenTask(bool files_named) const {
    for (const Task& task : tasks) {
        if (task.option != nullptr && app.count(task.option) != 0) {
            return &task;
        }
    }
    const int wanted = app.count("--wait") != 0 && !files_named ? kWaitAlone : kFileOptions;
    return &*std::find_if(tasks.begin(), tasks.end(),
                          [&](const Task& task) { return (task.takes & wanted) != 0; });
}

std::string Parser::Contradiction(const Options& options, bool files_named) const {
    for (const auto& [option, kind] : limited) {
        if (option->count() == 0 || (options.task->takes & kind) != 0) {
            continue;
        }
        std::vector<std::string> takers;
        for (const Task& task : tasks) {
            if (task.takes & kind) {
                takers.push_back(task.option ? std::string("with ") + task.option : "files to scan");
            }
        }
        return option->get_name() + " goes with " + Listed(takers) + " only";
    }
    if (!(options.task->takes & kFileOptions)) {
        return "";
    }
    if (!files_named) {
        return "name files to scan, or one of " + Listed(task_options);
    }
    if (std::find(options.paths.begin(), options.paths.end(), kStandardInput) == options.paths.end()) {
        return "";
    }
    return !options.scan.quarantine.empty()      ? "--move and --copy need files, and - is not one"
           : options.file_list == kStandardInput ? "standard input can be a file or a list, not both"
                                                 : "";
}

}  // namespace

Fault ParseCommandLine(int count, wchar_t** arguments, std::span<const Task> tasks, Options& options) {
    Parser parser(tasks, options);
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
    if (quoted) {
        options.report.json = json;
        return {
            "an argument holds a quotation mark, which no name can: behind a backslash it does not end the "
            "argument, so write \"C:\\folder\" and not \"C:\\folder\\\""};
    }
    try {
        parser.app.parse(std::move(utf8_arguments));
    } catch (const CLI::CallForHelp&) {
        PrintOut(parser.app.help());
        return {};
    } catch (const CLI::ParseError& error) {
        options.report.json = json;
        return {error.what()};
    }
    const bool files_named = !options.paths.empty() || !options.file_list.empty();
    options.task = parser.ChosenTask(files_named);
    if (const std::string contradiction = parser.Contradiction(options, files_named);
        !contradiction.empty()) {
        return {contradiction};
    }
    options.library =
        options.library.empty() ? ProgramFolder() + L"\\CLAMDLL.dll" : FullPath(options.library);
    options.folder = options.folder.empty() ? ProgramFolder() : FullPath(options.folder);
    options.scan.move = parser.app.count("--move") != 0;
    if (!options.scan.quarantine.empty()) {
        options.scan.quarantine = FullPath(options.scan.quarantine);
    }
    return {};
}

}  // namespace kesto::host
