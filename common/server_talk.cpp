#include "common/server_talk.h"

#include <winsock2.h>
#include <windows.h>
#include <mstcpip.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <asio/buffer.hpp>
#include <asio/co_spawn.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/post.hpp>
#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>
#include <cstdio>
#include <map>
#include <tuple>
#include <utility>
#include <vector>

#include "base/byte_shift.h"
#include "base/clamd_words.h"
#include "common/detached_thread.h"
#include "common/error_words.h"
#include "common/name_lookup.h"
#include "common/text.h"

namespace kesto {
namespace {

using asio::awaitable;
using asio::ip::tcp;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kConnectLimit(3000);        // for each address
constexpr milliseconds kPlugInConnectLimit(1000);  // of the plug-in, for a name and all its addresses
constexpr milliseconds kIdleLimit(kIdleLimitMs);
constexpr milliseconds kWaitingInterval(250);
constexpr size_t kMostReply = 1 << 20;
constexpr size_t kMostSent = 64 << 10;  // at a time, so that progress shows
constexpr size_t kQuotedOfReply = 60;   // bytes of a reply that did not end

using Addresses = std::vector<asio::ip::address>;

std::string Begun(const std::string& reply) {
    return "\"" + Utf8FromAnsi(reply.substr(0, kQuotedOfReply)) +
           (reply.size() > kQuotedOfReply ? "...\"" : "\"");
}

// Within this machine a refusal is final, but Windows tries again for two seconds unless it is told not to.
void AskOnceOnLoopback(tcp::socket& socket, const asio::ip::address& address) {
    TCP_INITIAL_RTO_PARAMETERS once = {TCP_INITIAL_RTO_UNSPECIFIED_RTT,
                                       TCP_INITIAL_RTO_NO_SYN_RETRANSMISSIONS};
    DWORD written = 0;
    if (address.is_loopback()) {
        WSAIoctl(socket.native_handle(), SIO_TCP_INITIAL_RTO, &once, sizeof once, nullptr, 0, &written,
                 nullptr, nullptr);
    }
}

}  // namespace

// Lives as long as any talk, and longer where a lookup hangs, which nothing can end.
struct ServerTalks::Loop {
    explicit Loop(Deadline end) : deadline(end) {}
    const Deadline deadline;
    asio::io_context io{1};
    std::map<std::string, std::pair<int, Addresses>> known;  // results of the lookups so far, by names
};

class ServerTalks::Talk : public std::enable_shared_from_this<Talk> {
 public:
    Talk(std::shared_ptr<Loop> loop, Question question)
        : loop_(std::move(loop)), question_(std::move(question)), timer_(loop_->io), socket_(loop_->io) {}

    awaitable<ServerAnswer> Converse(milliseconds pause) {
        const auto self = shared_from_this();
        if (pause.count() > 0) {
            timer_.expires_at(std::min(loop_->deadline, Clock::now() + pause));
            co_await timer_.async_wait(Into());
        }
        const auto start = Clock::now();
        connect_by_ = question_.as_the_plug_in ? start + kPlugInConnectLimit : loop_->deadline;
        answer_.connected = co_await Connect();
        if (answer_.connected && question_.bytes.empty()) {
            answer_.reply = "";
        } else if (answer_.connected) {
            co_await Send();
            // A server that refuses a file because of its size says so and breaks the connection.
            co_await Receive();
        }
        answer_.seconds = std::chrono::duration<double>(Clock::now() - start).count();
        timer_.cancel();
        co_return std::move(answer_);
    }

 private:
    asio::redirect_error_t<asio::use_awaitable_t<>> Into() {
        return asio::redirect_error(asio::use_awaitable, error_);
    }

    // The first failure is the cause of those that follow.
    void Fail(const std::string& why) { answer_.failure = answer_.failure.empty() ? why : answer_.failure; }

    // Until the next call, operations on the socket end at this time.
    void EndBy(Deadline time) {
        timer_.expires_at(std::min(loop_->deadline, time));
        timer_.async_wait([self = shared_from_this()](const asio::error_code& error) {
            if (!error) {
                self->late_ = true;
                asio::error_code ignored;
                self->socket_.close(ignored);
            }
        });
    }

    awaitable<bool> Connect() {
        Addresses addresses;
        if (const int error = co_await FindAddresses(addresses)) {
            answer_.name_failed = true;
            Fail("the name does not resolve: " + SystemErrorWithCode(static_cast<DWORD>(error)));
            co_return false;
        }
        for (const asio::ip::address& address : addresses) {
            late_ = false;
            answer_.failure.clear();
            socket_ = tcp::socket(loop_->io);
            socket_.open(address.is_v4() ? tcp::v4() : tcp::v6(), error_);
            AskOnceOnLoopback(socket_, address);
            EndBy(std::min(connect_by_, Clock::now() + kConnectLimit));
            co_await socket_.async_connect({address, question_.server.port}, Into());
            timer_.cancel();
            if (!error_) {
                socket_.set_option(tcp::no_delay(true), error_);  // a question waits for its answer
                co_return true;
            }
            Fail(SystemErrorWithCode(static_cast<DWORD>(late_ ? WSAETIMEDOUT : error_.value())));
        }
        co_return false;
    }

