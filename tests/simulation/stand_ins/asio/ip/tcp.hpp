// Sockets of the virtual network. As with the real ones no operation ends within the call that begins it.
#pragma once

#include <asio/buffer.hpp>
#include <asio/io_context.hpp>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace kesto::simulation {

// One connection between the bridge and something of the world's.
struct Line : std::enable_shared_from_this<Line> {
    Line() : net(Network::It()), delay(net.dice.Time(100us, 60ms)) {}
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;
    virtual ~Line() = default;

    // What the bridge's socket does.
    void Open() { ++net.open; }
    void Connect(Handler handler);
    void Read(std::span<uint8_t> bytes, Handler handler);
    void Write(std::vector<std::span<const uint8_t>> pieces, Handler handler);
    size_t ReadNow(std::span<uint8_t> bytes, asio::error_code& error);
    void Cancel();
    void Close();
    void Shutdown();
    void KeepAlive() { keeps_alive = true; }

    // What the other side does.
    void Connected(asio::error_code error);
    void Arrives(size_t size);
    void Ends();
    void Break(asio::error_code error);  // what has arrived may still be read, if the dice say so
    void Reset() { Break(asio::error::connection_reset); }
    void Forget();  // nothing goes either way any more
    void Flow();    // Takes may have changed

    bool IsOpen() const { return !closed && !broken; }

    // What the other side is told, and asked.
    virtual void Accept() {}  // the bridge's connect has come
    virtual void Content(uint64_t at, std::span<uint8_t> bytes) = 0;
    virtual void WasRead() = 0;
    virtual void Writes(std::span<const uint8_t> /*bytes*/) {}  // the beginning of what it begins to write
    virtual void Gives(std::span<const uint8_t> /*bytes*/) {}   // on their way
    virtual bool Takes() const { return true; }
    virtual void Took() = 0;             // more of them have come
    virtual void Closed(bool ends) = 0;  // the bridge has: nothing more comes; otherwise it is over at once

    static constexpr size_t kSystemHolds = 64 << 10;
    Network& net;
    Duration delay;
    double rate = 1e8;       // bytes a second
    uint64_t arrived = 0;    // from the other side
    uint64_t read = 0;       // of them
    uint64_t given = 0;      // to the system
    uint64_t sent = 0;       // of these, in writes that have ended
    uint64_t delivered = 0;  // to the other side

    struct Reading {
        std::span<uint8_t> bytes;
        Handler handler;
    };
    struct Writing {
        std::vector<std::span<const uint8_t>> pieces;
        size_t size;
        size_t done;
        Handler handler;
    };
    template <typename Operation>
    void Finish(std::optional<Operation>& operation, asio::error_code error, size_t size);
    void PumpReading();
    void PumpWriting();
    void Give(size_t size);
    void Deliver(size_t size);
    size_t TakeArrived(std::span<uint8_t> bytes);

    std::optional<Reading> connecting;
    std::optional<Reading> reading;
    std::optional<Writing> writing;
    bool flows = false;
    bool no_more = false;  // the other side sends nothing any more
    bool shut = false;     // nor does the bridge
    bool told_end = false;
    bool closed = false;
    bool forgotten = false;
    bool keeps_alive = false;
    asio::error_code broken;
};

template <typename Operation>
void Line::Finish(std::optional<Operation>& operation, asio::error_code error, size_t size) {
    if (operation) {
        Handler handler = std::move(operation->handler);
        operation.reset();
        net.Wake(std::move(handler), error, size);
    }
}

inline void Line::Connect(Handler handler) {
    connecting = {{}, std::move(handler)};
    Open();
    net.After(delay, [self = shared_from_this()] { self->Accept(); });
}

inline void Line::Connected(asio::error_code error) {
    broken = error;
    Finish(connecting, error, 0);
}

inline void Line::Read(std::span<uint8_t> bytes, Handler handler) {
    reading = {bytes, std::move(handler)};
    PumpReading();
}

inline size_t Line::TakeArrived(std::span<uint8_t> bytes) {
    size_t size = std::min<size_t>(bytes.size(), arrived - read);
    if (size > 1 && !broken && net.dice.OneIn(20)) {
        size = net.dice.Between(1, size);
    }
    Content(read, bytes.first(size));
    read += size;
    WasRead();
    return size;
}

