#include "tests/support/fake_engine.h"

#include <algorithm>

#include "tests/loopback/loopback.h"

namespace kesto {
namespace {

void SetNonBlocking(SOCKET socket) {
    u_long on = 1;
    ioctlsocket(socket, FIONBIO, &on);
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
        if (end == std::string::npos) {
            return;
        }
        it.command = it.raw.substr(0, end);
        it.parsed = end + 1;
        it.complete = it.command != "zINSTREAM";
    }
    while (!it.complete && it.raw.size() - it.parsed >= 4) {
        uint32_t length;
        std::copy_n(it.raw.data() + it.parsed, 4, reinterpret_cast<char*>(&length));
        length = ntohl(length);
        if (it.raw.size() - it.parsed - 4 < length) {
            return;
        }
        it.data.append(it.raw, it.parsed + 4, length);
        it.parsed += 4 + size_t{length};
        if (length == 0) {
            it.complete = true;
        } else {
            it.chunk_lengths.push_back(length);
        }
    }
}

}  // namespace

std::string WithNul(std::string_view text) {
    return std::string(text) + '\0';
}

FakeEngine::FakeEngine(EngineScript script, uint16_t port) : script_(std::move(script)), port_(port) {
    listener_ = BindToLoopback(port_);
    SetNonBlocking(listener_);  // what it accepts is so, too
    if (listener_ == INVALID_SOCKET || listen(listener_, SOMAXCONN) != 0) {
        port_ = 0;
        return;
    }
    acceptor_ = std::thread([this] { AcceptAll(); });
}

FakeEngine::~FakeEngine() {
    stop_ = true;
    if (acceptor_.joinable()) {
        acceptor_.join();
    }
    closesocket(listener_);
}

std::vector<Conversation> FakeEngine::Conversations() const {
    std::lock_guard lock(mutex_);
    return {conversations_.begin(), conversations_.end()};
}

// The result of `call` once it no longer would block; negative on failure and at the end. It polls because
// an engine must be fit to be killed at any moment: Wine keeps the sockets of a process that is killed
// while it waits on them.
template <class Call>
int FakeEngine::WhenReady(Call call) const {
    while (!stop_) {
        const int result = call();
        if (result >= 0 || WSAGetLastError() != WSAEWOULDBLOCK) {
            return result;
        }
        Sleep(1);
    }
    return -1;
}

void FakeEngine::AcceptAll() {
    int client;
    while ((client = WhenReady([this] { return static_cast<int>(accept(listener_, nullptr, nullptr)); })) >=
           0) {
        std::lock_guard lock(mutex_);
        Conversation& conversation = conversations_.emplace_back();
        talkers_.emplace_back(
            [this, client, &conversation] { Converse(static_cast<SOCKET>(client), conversation); });
    }
    for (std::thread& talker : talkers_) {
        talker.join();
    }
}

// False when the connection is to end without a reply.
bool FakeEngine::ReadRequest(SOCKET client, Conversation& conversation) {
    std::string buffer(65536, '\0');
    while (true) {
        if (conversation.raw.size() >= script_.close_after) {
            return false;
        }
        if (conversation.complete) {
            return true;
        }
        // Not one byte more than wanted, so that an early end comes at the very byte that was asked for.
        const size_t room = std::min(buffer.size(), script_.close_after - conversation.raw.size());
        const int got = WhenReady([&] { return recv(client, buffer.data(), static_cast<int>(room), 0); });
        if (got <= 0) {
            return false;
        }
        std::lock_guard lock(mutex_);
        conversation.raw.append(buffer, 0, static_cast<size_t>(got));
        Parse(conversation);
        bytes_received_ += static_cast<size_t>(got);
    }
}

void FakeEngine::SendReply(SOCKET client, const std::string& reply) {
    for (size_t sent = 0; sent < reply.size();) {
        const size_t piece = std::min(script_.bytes_per_send, reply.size() - sent);
        const int taken =
            WhenReady([&] { return send(client, reply.data() + sent, static_cast<int>(piece), 0); });
        if (taken <= 0) {
            return;
        }
        sent += static_cast<size_t>(taken);
    }
}

void FakeEngine::Converse(SOCKET client, Conversation& conversation) {
    const BOOL at_once = TRUE;  // pieces go out as pieces
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&at_once), sizeof at_once);
    if (!script_.reads) {
        while (!stop_) {
            Sleep(10);
        }
    } else if (ReadRequest(client, conversation)) {
        SendReply(client, script_.answer ? script_.answer(conversation) : script_.reply);
        if (script_.hangs_up && !script_.resets) {
            shutdown(client, SD_SEND);
        }
        // Whatever the client still sends belongs to the record; its close ends the conversation.
        char rest[512];
        int got = 0;
        while (!script_.resets && (got = WhenReady([&] { return recv(client, rest, sizeof rest, 0); })) > 0) {
            std::lock_guard lock(mutex_);
            conversation.raw.append(rest, static_cast<size_t>(got));
        }
    }
    script_.resets ? Reset(client) : void(closesocket(client));
    if (!script_.keeps_record) {
        std::lock_guard lock(mutex_);
        conversation = {};
    }
}

UnansweredPort::UnansweredPort() {
    const SOCKET listener = BindToLoopback(port_);
    listen(listener, 1);
    sockets_.push_back(listener);
    const sockaddr_in address = LoopbackAddress(port_);
    for (int queued = 0; queued < 8; ++queued) {
        const SOCKET client = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        SetNonBlocking(client);
        connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        sockets_.push_back(client);
    }
}

UnansweredPort::~UnansweredPort() {
    for (const SOCKET each : sockets_) {
        closesocket(each);
    }
}

}  // namespace kesto
