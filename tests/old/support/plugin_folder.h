// A plug-in folder of a test's own, with programs in it that play engine and updater.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tests/loopback/loopback.h"
// windows.h must come after winsock2.h.
#include <windows.h>

namespace kesto {

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, std::string_view content);

// Processes whose program file has this name, in any folder.
std::vector<DWORD> ProcessesNamed(std::string_view name);
// Terminates them, without waiting for their end.
void EndProcesses(std::string_view name);

// One start of a stand-in program.
struct ProgramStart {
    DWORD process_id;
    std::string folder;
    std::string command_line;
    std::string show_state;  // "hidden" or "shown"
};

class PluginFolder {
 public:
    // `name` tells folders of one test program apart; blanks are allowed. Fails the test when an engine
    // process is still running from elsewhere.
    explicit PluginFolder(const std::string& name = "plugin");
    // Ends every stand-in program and waits for it.
    ~PluginFolder();
    PluginFolder(const PluginFolder&) = delete;
    PluginFolder& operator=(const PluginFolder&) = delete;

    const std::string& path() const { return path_; }
    std::string parent() const { return parent_; }
    std::string engine_folder() const { return path_ + "\\plugins\\kestoav"; }
    std::string engine_program() const { return engine_folder() + "\\kestoav.exe"; }
    // Where an engine program runs that the plug-in finds and stops, but never starts.
    std::string elsewhere() const { return parent_ + "\\kestoav.exe"; }
    std::string log_path() const { return path_ + "\\kestoav.log"; }

    void WriteSettings(std::string_view lines) const;  // below [kestoav]
    void CreateLog() const { WriteFile(log_path(), ""); }

    // The messages of the log so far, without their time stamps; lines without one belong to the message
    // above them.
    std::vector<std::string> LogMessages() const;
    bool WaitForLog(std::string_view message, size_t times = 1) const;

    // Puts the stand-in program there; roles are "wait", "exit CODE", "release CODE" (ends after Release),
    // "listen PORT" (an engine that finds everything clean) and "rights MASK" (the only rights that others
    // have to the process). A program that is there already takes up the new role at its next start.
    void PlaceProgram(const std::string& program, const std::string& role) const;
    void PlaceEngine(const std::string& role) const { PlaceProgram(engine_program(), role); }
    // Starts a program from the test itself and waits until it has taken up its role.
    void StartProgram(const std::string& program) const;
    std::vector<ProgramStart> Starts(const std::string& program) const;
    bool WaitForStarts(const std::string& program, size_t count) const;
    void Release() const { SetEvent(release_); }

 private:
    std::string event_name_;
    std::string parent_;
    std::string path_;
    HANDLE end_;
    HANDLE release_;
};

}  // namespace kesto
