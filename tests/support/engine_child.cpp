// The stand-in for the engine and the updater: a program that is copied under whatever name a test needs.
// PROGRAM.role beside it says what to do (see Installation::PlaceStandIn); it runs until it is ended. Every
// start adds a byte to PROGRAM.started as soon as the program plays its role.
#include <filesystem>
#include <fstream>
#include <optional>

#include "tests/support/scripted_engine.h"
// windows.h must come after winsock2.h.
#include <windows.h>

namespace kesto {
namespace {

constexpr int kLongestLifeMs = 120'000;  // if nothing else ends it

DWORD Play(const std::string& program) {
    std::ifstream file(program + ".role");
    std::string role;
    uint16_t number = 0;
    file >> role >> number;

    std::optional<ScriptedEngine> engine;
    if (role == "engine") {
        engine.emplace(Realistic({.shifted = true}), number);
    }
    std::ofstream(program + ".started", std::ios::app | std::ios::binary) << '1';
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
