#include "bridge/exchange.h"

#include <array>
#include <asio/buffer.hpp>
#include <asio/co_spawn.hpp>
#include <asio/connect.hpp>
#include <asio/detached.hpp>
#include <asio/redirect_error.hpp>
#include <asio/use_awaitable.hpp>
#include <utility>
#include <vector>

#include "bridge/error_text.h"

namespace kesto {
namespace {

using asio::redirect_error;
using asio::use_awaitable;
using asio::ip::tcp;

// An engine's replies are one short line; a longer one is not a reply.
constexpr size_t kLongestReply = 8192;

// A name is looked up aside, because a lookup that hangs cannot be called back: the connection then goes
// on without it.
struct Lookup {
    explicit Lookup(asio::io_context& io) : resolver(io), done(io) {}
    tcp::resolver resolver;
    asio::steady_timer done;
    std::vector<tcp::endpoint> endpoints;
    asio::error_code error = asio::error::timed_out;
};

asio::awaitable<std::shared_ptr<Lookup>> LookUp(const Upstream& server, asio::io_context& io,
                                                Clock::duration limit) {
    auto lookup = std::make_shared<Lookup>(io);
    asio::error_code not_numeric;
    const auto address = asio::ip::make_address_v4(server.host, not_numeric);
    if (!not_numeric) {
        lookup->endpoints.emplace_back(address, server.port);
        lookup->error.clear();
        co_return lookup;
    }
    lookup->done.expires_after(limit);
    lookup->resolver.async_resolve(
        tcp::v4(), server.host, std::to_string(server.port),
        [lookup](const asio::error_code& error, const tcp::resolver::results_type& results) {
            lookup->error = error;
            lookup->endpoints.assign(results.begin(), results.end());
            lookup->done.cancel();
        });
    asio::error_code woken;
    co_await lookup->done.async_wait(redirect_error(use_awaitable, woken));
    co_return lookup;
}

// A server that replies early and closes resets the connection right behind its reply. The wait for data
// then ends with the reset, while the reply may still be there to be read.
size_t LastBytes(tcp::socket& socket, std::array<char, 1024>& bytes) {
    asio::error_code error;
    socket.non_blocking(true, error);
    return error ? 0 : socket.read_some(asio::buffer(bytes), error);
}

asio::awaitable<void> ReadReply(std::shared_ptr<Exchange> exchange) {
    std::array<char, 1024> bytes;
    while (!exchange->whole && exchange->failure.empty()) {
        asio::error_code error;
        size_t size = co_await exchange->socket.async_read_some(asio::buffer(bytes),
                                                                redirect_error(use_awaitable, error));
        if (error) {
            size = LastBytes(exchange->socket, bytes);
        }
        const std::string_view piece(bytes.data(), size);
        const size_t nul = piece.find('\0');
        exchange->reply.append(piece.substr(0, nul));
        exchange->whole = nul != std::string_view::npos;
        if (!exchange->whole && exchange->failure.empty()) {
            if (error) {
                exchange->failure = "lost before its reply: " + ErrorText(error);
            } else if (exchange->reply.size() > kLongestReply) {
                exchange->failure = "its reply is too long";
            }
        }
    }
    exchange->ended = true;
    EndExchange(*exchange);
    std::exchange(exchange->on_end, nullptr)();
}

}  // namespace

void LimitExchange(const std::shared_ptr<Exchange>& exchange, Clock::duration limit, std::string failure) {
    exchange->limit.expires_after(limit);
    exchange->limit.async_wait([exchange, failure = std::move(failure)](const asio::error_code& lifted) {
        if (!lifted) {
            exchange->failure = failure;
            EndExchange(*exchange);
        }
    });
}

void LiftLimit(Exchange& exchange) {
    exchange.limit.cancel();
}

asio::awaitable<bool> BeginExchange(std::shared_ptr<Exchange> exchange, Clock::duration limit) {
    const Clock::time_point until = Clock::now() + limit;
    auto& io = static_cast<asio::io_context&>(exchange->socket.get_executor().context());
    const auto lookup = co_await LookUp(exchange->server, io, limit);
    asio::error_code error = lookup->error;
    if (!error) {
        LimitExchange(exchange, until - Clock::now(), "connect timed out");
        co_await asio::async_connect(exchange->socket, lookup->endpoints,
                                     redirect_error(use_awaitable, error));
        LiftLimit(*exchange);
    }
    if (error || !exchange->failure.empty()) {
        if (exchange->failure.empty()) {
            exchange->failure = ErrorText(error);
        }
        EndExchange(*exchange);
        co_return false;
    }
    asio::error_code ignored;
    exchange->socket.set_option(tcp::no_delay(true), ignored);
    asio::co_spawn(io, ReadReply(exchange), asio::detached);
    co_return true;
}

void EndExchange(Exchange& exchange) {
    exchange.limit.cancel();
    asio::error_code ignored;
    exchange.socket.close(ignored);
}

}  // namespace kesto
