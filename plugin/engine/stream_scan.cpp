#include "plugin/engine/stream_scan.h"

#include <algorithm>
#include <cstring>

#include "base/byte_shift.h"

namespace kesto {

bool SendCommand(SocketConnection& connection, std::string_view command) {
    return connection.SendBytes(command.data(), static_cast<uint32_t>(command.size()));
}

namespace {

bool SendChunkLength(SocketConnection& connection, uint32_t length) {
    uint32_t prefix = htonl(length);
    return connection.SendBytes(&prefix, sizeof prefix);
}

bool SendFile(SocketConnection& connection, const ScanFileInput& input, bool encrypt) {
    uint8_t chunk[kChunkSize];
    // 64 bits, since a 32-bit offset and a chunk together may exceed 4 GiB.
    uint64_t offset = 0;
    for (;;) {
        const uint32_t size = *static_cast<const volatile uint32_t*>(&input.size);
        if (offset >= size) {
            return SendChunkLength(connection, 0);
        }
        const auto length = static_cast<uint32_t>(std::min<uint64_t>(kChunkSize, size - offset));
        memcpy(chunk, input.data + offset, length);
        if (encrypt) {
            ShiftBytes(chunk, length, -1);
        }
        if (!SendChunkLength(connection, length) || !connection.SendBytes(chunk, length)) {
            return false;
        }
        offset += kChunkSize;
    }
}

}  // namespace

ScanVerdict StreamScan(SocketConnection& connection, const ScanFileInput& input, bool encrypt,
                       ReceivedText& reply) {
    connection.MaxReadIdleMs(kIdleLimitMs);
    connection.MaxSendIdleMs(kIdleLimitMs);
    if (!SendCommand(connection, kScanCommand) || !SendFile(connection, input, encrypt)) {
        connection.Close(kCloseWaitMs);
        return {VerdictKind::kSendFailed, {}};
    }
    // Whether it succeeded does not matter: a failed read leaves the reply empty, which is no verdict.
    connection.ReceiveStringUntilByte(0, reply);
    connection.Close(kCloseWaitMs);
    return VerdictOfReply(reply.View());
}

}  // namespace kesto
