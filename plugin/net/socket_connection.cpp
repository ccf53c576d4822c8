#include "plugin/net/socket_connection.h"

#include <mstcpip.h>

#include <algorithm>
#include <atomic>
#include <cstring>

#include "base/ipv4_address.h"
#include "plugin/net/host_resolver.h"

namespace kesto {
namespace {

// The layer is never stopped, since other threads may have connections open.
std::atomic<bool> g_layer_started;

uint32_t RemainingMs(uint32_t start, uint32_t limit) {
    uint32_t elapsed = GetTickCount() - start;
    return elapsed < limit ? limit - elapsed : 0;
}

timeval TimeValue(uint32_t ms) {
    return {static_cast<long>(ms / 1000), static_cast<long>(ms % 1000 * 1000)};
}

// Within this machine a refusal is final, but Windows tries again for about two seconds, so that a closed
// port would show as a time-out. Systems before Windows 10 1709 do not know this request; there it has no
// effect.
void AskOnceOnLoopback(SOCKET connecting, uint32_t address) {
    if ((ntohl(address) >> 24) != 127) {
        return;
    }
    TCP_INITIAL_RTO_PARAMETERS once = {TCP_INITIAL_RTO_UNSPECIFIED_RTT,
                                       TCP_INITIAL_RTO_NO_SYN_RETRANSMISSIONS};
    DWORD written = 0;
    WSAIoctl(connecting, SIO_TCP_INITIAL_RTO, &once, sizeof once, nullptr, 0, &written, nullptr, nullptr);
}

// Waits until the connection is made or refused, or the time has passed. Returns 0 or the error.
int WaitForConnect(SOCKET connecting, uint32_t wait_ms) {
    fd_set made;
    fd_set refused;
    FD_ZERO(&made);
    FD_ZERO(&refused);
    FD_SET(connecting, &made);
    FD_SET(connecting, &refused);
    timeval wait = TimeValue(wait_ms);
    int ready = select(0, nullptr, &made, &refused, &wait);
    if (ready == 0) {
        return WSAETIMEDOUT;
    }
    if (ready == SOCKET_ERROR) {
        return WSAGetLastError();
    }
    if (FD_ISSET(connecting, &made) && !FD_ISSET(connecting, &refused)) {
        return 0;
    }
    int error = 0;
    int size = sizeof error;
    if (getsockopt(connecting, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &size) != 0) {
        return WSAGetLastError();
    }
    return error != 0 ? error : WSAECONNREFUSED;
}

// Programs that the host starts must not inherit the socket: they would keep the connection open.
SOCKET OpenSocket() {
    SOCKET opened = WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                               WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
    if (opened == INVALID_SOCKET && WSAGetLastError() == WSAEINVAL) {
        // Windows 7 without its service pack does not know the flag.
        opened = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        if (opened != INVALID_SOCKET) {
            SetHandleInformation(reinterpret_cast<HANDLE>(opened), HANDLE_FLAG_INHERIT, 0);
        }
    }
    return opened;
}

// Returns 1 when the socket is ready, 0 when the time has passed, or SOCKET_ERROR.
int WaitUntilReady(SOCKET waiting, bool to_send, uint32_t wait_ms) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(waiting, &set);
    timeval wait = TimeValue(wait_ms);
    return to_send ? select(0, nullptr, &set, nullptr, &wait) : select(0, &set, nullptr, nullptr, &wait);
}

}  // namespace

bool SocketConnection::LayerStarted() {
    if (!g_layer_started) {
        // Two threads at once may start it twice; the system allows that and counts it.
        WSADATA data;
        g_layer_started = WSAStartup(MAKEWORD(2, 2), &data) == 0;
        // In a host that has no sockets of its own it would be unloaded together with us. What it holds would
        // be lost, and whoever loads it next would find it broken. So it stays loaded.
        HMODULE pinned = nullptr;
        GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_PIN, "ws2_32.dll", &pinned);
    }
    return g_layer_started;
}

SocketConnection::SocketConnection() {
    LayerStarted();
}

SocketConnection::~SocketConnection() {
    Drop();
}

void SocketConnection::Drop() {
    if (socket_ != INVALID_SOCKET) {
        closesocket(socket_);
        socket_ = INVALID_SOCKET;
    }
}

bool SocketConnection::Connect(const char* hostname, uint16_t port, bool ssl, uint32_t max_wait_ms) {
    const uint32_t start = GetTickCount();
    Drop();
    record_.Start("Connect_Socket");
    // A long name is cut here so that the log line has room for the reason that follows.
    const char* const name = hostname != nullptr ? hostname : "";
    record_.AddEntry("hostname", std::string_view(name, strnlen(name, 200)));
    record_.AddEntry("port", port);
    record_.AddEntry("ssl", ssl);
    record_.AddEntry("maxWaitMs", max_wait_ms);
    if (name[0] == '\0') {
        record_.AddLine(hostname == nullptr ? "Cannot connect, hostname is NULL"
                                            : "Cannot connect, hostname is zero length");
        return false;
    }

    int error = 0;
    HostAddresses found = {};
    if (ParseIpv4(hostname, found.addresses[0])) {
        record_.AddLine("This is an IPV4 numeric address.");
        record_.AddLine("Hostname to IP address resolution not needed.");
        found.count = 1;
    } else if (error = ResolveHost(hostname, max_wait_ms, found); error == kLookupTimedOut) {
        record_.AddLine("DNS timed out.");
        return false;
    } else if (error != 0) {
        record_.AddLine("DNS lookup failed.");
        record_.AddSocketError(error);
        return false;
    }

    for (size_t i = 0; i < found.count; ++i) {
        error = ConnectTo(found.addresses[i], port, start, max_wait_ms);
        if (error == 0) {
            if (no_delay_) {
                record_.AddLine("Setting TCP_NODELAY");
                const BOOL on = TRUE;
                setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on);
            }
            record_.AddLine("Success.");
            return true;
        }
    }
    record_.AddLine("Connect function failed.");
    record_.AddSocketError(error);
    return false;
}

