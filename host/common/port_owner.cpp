#include "host/common/port_owner.h"

#include <winsock2.h>
#include <windows.h>
#include <iphlpapi.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "base/ipv4_address.h"
#include "common/processes.h"
#include "common/text.h"

namespace kesto::host {
namespace {

std::vector<MIB_TCPROW_OWNER_PID> Listeners() {
    std::vector<std::byte> memory;
    DWORD size = 16384;
    DWORD result = ERROR_INSUFFICIENT_BUFFER;
    for (int tries = 0; tries < 5 && result == ERROR_INSUFFICIENT_BUFFER; ++tries) {
        memory.resize(size);
        result = GetExtendedTcpTable(memory.data(), &size, FALSE, AF_INET, TCP_TABLE_OWNER_PID_LISTENER, 0);
    }
    if (result != NO_ERROR) {
        return {};
    }
    const auto* table = reinterpret_cast<const MIB_TCPTABLE_OWNER_PID*>(memory.data());
    return {table->table, table->table + table->dwNumEntries};
}

}  // namespace

std::optional<PortOwner> ListenerOn(const std::string& address, uint16_t port) {
    uint32_t wanted = 0;
    if (!ParseIpv4(address.c_str(), wanted)) {
        return std::nullopt;
    }
    for (const MIB_TCPROW_OWNER_PID& row : Listeners()) {
        if (ntohs(static_cast<u_short>(row.dwLocalPort)) == port &&
            (row.dwLocalAddr == wanted || row.dwLocalAddr == INADDR_ANY || wanted == INADDR_ANY)) {
            return PortOwner{row.dwOwningPid, Utf8FromWide(ProcessName(row.dwOwningPid))};
        }
    }
    return std::nullopt;
}

bool Listens(uint32_t process_id) {
    const auto rows = Listeners();
    return std::any_of(rows.begin(), rows.end(),
                       [&](const MIB_TCPROW_OWNER_PID& row) { return row.dwOwningPid == process_id; });
}

std::string OwnerText(const PortOwner& owner) {
    return owner.program.empty() ? "another program"
                                 : owner.program + " (process " + std::to_string(owner.process_id) + ")";
}

}  // namespace kesto::host