inline void Line::PumpReading() {
    if (!reading || forgotten) {
        return;
    }
    if (broken) {
        Finish(reading, broken, 0);
    } else if (read != arrived) {
        Finish(reading, {}, TakeArrived(reading->bytes));
    } else if (no_more) {
        Finish(reading, asio::error::eof, 0);
    }
}

inline size_t Line::ReadNow(std::span<uint8_t> bytes, asio::error_code& error) {
    const Outside outside;
    error = read != arrived ? asio::error_code() : broken ? broken : asio::error::would_block;
    return error ? 0 : TakeArrived(bytes);
}

inline void Line::Write(std::vector<std::span<const uint8_t>> pieces, Handler handler) {
    size_t size = 0;
    for (const auto& piece : pieces) {
        size += piece.size();
    }
    Writes(pieces.front());
    writing = {std::move(pieces), size, 0, std::move(handler)};
    PumpWriting();
}

// The next bytes of the write under way leave the bridge's memory.
inline void Line::Give(size_t size) {
    size_t at = writing->done;
    writing->done += size;
    for (const auto& piece : writing->pieces) {
        const size_t part = at < piece.size() ? std::min(piece.size() - at, size) : 0;
        Gives(piece.subspan(std::min(at, piece.size()), part));
        given += part;
        size -= part;
        at -= std::min(at, piece.size());
    }
}

inline void Line::PumpWriting() {
    if (writing && broken) {
        Finish(writing, broken, 0);
    } else if (writing && net.system_takes && given - delivered < kSystemHolds) {
        Give(std::min(writing->size, kSystemHolds - static_cast<size_t>(given - delivered)));
        sent = given;
        Finish(writing, {}, writing->done);
    }
    Flow();
}

inline void Line::Flow() {
    const uint64_t waiting = net.system_takes || !writing ? 0 : writing->size - writing->done;
    const uint64_t size = std::min<uint64_t>(given - delivered + waiting, kSystemHolds);
    if (flows || broken || forgotten || !Takes()) {
        return;
    }
    if (size != 0) {
        flows = true;
        const auto takes = std::chrono::duration_cast<Duration>(
            std::chrono::duration<double>(static_cast<double>(size) / rate));
        net.After(delay + takes, [self = shared_from_this(), size] { self->Deliver(size); });
    } else if ((shut || closed) && !std::exchange(told_end, true)) {
        Closed(true);
    }
}

inline void Line::Deliver(size_t size) {
    flows = false;
    if (broken || forgotten || !Takes()) {
        return;
    }
    if (!net.system_takes && writing) {
        Give(std::min(size, writing->size - writing->done));
    }
    delivered += std::min<uint64_t>(size, given - delivered);
    if (!net.system_takes && writing && writing->done == writing->size) {
        // A reply may be there before the bridge is told of it.
        const Writing whole = *std::exchange(writing, std::nullopt);
        const auto told = [self = shared_from_this(), handler = whole.handler](const auto& error,
                                                                               size_t all) {
            self->sent = self->closed ? self->sent : self->given;
            handler(error, all);
        };
        net.Wake(told, {}, whole.size, net.dice.OneIn(4) ? net.dice.Time(1us, 200ms) : 0s);
    }
    Took();
    PumpWriting();
}

inline void Line::Cancel() {
    const Outside outside;
    Finish(connecting, asio::error::operation_aborted, 0);
    Finish(reading, asio::error::operation_aborted, 0);
    Finish(writing, asio::error::operation_aborted, 0);
}

// Does not end a write, as under Wine.
inline void Line::Close() {
    Finish(connecting, asio::error::operation_aborted, 0);
    Finish(reading, asio::error::operation_aborted, 0);
    --net.open;
    closed = true;
    if (broken || forgotten) {
        return;
    }
    if (read != arrived) {  // what is not read resets the connection
        broken = asio::error::connection_reset;
        net.After(delay, [self = shared_from_this()] { self->Closed(false); });
    } else {
        net.After(delay, [self = shared_from_this()] { self->Flow(); });
    }
}

