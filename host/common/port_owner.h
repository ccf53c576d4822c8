// Who listens on a port of this machine.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kesto::host {

struct PortOwner {
    uint32_t process_id;  // 0: the system does not tell
    std::string program;  // its file name (UTF-8); empty when not known
};

// The program that listens at this numeric IPv4 address; none when nobody does or the system does not tell.
std::optional<PortOwner> ListenerOn(const std::string& address, uint16_t port);

// Whether this process listens anywhere; also false when the system does not tell.
bool Listens(uint32_t process_id);

// "chat.exe (process 1234)", or "another program".
std::string OwnerText(const PortOwner& owner);

}  // namespace kesto::host
