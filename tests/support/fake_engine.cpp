#include "tests/support/fake_engine.h"

#include <algorithm>

namespace kesto {
namespace {

constexpr long kLookAroundUs = 10'000;  // how often a waiting thread looks whether it should stop

sockaddr_in Loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

// Binds to `port`, 0 for a free one, which `port` then holds. INVALID_SOCKET on failure.
SOCKET Bind(uint16_t& port) {
    static const int started = [] {
        WSADATA data;
        return WSAStartup(MAKEWORD(2, 2), &data);
    }();
    if (started != 0)
        return INVALID_SOCKET;
    SOCKET bound = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in address = Loopback(port);
    int length = sizeof address;
    if (bind(bound, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        getsockname(bound, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        closesocket(bound);
        return INVALID_SOCKET;
    }
    port = ntohs(address.sin_port);
    return bound;
}

void Reset(SOCKET socket) {
    const linger at_once{1, 0};
    setsockopt(socket, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&at_once), sizeof at_once);
    closesocket(socket);
}

// Takes in what has newly arrived.
void Parse(Conversation& it) {
    if (it.command.empty()) {
        const size_t end = it.raw.find('\0');
        if (end == std::string::npos)
            return;
        it.command = it.raw.substr(0, end);
        it.parsed = end + 1;
        it.complete = it.command != "zINSTREAM";
    }
    while (!it.complete && it.raw.size() - it.parsed >= 4) {
        uint32_t length;
        std::copy_n(it.raw.data() + it.parsed, 4, reinterpret_cast<char*>(&length));
        length = ntohl(length);
        if (it.raw.size() - it.parsed - 4 < length)
            return;
        it.data.append(it.raw, it.parsed + 4, length);
        it.parsed += 4 + size_t{length};
        if (length == 0)
            it.complete = true;
        else
            it.chunk_lengths.push_back(length);
    }
}

}  // namespace

std::string WithNul(std::string_view text) { return std::string(text) + '\0'; }

FakeEngine::FakeEngine(EngineScript script, uint16_t port) : script_(std::move(script)), port_(port) {
    listener_ = Bind(port_);
    if (listener_ == INVALID_SOCKET || listen(listener_, SOMAXCONN) != 0) {
        port_ = 0;
        return;
    }
    acceptor_ = std::thread([this] { AcceptAll(); });
}

FakeEngine::~FakeEngine() {
    stop_ = true;
    if (acceptor_.joinable())
        acceptor_.join();
    closesocket(listener_);
}

std::vector<Conversation> FakeEngine::Conversations() const {
    std::lock_guard lock(mutex_);
    return {conversations_.begin(), conversations_.end()};
}

bool FakeEngine::WaitReadable(SOCKET socket) const {
    while (!stop_) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(socket, &readable);
        timeval look_around{0, kLookAroundUs};
        if (select(0, &readable, nullptr, nullptr, &look_around) != 0)
            return true;
    }
    return false;
}

void FakeEngine::AcceptAll() {
    while (WaitReadable(listener_)) {
        const SOCKET client = accept(listener_, nullptr, nullptr);
        if (client == INVALID_SOCKET)
            continue;
        std::lock_guard lock(mutex_);
        Conversation& conversation = conversations_.emplace_back();
        talkers_.emplace_back([this, client, &conversation] { Converse(client, conversation); });
    }
    for (std::thread& talker : talkers_)
        talker.join();
}

// False when the connection is to end without a reply.
bool FakeEngine::ReadRequest(SOCKET client, Conversation& conversation) {
    std::string buffer(65536, '\0');
    while (true) {
        if (conversation.raw.size() >= script_.close_after)
            return false;
        if (conversation.complete)
            return true;
        if (!WaitReadable(client))
            return false;
        // Not one byte more than wanted, so that an early end comes at the very byte that was asked for.
        const size_t room = std::min(buffer.size(), script_.close_after - conversation.raw.size());
        const int got = recv(client, buffer.data(), static_cast<int>(room), 0);
        if (got <= 0)
            return false;
        std::lock_guard lock(mutex_);
        conversation.raw.append(buffer, 0, static_cast<size_t>(got));
        Parse(conversation);
        bytes_received_ += static_cast<size_t>(got);
    }
}

void FakeEngine::SendReply(SOCKET client, const std::string& reply) {
    for (size_t sent = 0; sent < reply.size();) {
        const size_t piece = std::min(script_.bytes_per_send, reply.size() - sent);
        const int taken = send(client, reply.data() + sent, static_cast<int>(piece), 0);
        if (taken <= 0)
            return;
        sent += static_cast<size_t>(taken);
    }
}

void FakeEngine::Converse(SOCKET client, Conversation& conversation) {
    const BOOL at_once = TRUE;  // pieces go out as pieces
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&at_once), sizeof at_once);
    if (!script_.reads) {
        while (!stop_)
            Sleep(kLookAroundUs / 1000);
    } else if (ReadRequest(client, conversation)) {
        SendReply(client, script_.answer ? script_.answer(conversation) : script_.reply);
        if (script_.hangs_up && !script_.resets)
            shutdown(client, SD_SEND);
        // Whatever the client still sends belongs to the record; its close ends the conversation.
        char rest[512];
        int got = 0;
        while (!script_.resets && WaitReadable(client) && (got = recv(client, rest, sizeof rest, 0)) > 0) {
            std::lock_guard lock(mutex_);
            conversation.raw.append(rest, static_cast<size_t>(got));
        }
    }
    script_.resets ? Reset(client) : void(closesocket(client));
}

UnansweredPort::UnansweredPort() {
    const SOCKET listener = Bind(port_);
    listen(listener, 1);
    sockets_.push_back(listener);
    const sockaddr_in address = Loopback(port_);
    for (int queued = 0; queued < 8; ++queued) {
        const SOCKET client = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        u_long non_blocking = 1;
        ioctlsocket(client, FIONBIO, &non_blocking);
        connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        sockets_.push_back(client);
    }
}

UnansweredPort::~UnansweredPort() {
    for (const SOCKET each : sockets_)
        closesocket(each);
}

uint16_t ClosedPort() {
    uint16_t port = 0;
    closesocket(Bind(port));
    return port;
}

}  // namespace kesto
