// The TCP client connection to an engine server.
#pragma once

#include <winsock2.h>

#include <cstdint>
#include <string_view>

#include "plugin/net/received_text.h"

namespace kesto {

// A conversation with one server, for one thread. Every operation blocks until it ends or its time limit has
// passed, returns whether it succeeded, never throws, and begins a new account, which LastErrorText returns.
// After a failure the object can be connected again.
class SocketConnection {
 public:
    // Starts the socket layer of the process if it is not started yet.
    SocketConnection();
    // Closes a connection that is still open.
    ~SocketConnection();
    SocketConnection(const SocketConnection&) = delete;
    SocketConnection& operator=(const SocketConnection&) = delete;

    // False when the system's socket layer cannot be started; every Connect then fails.
    static bool LayerStarted();

    // Whether connections made from now on send small pieces at once, in a packet for each.
    void NoDelay(bool on) { no_delay_ = on; }

    // Connects to a dotted IPv4 address or a host name; `max_wait_ms` limits looking the name up and
    // connecting together. `ssl` appears in the account only: the connection is never encrypted.
    bool Connect(const char* hostname, uint16_t port, bool ssl, uint32_t max_wait_ms);

    // The longest wait for a byte to arrive, or for the network to accept one, in milliseconds.
    void MaxReadIdleMs(uint32_t limit) { max_read_idle_ms_ = limit; }
    void MaxSendIdleMs(uint32_t limit) { max_send_idle_ms_ = limit; }

    // Sends all bytes. With nothing to send it fails.
    bool SendBytes(const void* data, uint32_t byte_count);

    // Reads until a byte of this value (brought into 0..255) has arrived and stores the bytes before it
    // in `text`, which stays as it is on failure. What arrives after that byte may be lost. Fails when a
    // reply is longer than kMostReplyBytes.
    bool ReceiveStringUntilByte(int byte_value, ReceivedText& text);

    // `max_wait_ms` would matter to encrypted connections only. There are none, so this never waits.
    bool Close(uint32_t max_wait_ms);

    // The account of the latest operation, in lines separated by "\n". The object owns it, and it is valid
    // until this has been called ten more times.
    const char* LastErrorText();

    // An engine that sends without end must not exhaust the host's memory.
    static constexpr size_t kMostReplyBytes = 1024 * 1024;

 private:
    static constexpr size_t kAccountSize = 1000;
    static constexpr int kRingSlots = 10;

    void StartAccount(std::string_view operation);
    void AddText(std::string_view text);
    void AddLine(std::string_view line);
    void AddEntry(std::string_view name, std::string_view value);
    void AddEntry(std::string_view name, int64_t value);
    void AddSocketError(int error);
    int ConnectTo(uint32_t address, uint16_t port, uint32_t start, uint32_t max_wait_ms);
    bool SendAll(const char* data, uint32_t byte_count);
    void Drop();

    SOCKET socket_ = INVALID_SOCKET;
    bool no_delay_ = false;
    uint32_t max_read_idle_ms_ = 20000;
    uint32_t max_send_idle_ms_ = 20000;
    char account_[kAccountSize] = {};
    size_t account_length_ = 0;
    // Allocated when the first text is asked for, since the object stands on the stack of the host's thread
    // and most scans ask for no text.
    char (*ring_)[kAccountSize] = nullptr;
    int ring_index_ = 0;
};

}  // namespace kesto
