// A real kestoav.exe in a folder of its own, and what clients say to it.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "tests/loopback/loopback.h"
#include "tests/support/fake_engine.h"

namespace kesto {

class BridgeProcess {
 public:
    // Starts it on a free port, from another working folder, with these upstreams and further ini lines.
    // A log file is present.
    explicit BridgeProcess(const std::string& upstreams, const std::string& more_settings = "");
    // Starts it with exactly this ini text and does not wait for it to listen.
    static BridgeProcess WithIni(const std::string& ini);
    ~BridgeProcess();

    uint16_t Port() const { return port_; }
    bool WaitUntilListening() const;
    void PressCtrlBreak() const;
    DWORD WaitForExit() const;  // its exit code, or STILL_ACTIVE after the limit
    std::string Log() const;
    std::string ErrorOutput() const;

 private:
    BridgeProcess() = default;
    void Start(const std::string& ini);

    uint16_t port_ = 0;
    std::string folder_;
    PROCESS_INFORMATION process_ = {};
};

// The stream of a scan: the data in chunks, each with its length, and the zero length. Data is not shifted.
std::string ChunkStreamOf(const std::string& data, size_t chunk_size = 8192);
std::string ShiftedDown(std::string data);

// Sends bytes on a new connection and returns all that comes back until the end; "(no end)" is added when
// the connection stays open past the limit.
std::string Ask(uint16_t port, const std::string& bytes);

std::string Scan(uint16_t port, const std::string& data);  // with the data shifted as the plug-in does
std::string Stats(uint16_t port);
unsigned StatsValue(uint16_t port, const std::string& name);

}  // namespace kesto
