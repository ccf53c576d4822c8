// The running engine processes, as an administrator wants to see them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kesto {

struct EngineProcess {
    uint32_t id;
    bool visible;       // this account may query it; the plug-in in this account would not see it otherwise
    std::wstring path;  // of its program; empty when not visible
};

// Every process whose program file is named kestoav.exe, in any folder.
std::vector<EngineProcess> EngineProcesses();

}  // namespace kesto
