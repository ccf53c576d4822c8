// The stand-in for the engine and the updater: a program that is copied under whatever name a test needs.
// It runs until it is ended, or until PROGRAM.status beside it holds its exit status. Every start adds a byte
// to PROGRAM.started.
#include <windows.h>

#include <filesystem>
#include <fstream>

int main() {
    char path[MAX_PATH];
    const std::string program(path, GetModuleFileNameA(nullptr, path, sizeof path));
    std::ofstream(program + ".started", std::ios::app | std::ios::binary) << '1';
    int status = 0;
    while (!(std::ifstream(program + ".status") >> status)) {
        Sleep(5);
    }
    return status;
}
