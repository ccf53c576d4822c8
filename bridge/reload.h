// Takes up a changed bridge.ini while the bridge runs.
#pragma once

#include <string>
#include <vector>

#include "bridge/bridge.h"
#include "common/bridge_ini.h"

namespace kesto::bridge {

// Why the bridge, which goes on listening as bridge.settings says, cannot follow what it has read. Empty: it
// can.
std::vector<std::string> Problems(const BridgeIni& ini, const Bridge& bridge);

class Reload {
 public:
    explicit Reload(std::wstring program_folder);

    // To be called every second or so. Takes up the file when it has changed and is not being written;
    // `listen` and `decrypt` stay as they are. A file that cannot be followed changes nothing.
    void Tick(Bridge& bridge, Time now);

 private:
    std::wstring folder_;
    FileStamp taken_up_;
    FileStamp seen_;
    FileStamp unreadable_;  // of the file that could not be read, which has been logged
    Time next_look_{};
};

}  // namespace kesto::bridge
