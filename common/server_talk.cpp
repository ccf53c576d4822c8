#include "common/server_talk.h"

#include <winsock2.h>
#include <windows.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "base/byte_shift.h"
#include "base/clamd_words.h"
#include "common/error_words.h"
#include "common/text.h"

namespace kesto {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kConnectLimit(3000);  // for each address
constexpr milliseconds kIdleLimit(kIdleLimitMs);
constexpr size_t kMostReply = 1 << 20;
constexpr size_t kQuotedOfReply = 60;  // bytes of one that did not end

std::string Begun(const std::string& reply) {
    return "\"" + Utf8FromAnsi(reply.substr(0, kQuotedOfReply)) +
           (reply.size() > kQuotedOfReply ? "...\"" : "\"");
}

class Talk {
 public:
    explicit Talk(Deadline deadline) : deadline_(deadline) {
        WSADATA data;
        WSAStartup(MAKEWORD(2, 2), &data);  // counted by the system, and ended with the process
    }
    ~Talk() { Drop(); }
    Talk(const Talk&) = delete;
    Talk& operator=(const Talk&) = delete;

    bool Connect(const Endpoint& server) {
        addrinfo wanted = {};
        wanted.ai_socktype = SOCK_STREAM;
        addrinfo* found = nullptr;
        const int error =
            getaddrinfo(server.host.c_str(), std::to_string(server.port).c_str(), &wanted, &found);
        if (error != 0) {
            return Fail(kNameFailure + SystemErrorWithCode(static_cast<DWORD>(error)));
        }
        for (const addrinfo* each = found; each != nullptr && socket_ == INVALID_SOCKET;
             each = each->ai_next) {
            ConnectTo(*each);
        }
        freeaddrinfo(found);
        return socket_ != INVALID_SOCKET;
    }

    bool Send(std::string_view bytes) {
        while (!bytes.empty()) {
            const int sent = send(socket_, bytes.data(), static_cast<int>(bytes.size()), 0);
            if (sent > 0) {
                bytes.remove_prefix(static_cast<size_t>(sent));
            } else if (WSAGetLastError() != WSAEWOULDBLOCK) {
                return Fail("the connection broke while sending: " +
                            SystemErrorWithCode(static_cast<DWORD>(WSAGetLastError())));
            } else if (!WaitUntilReady(kIdleLimit, true)) {
                return Fail("nothing more was taken");
            }
        }
        return true;
    }

    // What has come of `patience` is no reply yet: the bridge sends it while it waits for a verdict.
    bool Receive(std::string& reply, std::string_view patience) {
        for (;;) {
            char buffer[4096];
            const int count = recv(socket_, buffer, sizeof buffer, 0);
            if (count > 0) {
                reply.append(buffer, static_cast<size_t>(count));
                if (const size_t end = reply.find('\0'); end != std::string::npos) {
                    reply.resize(end);
                    return true;
                }
                if (reply.size() > kMostReply) {
                    return Fail("the reply has no end");
                }
            } else if (count == 0) {
                return Fail(reply.empty() ? "the connection was closed without a reply"
                                          : "the connection was closed within the reply " + Begun(reply));
            } else if (WSAGetLastError() != WSAEWOULDBLOCK) {
                return Fail("the connection broke before the reply: " +
                            SystemErrorWithCode(static_cast<DWORD>(WSAGetLastError())));
            } else if (!WaitUntilReady(kIdleLimit, false)) {
                return Fail(patience.starts_with(reply) ? "no reply came"
                                                        : "no end came of the reply " + Begun(reply));
            }
        }
    }

    const std::string& failure() const { return failure_; }

 private:
    bool Fail(std::string why) {
        failure_ = std::move(why);
        return false;
    }

    void Drop() {
        if (socket_ != INVALID_SOCKET) {
            closesocket(socket_);
            socket_ = INVALID_SOCKET;
        }
    }

