// The stand-in for the engine and the updater: a program that is copied under whatever name a test needs.
// PROGRAM.role beside it says what to do (see Installation::PlaceStandIn); it runs until it is ended. Every
// start adds a byte to PROGRAM.started as soon as the program plays its role.
#include <windows.h>

#include <filesystem>
#include <fstream>

int main() {
    char path[MAX_PATH];
    const std::string program(path, GetModuleFileNameA(nullptr, path, sizeof path));
    std::ifstream file(program + ".role");
    std::string role;
    int code = 0;
    file >> role >> code;
    std::ofstream(program + ".started", std::ios::app | std::ios::binary) << '1';
    while (role == "wait" || (role == "release" && !std::filesystem::exists(program + ".release"))) {
        Sleep(5);
    }
    return code;
}
