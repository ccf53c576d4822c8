#include "bridge/attempt.h"

#include <algorithm>
#include <utility>

#include "common/error_words.h"
#include "common/tcp_options.h"

namespace kesto::bridge {
namespace {

using asio::ip::tcp;
using namespace std::chrono_literals;

constexpr auto kConnectLimit = 3s;  // to one address

// How long to wait after a failed send for a reply that may have come before.
constexpr auto kLastWords = 3s;

// An engine's replies are one short line; a longer one is not a reply.
constexpr size_t kLongestReply = 8 << 10;

// Pieces of the stream that go out in one send.
constexpr size_t kPiecesAtOnce = 4;

tcp::endpoint TcpEndpoint(const ServerAddress& address) {
    if (address.kind == HostKind::kIpv4) {
        asio::ip::address_v4::bytes_type bytes;
        std::copy_n(address.bytes.begin(), bytes.size(), bytes.begin());
        return {asio::ip::address_v4(bytes), address.port};
    }
    return {asio::ip::address_v6(address.bytes), address.port};
}

std::string Words(const asio::error_code& error) {
    return error == asio::error::eof ? "connection closed"
                                     : ErrorWords(static_cast<unsigned long>(error.value()));
}

std::string LostText(const asio::error_code& error) {
    return "lost before its reply: " + Words(error);
}

// A server that replies early and closes resets the connection right after its reply. The wait for data then
// ends with the reset, while the reply may still be there to be read.
size_t LastBytes(tcp::socket& socket, asio::mutable_buffer bytes) {
    asio::error_code error;
    socket.non_blocking(true, error);
    return error ? 0 : socket.read_some(bytes, error);
}

}  // namespace

Attempt::Attempt(Bridge& bridge, Sleeper& owner, ServerPtr server, std::shared_ptr<KeptStream> stream,
                 Time reply_until)
    : idle_(bridge.settings.idle),
      owner_(owner),
      server_(std::move(server)),
      stream_(std::move(stream)),
      socket_(bridge.io),
      reply_until_(reply_until) {}

void Attempt::Start() {
    try {
        Converse(shared_from_this());
    } catch (const std::exception&) {
        Failed();
    }
}

void Attempt::More() {
    if (state_ == State::kTalking && sending_ == 0) {
        Send(shared_from_this());
    }
}

Task<Attempt> Attempt::Converse(std::shared_ptr<Attempt> self) {
    tcp::socket& socket = self->socket_;
    Server::Lookup& lookup = self->server_->lookup;
    const std::vector<ServerAddress> addresses = lookup.addresses;
    const size_t first = lookup.good;
    AttemptEnd failure{AttemptEnd::Kind::kUnreached, ""};
    for (size_t i = 0; i < addresses.size() && self->state_ == State::kConnecting; ++i) {
        const size_t at = (first + i) % addresses.size();
        self->step_until_ = Clock::now() + kConnectLimit;
        auto connect = Operation(
            [&](auto handler) { socket.async_connect(TcpEndpoint(addresses[at]), std::move(handler)); });
        const asio::error_code error = (co_await connect).error;
        self->step_until_ = Time::max();
        if (self->state_ == State::kOver) {
            co_return;
        }
        if (!socket.is_open()) {
            failure = {AttemptEnd::Kind::kUnreached, "connect timed out"};
        } else if (!error) {
            self->state_ = State::kTalking;
            if (lookup.addresses == addresses) {
                lookup.good = at;
            }
        } else if (error == asio::error::connection_reset || error == asio::error::connection_aborted) {
            failure = {AttemptEnd::Kind::kBroken, LostText(error)};  // it is there, and resets
        } else {
            failure = {AttemptEnd::Kind::kUnreached, Words(error)};
        }
        if (self->state_ == State::kConnecting) {
            asio::error_code ignored;
            socket.close(ignored);
        }
    }
    if (self->state_ == State::kConnecting) {
        self->Finish(std::move(failure));
        co_return;
    }
    asio::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    KeepAlive(socket.native_handle());
    self->More();
    while (self->state_ == State::kTalking) {
        auto read = ReadSome(socket, asio::buffer(self->bytes_));
        const auto [error, size] = co_await read;
        self->TakeReply(error, size);
    }
}

void Attempt::TakeReply(const asio::error_code& error, size_t size) {
    if (state_ == State::kOver) {
        return;
    }
    const std::string_view bytes(bytes_.data(), error ? LastBytes(socket_, asio::buffer(bytes_)) : size);
    const size_t nul = bytes.find('\0');
    reply_.append(bytes.substr(0, nul));
    if (nul == std::string_view::npos) {
        if (error) {
            Finish({AttemptEnd::Kind::kBroken, LostText(error)});
        } else if (reply_.size() > kLongestReply) {
            Finish({AttemptEnd::Kind::kBroken, "its reply is too long"});
        }
        return;
    }
    AttemptEnd end = EndOfReply(std::move(reply_));
    // A file is clean only if the server has received all of it, which is not yet known of the last part.
    if (end.kind != AttemptEnd::Kind::kClean || HandedOver()) {
        Finish(std::move(end));
    } else if (stream_->Ended() && sent_ + sending_ == stream_->Size()) {
        reply_ = std::move(end.text);
        state_ = State::kReplyWaitsForSend;
    } else {
        CalledCleanTooEarly();
    }
}

Task<Attempt> Attempt::Send(std::shared_ptr<Attempt> self) {
    while (self->state_ == State::kTalking) {
        std::array<asio::const_buffer, kPiecesAtOnce> pieces;
        uint64_t size_of_all = 0;
        for (asio::const_buffer& piece : pieces) {
            const auto next = self->stream_->Piece(self->sent_ + size_of_all);
            piece = asio::buffer(next.data(), next.size());
            size_of_all += next.size();
        }
        if (size_of_all == 0) {
            co_return;
        }
        self->step_until_ = Clock::now() + self->idle_;
        self->sending_ = size_of_all;
        auto write = WriteSome(self->socket_, pieces);
        const auto [error, size] = co_await write;
        self->step_until_ = Time::max();
        self->sending_ = 0;
        if (error && self->state_ == State::kTalking) {
            // Reading will tell why, and may still find a reply.
            self->reply_until_ = std::min(self->reply_until_, Clock::now() + kLastWords);
            co_return;
        }
        self->sent_ += size;
        self->moved_ = Clock::now();
        if (self->state_ == State::kTalking) {
            self->owner_.Wake();
        } else if (!error && self->HandedOver()) {
            self->Finish(EndOfReply(std::move(self->reply_)));
        } else {
            self->CalledCleanTooEarly();
        }
    }
}

const AttemptEnd* Attempt::End(Time now) {
    const Time takes_data_by = std::max(step_until_, server_->health.worked + idle_);  // it may be busy
    if (state_ == State::kConnecting && now >= step_until_) {
        asio::error_code ignored;
        socket_.close(ignored);  // which ends the connect
    } else if (now >= takes_data_by) {
        Finish({AttemptEnd::Kind::kSilent, "took no data for " + std::to_string(idle_.count()) + " s"});
    } else if (now >= reply_until_) {
        Finish({AttemptEnd::Kind::kSilent, "gave no reply"});
    }
    if (failure_) {
        std::rethrow_exception(failure_);
    }
    return end_ ? &*end_ : nullptr;
}

void Attempt::Finish(AttemptEnd end) {
    if (state_ != State::kOver) {
        end_ = std::move(end);
        Cancel();
        owner_.Wake();
    }
}

void Attempt::Failed() {
    if (state_ != State::kOver) {
        failure_ = std::current_exception();
        Cancel();
        owner_.Wake();
    }
}

void Attempt::Cancel() {
    if (std::exchange(state_, State::kOver) != State::kOver) {
        asio::error_code ignored;
        if (sending_ != 0) {
            socket_.cancel(ignored);  // under Wine, closing alone does not end a send
        }
        socket_.close(ignored);
    }
}

}  // namespace kesto::bridge
