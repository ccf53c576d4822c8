// A changed bridge.ini is taken up while the bridge runs.
#pragma once

#include <string>
#include <vector>

#include "bridge/bridge.h"
#include "common/bridge_ini.h"

namespace kesto::bridge {

// Why the bridge, which listens where bridge.settings says, cannot follow what it has read; empty: it can.
std::vector<std::string> Problems(const BridgeIni& ini, const Bridge& bridge);

class Reload {
 public:
    explicit Reload(std::wstring program_folder);

    // To be called every second or so. Takes the file up when it has changed and stands still; `listen` and
    // `decrypt` stay as they are. One that cannot be followed changes nothing.
    void Tick(Bridge& bridge, Time now);

 private:
    std::wstring folder_;
    FileStamp taken_up_;
    FileStamp seen_;
    FileStamp unreadable_;  // that could not be read, and was told
    Time next_look_{};
};

}  // namespace kesto::bridge
