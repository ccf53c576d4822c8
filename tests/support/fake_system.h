// Clock, process table and network as the plug-in sees them, all made up: waits of minutes pass at once, and
// a test knows every answer that the plug-in gets. Log, settings and everything else are real.
#pragma once

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "tests/support/plugin_host.h"

namespace kesto {

// Replaces a system function that a loaded library calls, for as long as the object lives. In this way a test
// makes the system fail, and sees exactly what it was asked.
class ImportPatch {
 public:
    // Puts `replacement` in the place of the function that `module` imports by this name, and throws when it
    // imports none. Both must be declared alike.
    template <class Function>
    ImportPatch(void* module, const char* name, Function* replacement) : slot_(FindSlot(module, name)) {
        *slot_ = reinterpret_cast<void*>(replacement);
    }
    ~ImportPatch() { *slot_ = original_; }
    ImportPatch(const ImportPatch&) = delete;

 private:
    // Where the loader has put the function's address. The compiler's linker lets it be written.
    static void** FindSlot(void* module, const char* name);

    void** const slot_;
    void* const original_ = *slot_;
};

inline constexpr uint32_t kNever = UINT32_MAX;

struct FakeProcess {
    std::string image = "\\Device\\HarddiskVolume1\\mail\\plugins\\kestoav\\kestoav.exe";
    DWORD refused = 0;  // rights that are not granted
    uint32_t ends = kNever;
    uint32_t appears = 0;  // both times by the clock below
};

// The state of the system, and what it will do.
struct SystemState {
    std::vector<FakeProcess> processes{1};  // with the IDs 4, 8, ..., after one with ID 0
    uint32_t accepts_from = 0;  // when connects begin to reach the loopback; all others are refused in 1 s
    bool enumerates = true;     // false: the process table cannot be read
    uint32_t end_takes = 0;     // time after TerminateProcess; kNever: that fails
    bool starts = true;         // what CreateProcess returns
    DWORD start_error = 0;      // and leaves as the last error
    FakeProcess started = {};   // what it adds to the table
    DWORD exit_code = 0;        // of every process
    uint32_t look_takes = 0;    // how far each look at the clock advances it
    uint32_t clock = 0;         // in ms; the tick count starts shortly before it wraps
};

struct FakeSystem : SystemState {  // one at a time
    explicit FakeSystem(void* plugin);
    void Become(const SystemState& state) { static_cast<SystemState&>(*this) = state; }

    std::vector<std::string> calls;  // in order, with what matters of their arguments
    int open_handles = 0;
    const ImportPatch patches_[11];
};
inline FakeSystem* g_system;  // the latest

// A plug-in with a log, to which an engine process only seems to run. Its server is `engine`, unless its
// settings name others; ports are real.
struct DrivenPlugin : InstalledPlugin {
    DrivenPlugin() { installed.CreateLog(); }
    int32_t Start(const std::string& settings = "") {
        return InstalledPlugin::Start(settings + "\nservers=" + engine.Address());
    }

    ScriptedEngine engine;
    FakeSystem system{plugin.module};
};

class PluginTest : public testing::Test, protected DrivenPlugin {};

}  // namespace kesto
