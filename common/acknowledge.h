// The plug-in sends a chunk and its length separately, and its Windows holds the second back until the first
// is acknowledged. The receiver's Windows delays that by 40 to 200 ms, unless it is told to acknowledge at
// once.
#pragma once

#include <winsock2.h>
#include <mstcpip.h>

namespace kesto {

// False where the system has no such option.
inline bool AcknowledgeAtOnce(SOCKET socket) {
#ifndef SIO_TCP_SET_ACK_FREQUENCY
    constexpr DWORD SIO_TCP_SET_ACK_FREQUENCY = 0x98000017;
#endif
    BYTE frequency = 1;
    DWORD size = 0;
    return WSAIoctl(socket, SIO_TCP_SET_ACK_FREQUENCY, &frequency, sizeof frequency, nullptr, 0, &size,
                    nullptr, nullptr) == 0 ||
           WSAGetLastError() != WSAEOPNOTSUPP;
}

}  // namespace kesto
