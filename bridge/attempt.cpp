#include "bridge/attempt.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "base/clamd_words.h"
#include "bridge/connect.h"
#include "common/error_words.h"

namespace kesto::bridge {
namespace {

using asio::ip::tcp;
using namespace std::chrono_literals;

constexpr auto kConnectLimit = 3s;  // to one address

// An engine's replies are one short line; a longer one is not a reply.
constexpr size_t kLongestReply = 8 << 10;

// Pieces of the request that go out in one send.
constexpr size_t kPiecesAtOnce = 4;

tcp::endpoint Endpoint(const ServerAddress& address) {
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

// A server that replies early and closes resets the connection right behind its reply. The wait for data
// then ends with the reset, while the reply may still be there to be read.
size_t LastBytes(tcp::socket& socket, asio::mutable_buffer bytes) {
    asio::error_code error;
    socket.non_blocking(true, error);
    return error ? 0 : socket.read_some(bytes, error);
}

}  // namespace

Attempt::Attempt(Bridge& bridge, const ServerPtr& server, const std::shared_ptr<KeptStream>& request)
    : bridge_(bridge), server_(server), request_(request), socket_(bridge.io) {}

std::shared_ptr<Attempt> Attempt::Begin(Bridge& bridge, const ServerPtr& server,
                                        const std::shared_ptr<KeptStream>& request,
                                        std::function<void()> progressed,
                                        std::function<void(const AttemptEnd&)> ended) {
    auto attempt = std::make_shared<Attempt>(bridge, server, request);
    attempt->progressed_ = std::move(progressed);
    attempt->ended_ = std::move(ended);
    bridge.attempts.insert(attempt);
    Converse(attempt);
    return attempt;
}

Task Attempt::Converse(std::shared_ptr<Attempt> self) {
    tcp::socket& socket = self->socket_;
    const std::vector<ServerAddress> addresses = self->server_->addresses;
    const size_t first = self->server_->good;
    asio::error_code error = asio::error::host_not_found;
    for (size_t i = 0; i < addresses.size() && !self->connected_; ++i) {
        const size_t at = (first + i) % addresses.size();
        const tcp::endpoint endpoint = Endpoint(addresses[at]);
        self->timed_out_ = false;
        self->step_until_ = Clock::now() + kConnectLimit;
        const auto first_piece = self->request_->Piece(0);
        auto connect = Operation([&](auto handler) {
            Connect(socket, endpoint, asio::buffer(first_piece.data(), first_piece.size()),
                    std::move(handler));
        });
        const Outcome outcome = co_await connect;
        error = outcome.error;
        self->step_until_ = Time::max();
        if (self->over_) {
            co_return;
        }
        if (!error && !self->timed_out_) {
            self->connected_ = true;
            self->sent_ = outcome.size;
            if (self->server_->addresses == addresses) {
                self->server_->good = at;
            }
        } else {
            asio::error_code ignored;
            socket.close(ignored);
        }
    }
    if (!self->connected_) {
        // One that accepts and resets is there.
        if (error == asio::error::connection_reset || error == asio::error::connection_aborted) {
            self->End(AttemptEnd::kBroken, LostText(error));
        } else {
            self->End(AttemptEnd::kUnreached, self->timed_out_ ? "connect timed out" : Words(error));
        }
        co_return;
    }
    self->progressed_();
    self->More();
    while (!self->over_ && !self->replied_) {
        auto read = ReadSome(socket, asio::buffer(self->bytes_));
        auto [failed, size] = co_await read;
        if (self->over_) {
            break;
        }
        if (failed) {
            size = LastBytes(socket, asio::buffer(self->bytes_));
        }
        self->TakeReply({self->bytes_.data(), size}, failed);
    }
}

void Attempt::TakeReply(std::string_view bytes, const asio::error_code& error) {
    const size_t nul = bytes.find('\0');
    reply_.append(bytes.substr(0, nul));
    replied_ = nul != std::string_view::npos;
    if (!replied_) {
        if (error) {
            End(AttemptEnd::kBroken, LostText(error));
        } else if (reply_.size() > kLongestReply) {
            End(AttemptEnd::kBroken, "its reply is too long");
        }
        return;
    }
    // Clean is only what the server has got to its end. Of the last part it is not yet known.
    if (reply_ == kCleanReply && !HandedOver()) {
        if (!request_->Ended() || sent_ + sending_ != request_->Size()) {
            End(AttemptEnd::kBroken, "called the file clean before its end");
        }
        return;
    }
    End(AttemptEnd::kReplied, reply_);
}

void Attempt::More() {
    if (connected_ && !over_ && sending_ == 0 && !replied_) {
        Send(shared_from_this());
    }
}

Task Attempt::Send(std::shared_ptr<Attempt> self) {
    while (!self->over_) {
        std::array<asio::const_buffer, kPiecesAtOnce> pieces;
        self->sending_ = 0;
        for (asio::const_buffer& piece : pieces) {
            const auto next = self->request_->Piece(self->sent_ + self->sending_);
            piece = asio::buffer(next.data(), next.size());
            self->sending_ += next.size();
        }
        if (self->sending_ == 0) {
            co_return;
        }
        if (self->sent_ != 0 && !std::exchange(self->no_delay_, true)) {
            asio::error_code ignored;
            self->socket_.set_option(tcp::no_delay(true), ignored);
        }
        self->step_until_ = Clock::now() + std::chrono::seconds(self->bridge_.settings.idle);
        auto write = WriteSome(self->socket_, pieces);
        const auto [error, size] = co_await write;
        self->step_until_ = Time::max();
        self->sending_ = 0;
        if (self->over_) {
            co_return;
        }
        if (error) {
            // The reading learns why, and may yet find a reply. One that is there already was no true one.
            if (self->replied_) {
                self->End(AttemptEnd::kBroken, "called the file clean before its end");
            }
            self->reply_until_ = std::min(self->reply_until_, Clock::now() + kConnectLimit);
            co_return;
        }
        self->sent_ += size;
        if (self->replied_) {
            const bool all = self->HandedOver();
            self->End(all ? AttemptEnd::kReplied : AttemptEnd::kBroken,
                      all ? self->reply_ : "called the file clean before its end");
            co_return;
        }
        self->progressed_();
    }
}

void Attempt::Tick(Time now) {
    if (over_) {
        return;
    }
    if (!connected_ && now >= step_until_) {
        timed_out_ = true;
        asio::error_code ignored;
        socket_.close(ignored);
    } else if (now >= step_until_) {
        End(AttemptEnd::kSilent, "took no data for " + std::to_string(bridge_.settings.idle) + " s");
    } else if (now >= reply_until_) {
        End(AttemptEnd::kSilent, "gave no reply");
    }
}

void Attempt::End(AttemptEnd::Kind kind, const std::string& text) {
    if (over_) {
        return;
    }
    const auto ended = std::move(ended_);
    const auto self = shared_from_this();
    Close();
    ended({kind, text});
}

void Attempt::Cancel() {
    if (!over_) {
        const auto self = shared_from_this();
        Close();
    }
}

void Attempt::Close() {
    over_ = true;
    asio::error_code ignored;
    if (sending_ != 0) {
        socket_.cancel(ignored);  // Wine does not end a send for the close alone
    }
    socket_.close(ignored);
    bridge_.attempts.erase(shared_from_this());
}

}  // namespace kesto::bridge