    void ConnectTo(const addrinfo& address) {
        socket_ = socket(address.ai_family, SOCK_STREAM, IPPROTO_TCP);
        u_long non_blocking = 1;
        ioctlsocket(socket_, FIONBIO, &non_blocking);
        const BOOL no_delay = TRUE;  // a question waits for its answer
        setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&no_delay),
                   sizeof no_delay);
        int error = 0;
        if (connect(socket_, address.ai_addr, static_cast<int>(address.ai_addrlen)) != 0) {
            error = WSAGetLastError();
        }
        if (error == WSAEWOULDBLOCK) {
            int size = sizeof error;
            error = WSAETIMEDOUT;
            if (WaitUntilReady(kConnectLimit, true)) {
                getsockopt(socket_, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &size);
            }
        }
        if (error != 0) {
            Fail(SystemErrorWithCode(static_cast<DWORD>(error)));
            Drop();
        }
    }

    // False when the limit or the deadline has passed.
    bool WaitUntilReady(milliseconds limit, bool to_send) {
        const auto left = std::chrono::duration_cast<milliseconds>(deadline_ - Clock::now());
        const auto wait = static_cast<long>(std::clamp<milliseconds>(left, milliseconds(0), limit).count());
        fd_set ready;
        fd_set refused;
        FD_ZERO(&ready);
        FD_ZERO(&refused);
        FD_SET(socket_, &ready);
        FD_SET(socket_, &refused);
        timeval time = {wait / 1000, wait % 1000 * 1000};
        return select(0, to_send ? nullptr : &ready, to_send ? &ready : nullptr, &refused, &time) > 0;
    }

    const Deadline deadline_;
    SOCKET socket_ = INVALID_SOCKET;
    std::string failure_;
};

bool SendStream(Talk& talk, std::string_view bytes, bool shifted) {
    using namespace std::string_view_literals;
    std::string message(kScanCommand);
    for (; !bytes.empty(); message.clear()) {
        const size_t size = std::min<size_t>(bytes.size(), kChunkSize);
        const uint32_t prefix = htonl(static_cast<u_long>(size));
        message.append(reinterpret_cast<const char*>(&prefix), sizeof prefix);
        message.append(bytes.substr(0, size));
        if (shifted) {
            ShiftBytesDown(reinterpret_cast<uint8_t*>(message.data() + message.size() - size), size);
        }
        bytes.remove_prefix(size);
        if (!talk.Send(message)) {
            return false;
        }
    }
    return talk.Send("\0\0\0\0"sv);
}

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// `send` puts the question.
template <typename Send>
ServerAnswer Converse(const Endpoint& server, Deadline deadline, std::string_view patience, Send send) {
    const auto start = Clock::now();
    ServerAnswer answer;
    Talk talk(deadline);
    std::string reply;
    answer.connected = talk.Connect(server);
    if (answer.connected) {
        const bool sent = send(talk);
        const std::string send_failure = talk.failure();
        // A server that refuses a file for its size says so and breaks the connection.
        if (talk.Receive(reply, patience)) {
            answer.reply = std::move(reply);
        }
        answer.failure = sent ? talk.failure() : send_failure;
    } else {
        answer.failure = talk.failure();
    }
    answer.seconds = SecondsSince(start);
    return answer;
}

}  // namespace

ServerAnswer ConnectToServer(const Endpoint& server, Deadline deadline) {
    const auto start = Clock::now();
    Talk talk(deadline);
    ServerAnswer answer;
    answer.connected = talk.Connect(server);
    if (answer.connected) {
        answer.reply = "";
    }
    answer.failure = talk.failure();
    answer.seconds = SecondsSince(start);
    return answer;
}

ServerAnswer AskServer(const Endpoint& server, std::string_view command, Deadline deadline) {
    return Converse(server, deadline, "", [&](Talk& talk) { return talk.Send(command); });
}

ServerAnswer ScanAtServer(const Endpoint& server, std::string_view bytes, bool shifted, Deadline deadline) {
    return Converse(server, deadline, kVerdictBeginning,
                    [&](Talk& talk) { return SendStream(talk, bytes, shifted); });
}

std::string DurationText(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, seconds < 1 ? "%.0f ms" : "%.1f s",
                  seconds < 1 ? seconds * 1000 : seconds);
    return text;
}

}  // namespace kesto
