#include "plugin/process/child_program.h"

#include "plugin/process/plugin_folder.h"

namespace kesto {

bool StartHiddenProgram(const char* program, PROCESS_INFORMATION& started, DWORD& error) {
    char folder[kMessageSize];
    if (!FormatEngineFolder(folder)) {
        error = ERROR_PATH_NOT_FOUND;
        return false;
    }
    char path[kMessageSize];
    FormatText(path, sizeof path, "%s\\%s", folder, program);

    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESHOWWINDOW;
    startup.wShowWindow = SW_HIDE;
    // The command line is the bare path, unquoted even where it holds blanks: how Windows reads those is part
    // of the interface.
    if (CreateProcessA(nullptr, path, nullptr, nullptr, FALSE, 0, nullptr, folder, &startup, &started)) {
        return true;
    }
    error = GetLastError();
    return false;
}

}  // namespace kesto
