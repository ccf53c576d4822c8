// Programs that run beside the bench: the sink, the bridge, idle ones that fill the process list.
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <filesystem>
#include <string>

namespace kesto {

std::filesystem::path ProgramFolder();

// A program that runs until it is destroyed.
class ChildProcess {
 public:
    // Throws where the program does not start.
    explicit ChildProcess(const std::filesystem::path& program, const std::string& arguments = "");
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    HANDLE Handle() const { return process_; }
    // Waits for it to end by itself, and returns its exit status.
    DWORD WaitForEnd() const;

 private:
    HANDLE process_;
};

// The bridge, which relays from a port of its own to the loopback's `upstream`.
class BridgeProcess {
 public:
    explicit BridgeProcess(uint16_t upstream);

    uint16_t Port() const { return port_; }
    HANDLE Handle() const { return worker_; }

 private:
    uint16_t port_;
    ChildProcess process_;
    HANDLE worker_ = nullptr;  // closed with the bench
};

}  // namespace kesto