inline void Line::Shutdown() {
    const Outside outside;
    shut = true;
    net.After(delay, [self = shared_from_this()] { self->Flow(); });
}

inline void Line::Arrives(size_t size) {
    if (!broken && closed) {
        broken = asio::error::connection_reset;
        Closed(false);
    } else if (!broken) {
        arrived += size;
        PumpReading();
    }
}

inline void Line::Ends() {
    no_more = true;
    PumpReading();
}

inline void Line::Break(asio::error_code error) {
    if (broken || forgotten) {
        return;
    }
    broken = error;
    Finish(connecting, error, 0);
    PumpReading();
    PumpWriting();
}

inline void Line::Forget() {
    forgotten = true;
    if (keeps_alive) {
        net.After(net.dice.Time(10s, 20s), [self = shared_from_this()] {
            self->forgotten = false;
            self->Reset();
        });
    }
}

}  // namespace kesto::simulation

namespace asio::ip {

template <size_t kSize>
struct address_of {
    using bytes_type = std::array<unsigned char, kSize>;
    explicit address_of(const bytes_type& bytes) : bytes(bytes) {}
    bytes_type bytes;
};
using address_v4 = address_of<4>;
using address_v6 = address_of<16>;

class address {
 public:
    address(const address_v4& v4) : bytes_(v4.bytes.begin(), v4.bytes.end()) {}
    address(const address_v6& v6) : bytes_(v6.bytes.begin(), v6.bytes.end()) {}
    std::string to_string() const {
        std::string text;
        for (const unsigned char byte : bytes_) {
            text += (text.empty() ? "" : ".") + std::to_string(byte);
        }
        return text;
    }

 private:
    std::vector<unsigned char> bytes_;
};

class tcp {
 public:
    class endpoint {
     public:
        endpoint(const ip::address& address, unsigned short port) : address_(address), port_(port) {}
        const ip::address& address() const { return address_; }
        unsigned short port() const { return port_; }

     private:
        ip::address address_;
        unsigned short port_;
    };

    struct no_delay {
        explicit no_delay(bool /*on*/) {}
    };

    class socket {
     public:
        enum shutdown_type { shutdown_send };

        explicit socket(io_context& /*io*/) {}
        explicit socket(kesto::simulation::LinePtr line) : line_(std::move(line)) { line_->Open(); }
        socket(socket&&) = default;
        ~socket() { Close(); }
        bool is_open() const { return line_ != nullptr; }
        uintptr_t native_handle() const { return reinterpret_cast<uintptr_t>(line_.get()); }

        void async_connect(const endpoint& where, kesto::simulation::Handler handler) {
            const kesto::simulation::Outside outside(true);
            const std::string port = ":" + std::to_string(where.port());
            line_ = kesto::simulation::Network::It().connect(where.address().to_string() + port);
            line_->Connect(std::move(handler));
        }
        void async_read_some(mutable_buffer bytes, kesto::simulation::Handler handler) {
            const kesto::simulation::Outside outside(true);
            line_->Read(bytes, std::move(handler));
        }
        template <typename Buffers>
        void async_write_some(const Buffers& buffers, kesto::simulation::Handler handler) {
            const kesto::simulation::Outside outside(true);
            if constexpr (std::is_same_v<Buffers, const_buffer>) {
                line_->Write({buffers}, std::move(handler));
            } else {
                line_->Write({buffers.begin(), buffers.end()}, std::move(handler));
            }
        }
        size_t read_some(mutable_buffer bytes, error_code& error) { return line_->ReadNow(bytes, error); }
        void cancel(error_code& error) { error = line_ ? (line_->Cancel(), 0) : 10038; }
        void close(error_code& /*error*/) { Close(); }
        void shutdown(shutdown_type /*what*/, error_code& /*error*/) { line_->Shutdown(); }
        void non_blocking(bool /*on*/, error_code& error) { error = line_ ? 0 : 10038; }
        void set_option(no_delay /*option*/, error_code& /*error*/) {}

     private:
        void Close() {
            const kesto::simulation::Outside outside;
            if (const auto line = std::exchange(line_, nullptr)) {
                line->Close();
            }
        }
        kesto::simulation::LinePtr line_;
    };
};

}  // namespace asio::ip
