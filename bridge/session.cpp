#include "bridge/session.h"

#include <algorithm>
#include <array>
#include <asio/buffer.hpp>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/post.hpp>
#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>
#include <asio/write.hpp>
#include <deque>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bridge/bridge_log.h"
#include "bridge/exchange.h"
#include "bridge/framing.h"
#include "bridge/reply.h"

namespace kesto {
namespace {

using asio::redirect_error;
using asio::use_awaitable;
using asio::ip::tcp;
using namespace std::chrono_literals;

constexpr size_t kBufferSize = 128 * 1024;

// The client waits 20 s for its reply: before that all servers must have had their chance.
constexpr Clock::duration kConnectLimit = 3s;       // one server
constexpr Clock::duration kAllConnectsLimit = 10s;  // all of them for one client
constexpr Clock::duration kShortAnswerLimit = 5s;   // one server's reply to zPING or zVERSION

// After the reply the client has this long to close first, so that what it still had under way does not
// turn our close into a reset that takes the reply with it.
constexpr Clock::duration kLingering = 2s;

struct Session {
    Session(Bridge& its_bridge, tcp::socket its_client)
        : bridge(its_bridge), client(std::move(its_client)), watchdog(bridge.io), wake(bridge.io) {
        wake.expires_at(Clock::time_point::max());
        asio::error_code unknown;
        const tcp::endpoint from = client.remote_endpoint(unknown);
        peer = from.address().to_string() + ":" + std::to_string(from.port());
    }

