// A changed bridge.ini is taken up while the bridge runs.
#pragma once

#include <string>

#include "bridge/bridge.h"
#include "common/bridge_ini.h"

namespace kesto::bridge {

// Opens the log that the settings name, or else the default one, and says so on standard error and there.
void UseLogOf(const BridgeIni& ini, const std::wstring& program_folder);

class Reload {
 public:
    explicit Reload(std::wstring program_folder);

    // To be called every second or so. Takes the file up when it has changed and stands still; `listen` and
    // `decrypt` stay as they are. One that cannot be followed changes nothing.
    void Tick(Bridge& bridge, Time now);

 private:
    struct Stamp {
        uint64_t written = 0;
        uint64_t size = 0;
        bool operator==(const Stamp&) const = default;
    };
    Stamp Look() const;

    std::wstring folder_;
    Stamp taken_up_;
    Stamp seen_;
    Time next_look_{};
};

}  // namespace kesto::bridge