// Connects to one address, within the limit that all addresses of a name share. Returns 0 or the error.
int SocketConnection::ConnectTo(uint32_t address, uint16_t port, uint32_t start, uint32_t max_wait_ms) {
    socket_ = OpenSocket();
    if (socket_ == INVALID_SOCKET) {
        return WSAGetLastError();
    }
    AskOnceOnLoopback(socket_, address);
    u_long non_blocking = 1;
    sockaddr_in server = {};
    server.sin_family = AF_INET;
    server.sin_port = htons(port);
    server.sin_addr.s_addr = address;
    int error = 0;
    if (ioctlsocket(socket_, FIONBIO, &non_blocking) != 0 ||
        connect(socket_, reinterpret_cast<sockaddr*>(&server), sizeof server) != 0) {
        error = WSAGetLastError();
        if (error == WSAEWOULDBLOCK) {
            error = WaitForConnect(socket_, RemainingMs(start, max_wait_ms));
        }
    }
    if (error != 0) {
        Drop();
    }
    return error;
}

bool SocketConnection::SendBytes(const void* data, uint32_t byte_count) {
    record_.Start("SendBytes");
    record_.AddEntry("NumBytes", byte_count);
    if (socket_ == INVALID_SOCKET) {
        record_.AddLine("No connection is established");
        return false;
    }
    if (data == nullptr || byte_count == 0) {
        record_.AddLine("Size of data to send is zero.");
        return false;
    }
    bool sent = SendAll(static_cast<const char*>(data), byte_count);
    record_.AddLine(sent ? "Success." : "Failed.");
    return sent;
}

bool SocketConnection::SendAll(const char* data, uint32_t byte_count) {
    while (byte_count > 0) {
        int length = static_cast<int>(std::min<uint32_t>(byte_count, 1 << 20));
        int sent = send(socket_, data, length, 0);
        if (sent > 0) {
            data += sent;
            byte_count -= static_cast<uint32_t>(sent);
            continue;
        }
        // Waiting only after a send that could not proceed saves a system call for all others.
        int ready = 1;
        int error = WSAGetLastError();
        if (error == WSAEWOULDBLOCK) {
            ready = WaitUntilReady(socket_, true, max_send_idle_ms_);
            error = WSAGetLastError();
            if (ready == 1) {
                continue;
            }
        }
        if (ready == 0) {
            record_.AddLine("Socket send idle timeout");
        } else {
            record_.AddLine("Error sending on socket");
            record_.AddSocketError(error);
            record_.AddLine("Socket send failed");
        }
        return false;
    }
    return true;
}

bool SocketConnection::ReceiveStringUntilByte(int byte_value, ReceivedText& text) {
    record_.Start("ReceiveStringUntilByte");
    record_.AddEntry("byteValue", byte_value);
    const auto last = static_cast<char>(std::clamp(byte_value, 0, 255));
    if (socket_ == INVALID_SOCKET) {
        record_.AddLine("No connection is established");
        return false;
    }
    ReceivedText received;
    for (;;) {
        // The engine scans before it replies, so a `recv` without waiting first would find nothing.
        int count = WaitUntilReady(socket_, false, max_read_idle_ms_);
        if (count == 0) {
            record_.AddLine("WaitForData timed out.");
            return false;
        }
        char buffer[4096];
        if (count > 0) {
            count = recv(socket_, buffer, sizeof buffer, 0);
        }
        if (count == 0) {
            record_.AddLine("The peer has closed the socket (TCP) connection");
            return false;
        }
        if (count < 0) {
            int error = WSAGetLastError();
            if (error == WSAEWOULDBLOCK) {
                continue;
            }
            record_.AddLine("Failed to receive on the TCP socket");
            record_.AddSocketError(error);
            return false;
        }
        const char* const end = buffer + count;
        const char* const match = std::find(static_cast<const char*>(buffer), end, last);
        const auto length = static_cast<size_t>(match - buffer);
        if (received.View().size() + length > kMostReplyBytes) {
            record_.AddLine("The reply is too long");
            return false;
        }
        if (!received.Append({buffer, length})) {
            record_.AddLine("Not enough memory for the reply");
            return false;
        }
        if (match != end) {
            text.Swap(received);
            return true;
        }
    }
}

bool SocketConnection::Close(uint32_t max_wait_ms) {
    record_.Start("Close");
    record_.AddEntry("maxWaitMs", max_wait_ms);
    if (socket_ == INVALID_SOCKET) {
        record_.AddLine("No connection to close");
        return false;
    }
    shutdown(socket_, SD_BOTH);
    Drop();
    return true;
}

}  // namespace kesto
