#include "common/tcp_options.h"

#include <winsock2.h>
#include <mstcpip.h>

namespace kesto {
namespace {

#ifndef SIO_TCP_SET_ACK_FREQUENCY
constexpr DWORD SIO_TCP_SET_ACK_FREQUENCY = 0x98000017;
#endif

template <typename Value>
bool Control(SOCKET socket, DWORD code, Value value) {
    DWORD size = 0;
    return WSAIoctl(socket, code, &value, sizeof value, nullptr, 0, &size, nullptr, nullptr) == 0;
}

}  // namespace

bool AcknowledgeAtOnce(uintptr_t socket) {
    return Control(socket, SIO_TCP_SET_ACK_FREQUENCY, BYTE{1}) || WSAGetLastError() != WSAEOPNOTSUPP;
}

void KeepAlive(uintptr_t socket) {
    Control(socket, SIO_KEEPALIVE_VALS, tcp_keepalive{1, 10'000, 1'000});
}

}  // namespace kesto
