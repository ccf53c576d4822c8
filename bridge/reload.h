// Takes up a changed bridge.ini while the bridge runs.
#pragma once

#include <optional>
#include <string>

#include "bridge/bridge.h"
#include "common/file_bytes.h"

namespace kesto::bridge {

class Reload {
 public:
    explicit Reload(std::wstring program_folder);

    // To be called every second or so. Takes up the file when it has changed and is not being written;
    // `listen` and `decrypt` stay as they are. A file that cannot be followed changes nothing.
    void Tick(Bridge& bridge, Time now);

 private:
    std::wstring folder_;
    std::optional<FileIdentity> taken_up_;
    std::optional<FileIdentity> seen_;
    std::optional<FileIdentity> unreadable_;  // the file that could not be read, which has been logged
    Time next_look_{};
};

}  // namespace kesto::bridge
