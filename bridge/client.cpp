#include "bridge/client.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "common/bridge_log.h"

namespace kesto::bridge {
namespace {

using asio::ip::tcp;
using namespace std::chrono_literals;

// A server is taken for a scan when so much of it is there, or all of it.
constexpr uint64_t kEnough = 64u << 10;

constexpr auto kQueryLimit = 5s;  // one server's reply to zPING or zVERSION, and the look-up of all names

// After the reply the client has this long to close first, so that what it still had under way does not
// turn our close into a reset that takes the reply with it.
constexpr auto kLingering = 2s;

// Silence that is borne while others wait for a place: of one that has sent no data, and of one that has.
constexpr auto kPatience = 1s;
constexpr auto kPatienceWithData = 5s;

}  // namespace

Client::Client(Bridge& bridge, tcp::socket socket, const tcp::endpoint& peer)
    : bridge_(bridge),
      socket_(std::move(socket)),
      peer_(peer),
      heard_(Clock::now()),
      stream_(std::make_shared<KeptStream>(bridge.room)) {}

void Client::Serve(Bridge& bridge, tcp::socket socket, const tcp::endpoint& peer) {
    const auto client = std::make_shared<Client>(bridge, std::move(socket), peer);
    bridge.clients.insert(client);
    ++bridge.metrics.clients;
    Read(client);
}

std::string Client::Peer() const {
    return peer_.address().to_string() + ":" + std::to_string(peer_.port());
}

Task Client::Read(std::shared_ptr<Client> self) {
    while (self->phase_ != Phase::kClosed) {
        const auto stream = self->stream_;  // the bytes come into its memory, even if the client drops it
        asio::mutable_buffer buffer = asio::buffer(self->scrap_);
        if (self->phase_ <= Phase::kStream) {
            const auto space = self->Space();
            if (space.empty()) {
                self->blocked_ = true;
                co_await self->room_;
                self->blocked_ = false;
                self->heard_ = Clock::now();
                continue;
            }
            buffer = asio::buffer(space.data(), space.size());
        }
        auto read = ReadSome(self->socket_, buffer);
        const auto [error, size] = co_await read;
        if (self->phase_ == Phase::kClosed) {
            break;
        }
        if (error) {
            self->ReadingFailed(error);
            break;
        }
        self->heard_ = Clock::now();
        self->TakeBytes(static_cast<uint8_t*>(buffer.data()), size);
    }
}

std::span<uint8_t> Client::Space() {
    if (stream_->Space().empty()) {
        FreeWindow();
    }
    return stream_->Space().subspan(opening_);
}

void Client::TakeBytes(uint8_t* bytes, size_t size) {
    if (phase_ == Phase::kCommand) {
        TakeOpening(bytes - opening_, opening_ + size);
    } else if (phase_ == Phase::kStream) {
        TakeStream(bytes, size);
    }
}

void Client::TakeOpening(uint8_t* bytes, size_t size) {
    const auto [command, used] = FindCommand(bytes, size);
    opening_ = command == Command::kIncomplete ? size : 0;
    switch (command) {
        case Command::kScan:
            stream_->Append(used);
            phase_ = Phase::kStream;
            BeginScan();
            if (size != used) {
                TakeStream(bytes + used, size - used);
            }
            break;
        case Command::kVersion:
        case Command::kPing:
            BeginQuery(used);
            break;
        case Command::kStats:
            Reply(MetricsText(bridge_.metrics, bridge_.fleet, bridge_.room, Clock::now()));
            break;
        case Command::kUnknown:
            Refuse("an unknown command",
                   "sent an unknown command: " + std::string(bytes, bytes + std::min<size_t>(size, 64)));
            break;
        case Command::kIncomplete:
            break;
    }
}

void Client::BeginScan() {
    scan_began_ = Clock::now();
    policy_ = std::make_unique<ScanPolicy>(bridge_.fleet,
                                           ScanLimits{std::chrono::seconds(bridge_.settings.wait),
                                                      std::chrono::seconds(bridge_.settings.verdict)});
}

void Client::TakeStream(uint8_t* bytes, size_t size) {
    const uint64_t data_before = chunks_.data_bytes;
    const auto [used, valid] = FollowChunks(chunks_, bytes, size, bridge_.settings.decrypt);
    if (!valid) {
        Refuse("a chunk length", "sent a chunk length above " + std::to_string(kMaxChunkSize));
        return;
    }
    bridge_.metrics.bytes += chunks_.data_bytes - data_before;
    if (!policy_->Decided()) {
        stream_->Append(used);
    }
    if (chunks_.ended) {
        stream_->End();
        phase_ = Phase::kAnswer;
        policy_->StreamEnded(Clock::now());
    } else if (stream_->Size() >= kEnough) {
        policy_->EnoughCame();
    }
    for (const auto& attempt : attempts_) {
        if (attempt) {
            attempt->More();
        }
    }
    Advance();
}

void Client::ReadingFailed(const asio::error_code& error) {
    switch (phase_) {
        case Phase::kCommand:
        case Phase::kLinger:
        case Phase::kClosed:
            Close();
            break;
        case Phase::kStream:
            Refuse("left in the middle", "left in the middle of its data");
            break;
        case Phase::kAnswer:
            if (error != asio::error::eof) {
                NoReply("it left");
            } else {
                finished_ = true;
                if (policy_) {
                    policy_->FinishedSending(Clock::now());
                }
            }
            break;
    }
}

void Client::Advance() {
    const auto self = shared_from_this();
    while (policy_) {
        const ScanStep step = policy_->Next(Clock::now());
        if (policy_->Decided() && stream_->Size() != 0) {
            DropAttempts();
            // Nobody needs it any more, nor what is still to come.
            stream_ = std::make_shared<KeptStream>(bridge_.room);
            room_.Open();
        }
        switch (step.kind) {
            case ScanStep::kNothing:
                SetWaits(policy_ && policy_->Waits());
                return;
            case ScanStep::kAttempt:
                BeginAttempt(step.attempt, step.server);
                break;
            case ScanStep::kTrickle:
                Send(step.text);
                break;
            case ScanStep::kReply:
            case ScanStep::kNoReply:
                EndScan(step);
                return;
        }
    }
}

void Client::BeginAttempt(size_t number, const ServerPtr& server) {
    if (number != 0) {
        ++bridge_.metrics.repeats;
        LogBridge("repeated", "scan of " + Peer() + " repeated with upstream " + AddressText(server->name));
    }
    const auto self = shared_from_this();
    attempts_.resize(number + 1);
    attempts_[number] = Attempt::Begin(
        bridge_, server, stream_, [self, number] { self->AttemptProgressed(number); },
        [self, number, server](const AttemptEnd& end) {
            if (end.kind == AttemptEnd::kReplied && ReadScanAnswer(end.text) == ScanAnswer::kNoVerdict) {
                LogBridge("no verdict", "upstream " + AddressText(server->name) + " gave no verdict to " +
                                            self->Peer() + " - " + end.text);
            }
            self->AttemptEnded(number, end);
        });
}

void Client::AttemptProgressed(size_t number) {
    policy_->Progressed(number, attempts_[number]->HandedOver(), Clock::now());
    FreeWindow();
}

// A window lets go of what a server has got. From then on no other server can take over.
void Client::FreeWindow() {
    if (!stream_->IsWindow()) {
        return;
    }
    for (const auto& attempt : attempts_) {
        if (attempt && attempt->Sent() != 0) {
            policy_->NotRepeatable();
            stream_->Release(attempt->Sent());
        }
    }
    if (blocked_ && !stream_->Space().empty()) {
        room_.Open();
    }
}

void Client::AttemptEnded(size_t number, const AttemptEnd& end) {
    attempts_[number].reset();
    const Time now = Clock::now();
    switch (end.kind) {
        case AttemptEnd::kReplied:
            policy_->Replied(number, end.text, now);
            break;
        case AttemptEnd::kUnreached:
        case AttemptEnd::kBroken:
            policy_->Broken(number, end.text, now);
            break;
        case AttemptEnd::kSilent:
            policy_->Silent(number, end.text, now);
            break;
    }
    Advance();
    AdvanceWaiting(bridge_);
}

void Client::EndScan(const ScanStep& step) {
    Metrics& metrics = bridge_.metrics;
    if (step.kind == ScanStep::kNoReply) {
        ++metrics.no_reply;
        policy_.reset();
        NoReply(step.text);
        return;
    }
    switch (*policy_->Answer()) {
        case ScanAnswer::kClean:
            ++metrics.clean;
            break;
        case ScanAnswer::kInfected:
            ++metrics.infected;
            break;
        case ScanAnswer::kNoVerdict:
            ++metrics.no_verdict;
            break;
    }
    CountSeconds(metrics, std::chrono::duration<double>(Clock::now() - scan_began_).count());
    policy_.reset();
    Reply(step.text);
}

// Nothing of the client's is at stake, so every server may be asked in turn, those that are down last.
void Client::BeginQuery(size_t command_size) {
    phase_ = Phase::kAnswer;
    stream_->Append(command_size);
    stream_->End();
    look_up_until_ = Clock::now() + kQueryLimit;
    to_ask_ = bridge_.fleet.servers;
    std::sort(to_ask_.begin(), to_ask_.end(), [](const ServerPtr& a, const ServerPtr& b) {
        return std::tuple(a->up, b->open, b->last_turn) < std::tuple(b->up, a->open, a->last_turn);
    });
    AskNext();
}

void Client::AskNext() {
    const auto next = std::find_if(to_ask_.rbegin(), to_ask_.rend(),
                                   [](const ServerPtr& server) { return !server->addresses.empty(); });
    if (next == to_ask_.rend()) {
        if (to_ask_.empty() || Clock::now() >= look_up_until_) {
            NoReply("no upstream server answered");
        }
        return;
    }
    const ServerPtr server = *next;
    to_ask_.erase(std::next(next).base());
    const auto self = shared_from_this();
    const auto attempt = Attempt::Begin(
        bridge_, server, stream_, [] {},
        [self, server](const AttemptEnd& end) {
            self->DropAttempts();
            const Time now = Clock::now();
            if (end.kind == AttemptEnd::kReplied) {
                NoteAlive(*server);
                self->Reply(end.text);
                return;
            }
            if (end.kind == AttemptEnd::kSilent) {
                Suspect(self->bridge_.fleet, *server, now);
            } else {
                NoteBroken(self->bridge_.fleet, *server, end.text, now);
            }
            self->AskNext();
        });
    attempt->LimitReply(kQueryLimit, Clock::now());
    attempts_ = {attempt};
}

void Client::Send(std::string_view text) {
    outbox_ += text;
    if (!writing_) {
        Write(shared_from_this());
    }
}

void Client::Reply(std::string_view text) {
    phase_ = Phase::kLinger;
    Send(std::string(text) + '\0');
}

Task Client::Write(std::shared_ptr<Client> self) {
    self->writing_ = true;
    while (!self->outbox_.empty() && self->phase_ != Phase::kClosed) {
        const std::string text = std::exchange(self->outbox_, {});
        for (size_t sent = 0; sent != text.size() && self->phase_ != Phase::kClosed;) {
            self->write_until_ = Clock::now() + self->Idle();
            auto write = WriteSome(self->socket_, asio::buffer(text) + sent);
            const auto [error, size] = co_await write;
            self->write_until_ = Time::max();
            sent += size;
            if (error && self->phase_ != Phase::kClosed) {
                self->writing_ = false;
                self->NoReply("it left");
                co_return;
            }
        }
    }
    self->writing_ = false;
    if (self->phase_ == Phase::kLinger && self->finished_) {
        self->Close();
    } else if (self->phase_ == Phase::kLinger) {
        asio::error_code ignored;
        self->socket_.shutdown(tcp::socket::shutdown_send, ignored);
        self->write_until_ = Clock::now() + kLingering;
    }
}

void Client::Refuse(const char* kind, const std::string& reason) {
    ++bridge_.metrics.refused;
    LogBridge(std::string("refused ") + kind, "refused " + Peer() + " - " + reason);
    Close();
}

void Client::NoReply(const std::string& reason) {
    LogBridge("no reply " + reason, "no reply to " + Peer() + " - " + reason);
    Close();
}

void Client::SetWaits(bool waits) {
    if (std::exchange(waits_, waits) != waits) {
        bridge_.metrics.waiting += waits ? 1 : -1;
    }
}

void Client::DropAttempts() {
    for (const auto& attempt : std::exchange(attempts_, {})) {
        if (attempt) {
            attempt->Cancel();
        }
    }
}

void Client::Close() {
    if (std::exchange(phase_, Phase::kClosed) == Phase::kClosed) {
        return;
    }
    const auto self = shared_from_this();
    if (policy_) {
        ++bridge_.metrics.left;
        policy_.reset();
    }
    DropAttempts();
    SetWaits(false);
    asio::error_code ignored;
    if (writing_) {
        socket_.cancel(ignored);  // Wine does not end a send for the close alone
    }
    socket_.close(ignored);
    bridge_.clients.erase(self);
    --bridge_.metrics.clients;
    room_.Open();
    bridge_.place.Open();
    if (bridge_.stopping && bridge_.clients.empty()) {
        bridge_.io.stop();
    }
}

void Client::Tick(Time now) {
    const auto self = shared_from_this();
    if (blocked_ && !Space().empty()) {
        room_.Open();  // there was no memory for it
    }
    const bool hears = phase_ <= Phase::kStream && !blocked_;
    if (now >= write_until_) {
        Close();
    } else if (phase_ == Phase::kStream && bridge_.stopping && now >= bridge_.stopped_at + Idle()) {
        NoReply("the bridge ends");
    } else if (hears && now >= heard_ + Idle()) {
        Refuse("silence", phase_ == Phase::kCommand
                              ? "sent no command in time"
                              : "sent nothing for " + std::to_string(bridge_.settings.idle) + " s");
    } else if (phase_ == Phase::kAnswer && !policy_ && attempts_.empty()) {
        AskNext();
    } else {
        Advance();
    }
}

void Client::Stop() {
    if (phase_ == Phase::kCommand) {
        Close();
    }
}

bool Client::MakeWay(Time now) {
    const bool hears = phase_ <= Phase::kStream && !blocked_;
    if (!hears || now < heard_ + (chunks_.data_bytes == 0 ? kPatience : kPatienceWithData)) {
        return false;
    }
    Refuse("others wait", "silent while others wait for a place");
    return true;
}

void AdvanceWaiting(Bridge& bridge) {
    if (bridge.metrics.waiting == 0) {
        return;
    }
    const auto clients = bridge.clients;
    for (const auto& client : clients) {
        if (client->Waits()) {
            client->Advance();
        }
    }
}

}  // namespace kesto::bridge
