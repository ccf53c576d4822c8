// The TCP client connection to an engine server.
#pragma once

#include <winsock2.h>

#include <cstdint>
#include <string_view>

#include "base/clamd_words.h"
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
    uint32_t max_read_idle_ms_ = kIdleLimitMs;
    uint32_t max_send_idle_ms_ = kIdleLimitMs;
    OperationRecord record_;
};

}  // namespace kesto