    Bridge& bridge;
    tcp::socket client;
    std::string peer;
    asio::steady_timer watchdog;
    Clock::time_point deadline;
    asio::steady_timer wake;             // cancelled when the exchange ends
    std::shared_ptr<Exchange> exchange;  // the one in use, if any
    std::array<uint8_t, 64> opening;     // the command and what came with it
    size_t opening_size = 0;
    bool scanning = false;
    bool over = false;
};

using SessionPtr = std::shared_ptr<Session>;

// The connection was ended for a reason that is worth a line in the log.
struct Ended : std::runtime_error {
    using runtime_error::runtime_error;
};
struct Refused : Ended {
    using Ended::Ended;
};

void CloseAll(Session& session) {
    asio::error_code ignored;
    session.client.close(ignored);
    if (session.exchange) {
        EndExchange(*session.exchange);
    }
    session.wake.cancel();
}

// One timer a session that is set again only when it expires, so that progress costs no timer work.
asio::awaitable<void> WatchDeadline(SessionPtr session) {
    while (!session->over) {
        if (Clock::now() >= session->deadline) {
            CloseAll(*session);
            co_return;
        }
        session->watchdog.expires_at(session->deadline);
        asio::error_code moved;
        co_await session->watchdog.async_wait(redirect_error(use_awaitable, moved));
    }
}

void Allow(Session& session, Clock::duration time) {
    const Clock::time_point deadline = Clock::now() + time;
    if (deadline < std::exchange(session.deadline, deadline)) {
        session.watchdog.cancel();
    }
}

void AllowIdle(Session& session) {
    Allow(session, session.bridge.settings.idle);
}

bool TimeIsUp(const Session& session) {
    return Clock::now() >= session.deadline;
}

void ServerFailed(const Exchange& exchange) {
    const auto pause = NoteFailure(exchange.server, Clock::now());
    if (pause != 0s) {
        LogBridge("upstream " + AddressText(exchange.server) + " down - " + exchange.failure +
                  "; tried again in " + std::to_string(pause.count()) + " s");
    }
}

void ServerReplied(const Exchange& exchange) {
    if (NoteReply(exchange.server)) {
        LogBridge("upstream " + AddressText(exchange.server) + " up");
    }
}

// Connects to the next server of the list that accepts, taking those tried off it. False when none did.
asio::awaitable<bool> ConnectNext(SessionPtr session, std::deque<Upstream*>& order) {
    const Clock::time_point until = Clock::now() + kAllConnectsLimit;
    Allow(*session, kAllConnectsLimit + session->bridge.settings.idle);
    while (!order.empty() && Clock::now() < until && !session->over) {
        Upstream& server = *order.front();
        order.pop_front();
        TakeTurn(session->bridge.settings.upstreams, server);
        auto exchange = std::make_shared<Exchange>(session->bridge.io, server);
        exchange->on_end = [session] {
            session->wake.cancel();
            // A client that is still sending is not to be waited for when the exchange has failed.
            if (!session->exchange->whole && session->client.is_open()) {
                asio::error_code ignored;
                session->client.cancel(ignored);
            }
        };
        server.being_tried = true;
        const bool connected =
            co_await BeginExchange(exchange, std::min(kConnectLimit, until - Clock::now()));
        server.being_tried = false;
        if (connected) {
            session->exchange = exchange;
            AllowIdle(*session);
            co_return true;
        }
        ServerFailed(*exchange);
    }
    co_return false;
}

std::deque<Upstream*> Order(Bridge& bridge) {
    const auto order = TryingOrder(bridge.settings.upstreams, Clock::now());
    return {order.begin(), order.end()};
}

asio::awaitable<void> WaitForExchange(SessionPtr session) {
    while (!session->exchange->ended) {
        asio::error_code woken;
        co_await session->wake.async_wait(redirect_error(use_awaitable, woken));
    }
}

asio::awaitable<void> Reply(SessionPtr session, const std::string& text) {
    AllowIdle(*session);
    asio::error_code error;
    co_await asio::async_write(session->client, asio::buffer(text.c_str(), text.size() + 1),
                               redirect_error(use_awaitable, error));
    if (error) {
        co_return;
    }
    session->client.shutdown(tcp::socket::shutdown_send, error);
    Allow(*session, kLingering);
    while (!error) {
        co_await session->client.async_read_some(asio::buffer(session->opening),
                                                 redirect_error(use_awaitable, error));
    }
}

// A server that has neither replied nor failed can only have been given up for its silence.
std::string WhyNoReply(Session& session) {
    if (TimeIsUp(session)) {
        session.exchange->failure = "idle for " + std::to_string(session.bridge.settings.idle.count()) + " s";
    }
    ServerFailed(*session.exchange);
    return "upstream " + AddressText(session.exchange->server) + " " + session.exchange->failure;
}

// zVERSION or zPING: nothing of the client's is at stake, so every server may be asked in turn.
asio::awaitable<void> RelayQuery(SessionPtr session, const std::string& command) {
    std::deque<Upstream*> order = Order(session->bridge);
    while (co_await ConnectNext(session, order)) {
        asio::error_code failed;
        co_await asio::async_write(session->exchange->socket, asio::buffer(command),
                                   redirect_error(use_awaitable, failed));
        Allow(*session, kShortAnswerLimit + session->bridge.settings.idle);
        LimitExchange(session->exchange, kShortAnswerLimit, "gave no reply");
        co_await WaitForExchange(session);
        if (session->exchange->whole) {
            ServerReplied(*session->exchange);
            co_await Reply(session, session->exchange->reply);
            co_return;
        }
        ServerFailed(*session->exchange);
    }
    throw Ended("no upstream server answered");
}

// Sends the client's stream on to the server while it comes. Returns when the exchange holds a whole reply
// and the client has sent all of its stream. True when the server had got all of it, too.
asio::awaitable<bool> RelayStream(SessionPtr session, const std::string& command) {
    Bridge& bridge = session->bridge;
    std::deque<Upstream*> order = Order(bridge);
    const auto connect_next = [&order](SessionPtr to) -> asio::awaitable<void> {
        if (!co_await ConnectNext(to, order)) {
            throw Ended("no upstream server could be reached");
        }
    };
    const auto failed = [&session] { return session->exchange->ended && !session->exchange->whole; };
    co_await connect_next(session);

    // What waits to be sent on. The command goes with the first data, so that until then another server
    // can take its place.
    std::vector<uint8_t> buffer(kBufferSize);
    size_t waiting = command.copy(reinterpret_cast<char*>(buffer.data()), command.size());
    size_t fresh = session->opening_size;
    std::copy_n(session->opening.begin(), fresh, buffer.begin() + static_cast<ptrdiff_t>(waiting));

    ChunkStream stream;
    bool begun = false;
    bool all_sent = false;
    while (!stream.ended) {
        if (fresh == 0) {
            AllowIdle(*session);
            asio::error_code error;
            fresh = co_await session->client.async_read_some(
                asio::buffer(buffer.data() + waiting, buffer.size() - waiting),
                redirect_error(use_awaitable, error));
            if (TimeIsUp(*session)) {
                throw Refused("sent nothing for " + std::to_string(bridge.settings.idle.count()) + " s");
            }
            if (error && !failed()) {
                throw Refused("left in the middle of its data");
            }
        }
        const uint64_t data_before = stream.data_bytes;
        const auto [used, valid] =
            FollowChunks(stream, buffer.data() + waiting, std::exchange(fresh, 0), bridge.settings.decrypt);
        if (!valid) {
            throw Refused("sent a chunk length above " + std::to_string(kMaxChunkSize));
        }
        bridge.metrics.bytes += stream.data_bytes - data_before;
        waiting += used;

        if (!begun) {
            // Lets in what is already known of the server.
            co_await asio::post(bridge.io, use_awaitable);
            while (failed()) {
                ServerFailed(*session->exchange);
                co_await connect_next(session);
            }
            if (stream.data_bytes == 0 && !stream.ended) {
                continue;
            }
        }
        if (!session->exchange->ended) {
            begun = true;
            all_sent = stream.ended;
            AllowIdle(*session);
            asio::error_code error;
            co_await asio::async_write(session->exchange->socket, asio::buffer(buffer.data(), waiting),
                                       redirect_error(use_awaitable, error));
            if (error) {
                co_await WaitForExchange(session);
            }
        }
        if (failed()) {
            throw Ended(WhyNoReply(*session));
        }
        waiting = 0;
    }
    AllowIdle(*session);
    co_await WaitForExchange(session);
    if (failed()) {
        throw Ended(WhyNoReply(*session));
    }
    co_return all_sent;
}

asio::awaitable<void> RelayScan(SessionPtr session, const std::string& command) {
    Metrics& metrics = session->bridge.metrics;
    ++metrics.scans;
    session->scanning = true;
    const bool saw_all = co_await RelayStream(session, command);
    const Exchange& exchange = *session->exchange;
    const ScanAnswer answer = ReadScanAnswer(exchange.reply);
    const std::string server = "upstream " + AddressText(exchange.server);
    if (answer == ScanAnswer::kClean && !saw_all) {
        throw Ended(server + " called the file clean before its end");
    }
    ServerReplied(exchange);
    session->scanning = false;
    if (answer == ScanAnswer::kNoVerdict) {
        LogBridge(server + " gave no verdict to " + session->peer + " - " + exchange.reply);
    }
    ++(answer == ScanAnswer::kClean      ? metrics.clean
       : answer == ScanAnswer::kInfected ? metrics.infected
                                         : metrics.no_verdict);
    co_await Reply(session, ReplyForClient(exchange.reply));
}

// Reads one command and leaves in `opening` what came behind it. Incomplete when the client left, or the
// bridge is to end, before there was one.
asio::awaitable<Command> ReadCommand(SessionPtr session, std::string& text) {
    while (true) {
        const auto [command, size] = FindCommand(session->opening.data(), session->opening_size);
        if (command != Command::kIncomplete) {
            const auto rest = session->opening.begin() + static_cast<ptrdiff_t>(size);
            text.assign(session->opening.begin(), rest);
            std::copy(rest, session->opening.begin() + static_cast<ptrdiff_t>(session->opening_size),
                      session->opening.begin());
            session->opening_size -= size;
            co_return command;
        }
        if (session->bridge.stopping) {
            co_return Command::kIncomplete;
        }
        session->bridge.awaiting_command.insert(&session->client);
        asio::error_code error;
        session->opening_size += co_await session->client.async_read_some(
            asio::buffer(session->opening) + session->opening_size, redirect_error(use_awaitable, error));
        session->bridge.awaiting_command.erase(&session->client);
        if (TimeIsUp(*session)) {
            throw Refused("sent no command in time");
        }
        if (error) {
            co_return Command::kIncomplete;
        }
    }
}

asio::awaitable<void> Serve(SessionPtr session) {
    std::string text;
    switch (co_await ReadCommand(session, text)) {
        case Command::kScan:
            co_await RelayScan(session, text);
            break;
        case Command::kVersion:
        case Command::kPing:
            co_await RelayQuery(session, text);
            break;
        case Command::kStats:
            co_await Reply(session, MetricsText(session->bridge.metrics, session->bridge.settings.upstreams));
            break;
        case Command::kUnknown:
            throw Refused(
                "sent an unknown command: " +
                std::string(session->opening.begin(),
                            session->opening.begin() + static_cast<ptrdiff_t>(session->opening_size)));
        case Command::kIncomplete:
            break;
    }
    co_return;
}

}  // namespace

asio::awaitable<void> ServeClient(Bridge& bridge, tcp::socket client) {
    const auto session = std::make_shared<Session>(bridge, std::move(client));
    ++bridge.metrics.connections;
    AllowIdle(*session);
    asio::co_spawn(bridge.io, WatchDeadline(session), asio::detached);
    try {
        co_await Serve(session);
    } catch (const Refused& reason) {
        ++bridge.metrics.refused;
        LogBridge("refused " + session->peer + " - " + reason.what());
    } catch (const std::exception& reason) {
        LogBridge("no reply to " + session->peer + " - " + reason.what());
    }
    if (session->scanning) {
        ++bridge.metrics.no_reply;
    }
    session->over = true;
    session->watchdog.cancel();
    CloseAll(*session);
    --bridge.metrics.connections;
}

}  // namespace kesto
