// The stand-in for the engine and the updater: a program that is copied under whatever name a test needs.
// PROGRAM.role beside it tells what to do (see Installation::PlaceStandIn); it runs until it is ended. Every
// start adds a line to PROGRAM.started once the role is taken up: process ID, working folder and command
// line, with tabs between.
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include "tests/support/scripted_engine.h"
// windows.h must come after winsock2.h.
#include <windows.h>

namespace kesto {
namespace {

constexpr int kLongestLifeMs = 120'000;  // when all else fails

void RecordStart(const std::string& program) {
    std::ostringstream line;
    line << GetCurrentProcessId() << '\t' << std::filesystem::current_path().string() << '\t'
         << GetCommandLineA() << '\n';
    std::ofstream(program + ".started", std::ios::app | std::ios::binary) << line.str();
}

DWORD Play(const std::string& program) {
    std::ifstream file(program + ".role");
    std::string role, script;
    DWORD number = 0;
    file >> role >> number >> std::ws;
    std::getline(file, script);

    std::optional<ScriptedEngine> engine;
    if (role == "engine") {
        engine.emplace(script == "shifted" ? Realistic({.shifted = true}) : Replying(script),
                       static_cast<uint16_t>(number), false);
    }
    RecordStart(program);
    if (role == "exit") {
        return number;
    }
    WaitFor([&] { return role == "release" && std::filesystem::exists(program + ".release"); },
            std::chrono::milliseconds(kLongestLifeMs));
    return number;
}

}  // namespace
}  // namespace kesto

int main() {
    char path[MAX_PATH];
    const std::string program(path, GetModuleFileNameA(nullptr, path, sizeof path));
    try {
        return static_cast<int>(kesto::Play(program));
    } catch (const std::exception&) {
        return 98;  // another engine has the port
    }
}
