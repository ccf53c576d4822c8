// The TCP client connection to an engine server.
#pragma once

#include <winsock2.h>

#include <cstdint>
#include <string_view>

#include "plugin/net/operation_record.h"
#include "plugin/net/received_text.h"

namespace kesto {

// A conversation with one server, for one thread. Every operation blocks until it ends or its time limit has
// passed, returns whether it succeeded, never throws, and begins a new record, which LastErrorText returns.
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
    // connecting together. `ssl` appears in the record only: the connection is never encrypted.
    bool Connect(const char* hostname, uint16_t port, bool ssl, uint32_t max_wait_ms);

    // Sends all bytes, and waits for kIdleLimitMs at most for the network to accept one. With nothing to send
    // it fails.
    bool SendBytes(const void* data, uint32_t byte_count);

    // Reads until a byte of this value (brought into 0..255) has arrived and stores the bytes before it
    // in `text`, which stays as it is on failure. What arrives after that byte may be lost. Fails when a
    // reply is longer than kMostReplyBytes, or when no byte arrives for kIdleLimitMs.
    bool ReceiveStringUntilByte(int byte_value, ReceivedText& text);

    // `max_wait_ms` would matter to encrypted connections only. There are none, so this never waits.
    bool Close(uint32_t max_wait_ms);

    // The record of the latest operation: see OperationRecord::Text.
    const char* LastErrorText() { return record_.Text(); }

    // An engine that sends without end must not exhaust the host's memory.
    static constexpr size_t kMostReplyBytes = 1024 * 1024;

 private:
    int ConnectTo(uint32_t address, uint16_t port, uint32_t start, uint32_t max_wait_ms);
    bool SendAll(const char* data, uint32_t byte_count);
    void Drop();

    SOCKET socket_ = INVALID_SOCKET;
    bool no_delay_ = false;
    OperationRecord record_;
};

}  // namespace kesto