    // Returns the system's error code.
    awaitable<int> FindAddresses(Addresses& addresses) {
        const std::string& host = question_.server.host;
        asio::error_code is_name;
        addresses = {asio::ip::make_address(host, is_name)};
        int error = 0;
        if (is_name && !loop_->known.contains(host)) {
            const bool runs = RunDetached([talk = weak_from_this(), loop = loop_, host] {
                std::vector<ServerAddress> named;
                const int failed = LookUpName(host, 0, named);
                Addresses found;
                for (const ServerAddress& each : named) {
                    found.push_back(asio::ip::make_address(each.host));
                }
                asio::post(loop->io, [talk, failed, found = std::move(found)] {
                    if (const auto waiting = talk.lock()) {
                        waiting->lookup_ = {failed, found};
                        waiting->timer_.cancel();
                    }
                });
            });
            if (runs) {
                timer_.expires_at(std::min(loop_->deadline, connect_by_));
                co_await timer_.async_wait(Into());
            } else {
                lookup_.first = WSA_NOT_ENOUGH_MEMORY;
            }
            loop_->known[host] = lookup_;
        }
        if (is_name) {
            std::tie(error, addresses) = loop_->known[host];
        }
        if (question_.as_the_plug_in) {
            std::erase_if(addresses, [](const auto& address) { return !address.is_v4(); });
        }
        co_return error == 0 && addresses.empty() ? WSANO_DATA : error;
    }

    awaitable<void> Send() {
        for (std::string_view rest = question_.bytes; !rest.empty();) {
            EndBy(Clock::now() + kIdleLimit);
            const size_t sent = co_await socket_.async_write_some(
                asio::buffer(rest.data(), std::min(rest.size(), kMostSent)), Into());
            rest.remove_prefix(sent);
            if (error_) {
                co_return Fail(late_ ? "nothing more was taken"
                                     : "the connection broke while sending: " +
                                           SystemErrorWithCode(static_cast<DWORD>(error_.value())));
            }
        }
    }

    awaitable<void> Receive() {
        std::string reply;
        for (char buffer[4096];;) {
            EndBy(Clock::now() + kIdleLimit);
            const size_t count = co_await socket_.async_read_some(asio::buffer(buffer), Into());
            timer_.cancel();
            reply.append(buffer, count);
            if (const size_t end = reply.find('\0'); end != std::string::npos) {
                answer_.reply = reply.substr(0, end);
                co_return;
            }
            if (error_ || reply.size() > kMostReply) {
                const bool closed = error_ == asio::error::eof;
                co_return Fail(!error_                   ? "the reply has no end"
                               : closed && reply.empty() ? "the connection was closed without a reply"
                               : closed ? "the connection was closed within the reply " + Begun(reply)
                               : !late_ ? "the connection broke before the reply: " +
                                              SystemErrorWithCode(static_cast<DWORD>(error_.value()))
                               : question_.patience.starts_with(reply)
                                   ? "no reply came"
                                   : "no end came of the reply " + Begun(reply));
            }
        }
    }

    const std::shared_ptr<Loop> loop_;
    const Question question_;
    asio::steady_timer timer_;
    tcp::socket socket_;
    asio::error_code error_;  // of the last operation
    bool late_ = false;       // the time was over, and the socket was closed
    Deadline connect_by_;
    std::pair<int, Addresses> lookup_{WSATRY_AGAIN, {}};  // the result of the lookup
    ServerAnswer answer_;
};

ServerTalks::ServerTalks(Deadline deadline) : loop_(std::make_shared<Loop>(deadline)) {}

void ServerTalks::Put(Question question, std::function<void(ServerAnswer)> answered, milliseconds pause) {
    const auto talk = std::make_shared<Talk>(loop_, std::move(question));
    asio::co_spawn(
        loop_->io, talk->Converse(pause),
        [talk, answered = std::move(answered)](const std::exception_ptr& thrown, ServerAnswer answer) {
            if (thrown) {
                std::rethrow_exception(thrown);
            }
            answered(std::move(answer));
        });
}

void ServerTalks::Run(const std::function<void()>& waiting) {
    for (loop_->io.restart(); loop_->io.run_for(kWaitingInterval), !loop_->io.stopped();) {
        waiting();
    }
}

ServerAnswer AnswerTo(Question question, Deadline deadline) {
    ServerTalks talks(deadline);
    ServerAnswer answer;
    talks.Put(std::move(question), [&](ServerAnswer given) { answer = std::move(given); });
    talks.Run();
    return answer;
}

ServerAnswer AskServer(const Endpoint& server, std::string_view command, Deadline deadline) {
    return AnswerTo({server, std::string(command)}, deadline);
}

Question ScanQuestion(const Endpoint& server, std::string_view bytes, bool shifted) {
    std::string message(kScanCommand);
    for (; !bytes.empty(); bytes.remove_prefix(std::min<size_t>(bytes.size(), kChunkSize))) {
        const size_t size = std::min<size_t>(bytes.size(), kChunkSize);
        const uint32_t prefix = htonl(static_cast<u_long>(size));
        message.append(reinterpret_cast<const char*>(&prefix), sizeof prefix);
        message.append(bytes.substr(0, size));
        if (shifted) {
            ShiftBytes(reinterpret_cast<uint8_t*>(message.data() + message.size() - size), size, -1);
        }
    }
    message.append(4, '\0');
    return {server, std::move(message), kVerdictBeginning};
}

std::string DurationText(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, seconds < 1 ? "%.0f ms" : "%.1f s",
                  seconds < 1 ? seconds * 1000 : seconds);
    return text;
}

}  // namespace kesto
