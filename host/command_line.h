// What the user asks for.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "common/fault.h"
#include "host/file_list.h"
#include "host/report.h"
#include "host/scan_files.h"

namespace kesto::host {

// What a task is given before it runs. Each has what stands before it, too.
enum class TaskNeeds { kNothing, kInstallation, kPlugin, kEngine };

// The options that not every task goes with. --wait alone asks for a task, too.
enum TaskTakes { kFileOptions = 1, kJson = 2, kWait = 4, kWaitAlone = 8 };

struct TaskRun;

struct Task {
    const char* option;  // that asks for it; null: files to scan do
    TaskNeeds needs;
    int takes;             // of TaskTakes, added
    int (*run)(TaskRun&);  // returns the exit status
    const char* help;
};

struct Options {
    const Task* task = nullptr;  // null: the help, which has been printed
    std::vector<std::wstring> paths;
    std::wstring file_list;  // a path or "-"; empty: none
    ListOptions list;
    ScanOptions scan;
    ReportOptions report;
    std::wstring library;  // absolute
    std::wstring folder;   // absolute, without a backslash at its end
    std::wstring log;      // empty: none
    unsigned wait = 0;     // seconds for the engine to answer
};

// The tasks are all that there are. After wrong usage only `report.json` is set.
Fault ParseCommandLine(int count, wchar_t** arguments, std::span<const Task> tasks, Options& options);

}  // namespace kesto::host
