// An installation as an administrator has it, in a folder of the test's own, and the stand-in programs that
// play engine and updater in it.
//
//     top\                                  goes with the object, with all that is in it
//         plugin\                           folder: CLAMDLL.dll, kestoscan.exe
//             kestoav.ini, kestoav.log      once WriteSettings and CreateLog were called
//             plugins\kestoav\              engine_folder: kestoav.exe and kestoavu.exe once placed
#pragma once

#include <filesystem>
#include <list>
#include <string>
#include <string_view>
#include <vector>

#include "tests/loopback/loopback.h"
// windows.h, in what follows, must come after winsock2.h.
#include "tests/support/program_run.h"

namespace kesto {

class Installation {
 public:
    explicit Installation(const std::wstring& name = L"plugin");  // of the folder; blanks are allowed
    // Ends every program that runs from below `top`, and waits for it.
    ~Installation();

    const std::filesystem::path top;
    const std::filesystem::path folder;
    const std::filesystem::path engine_folder = folder / "plugins" / "kestoav";
    const std::filesystem::path engine = engine_folder / "kestoav.exe";
    const std::filesystem::path worker = engine_folder / "kestobridge.exe";
    const std::filesystem::path updater = engine_folder / "kestoavu.exe";
    const std::filesystem::path log = folder / "kestoav.log";
    // Where an engine runs that the plug-in finds and stops, but never starts.
    const std::filesystem::path elsewhere = top / "kestoav.exe";

    void WriteSettings(std::string_view lines) const;  // below [kestoav]
    void CreateLog() const { WriteFile(log, ""); }
    // The messages of the log so far, without their time stamps; lines without one belong to the message
    // above them.
    std::vector<std::string> LogMessages() const;

    // Puts the stand-in there. Roles: "wait", "exit CODE", "release CODE" (ends once PROGRAM.release is
    // there). A program that is there already takes up the new role at its next start.
    void PlaceStandIn(const std::filesystem::path& program, const std::string& role) const;
    // Puts the real bridge there as the engine, with an empty bridge.log and with a free port in bridge.ini,
    // which is returned.
    uint16_t PlaceBridge(const std::string& upstreams, const std::string& more_lines = "",
                         const char* program = "kestoav.exe") const;
    // Puts a stand-in that waits there, unless there is one, starts it from the test itself, and waits until
    // it has taken up its role.
    void StartStandIn(const std::filesystem::path& program);
    size_t Starts(const std::filesystem::path& program) const;  // of a stand-in, so far
    // The processes of a program, or of all whose paths begin so.
    static std::vector<DWORD> ProcessesOf(const std::wstring& program);
    // Ends all programs that run from below `top`, or one of them, and waits for it.
    void EndPrograms(const std::wstring& program = L"") const;

 private:
    std::list<ProgramRun> started_;
};

}  // namespace kesto
