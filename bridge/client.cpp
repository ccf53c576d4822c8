#include "bridge/client.h"

#include <algorithm>
#include <utility>

#include "bridge/framing.h"
#include "bridge/query.h"
#include "bridge/scan.h"
#include "common/bridge_log.h"

namespace kesto::bridge {
namespace {

using asio::ip::tcp;
using namespace std::chrono_literals;

// After the reply the client has this long to close first. If we closed while it is still sending, the close
// would become a reset, and the reply would be lost.
constexpr auto kLingering = 2s;

// While others wait for a place, a client must keep to this rate, which is far below that of a plug-in. It
// has the first time for its command; what it sends pays in advance for at most the second.
constexpr auto kPatience = 1s;
constexpr auto kMostPaid = 5s;
constexpr size_t kLeastBytesASecond = 1000;

}  // namespace

Client::Client(Bridge& bridge, tcp::socket socket, const tcp::endpoint& peer)
    : Sleeper(bridge.woken),
      bridge_(bridge),
      number_(++bridge.arrived),
      name_(peer.address().to_string() + ":" + std::to_string(peer.port())),
      socket_(std::move(socket)),
      opening_(std::make_shared<KeptStream>(bridge.room)),
      heard_(Clock::now()),
      paid_until_(heard_ + kPatience) {}

void Client::Serve(Bridge& bridge, tcp::socket socket, const tcp::endpoint& peer) {
    const auto client = std::make_shared<Client>(bridge, std::move(socket), peer);
    bridge.clients.emplace(client->number_, client);
    client->Try([&client] { Read(client); });
}

template <typename Work>
void Client::Try(Work work) {
    try {
        work();
    } catch (...) {
        Failed();
    }
}

bool Client::Hears() const {
    return phase_ == Phase::kOpening || (phase_ == Phase::kBusy && request_->Hears());
}

std::span<uint8_t> Client::Space(std::shared_ptr<KeptStream>& keeper) {
    if (phase_ == Phase::kQueued) {
        return {};
    }
    if (!Hears()) {
        return {reinterpret_cast<uint8_t*>(scrap_.data()), scrap_.size()};
    }
    return phase_ == Phase::kBusy ? request_->Space(keeper) : opening_->Space().subspan(opened_);
}

Task<Client> Client::Read(std::shared_ptr<Client> self) {
    while (self->phase_ != Phase::kClosed) {
        // Keeps the memory that is read into, even if the request drops it.
        std::shared_ptr<KeptStream> keeper;
        const auto space = self->Space(keeper);
        if (space.empty()) {
            co_await self->space_;
            self->heard_ = Clock::now();
            self->paid_until_ = self->heard_ + kMostPaid;
            continue;
        }
        auto read = ReadSome(self->socket_, asio::buffer(space.data(), space.size()));
        const auto [error, size] = co_await read;
        if (error) {
            self->ReadingFailed(error);
            break;
        }
        self->heard_ = Clock::now();
        self->paid_until_ = std::min(std::max(self->paid_until_, self->heard_) +
                                         std::chrono::milliseconds(size * 1000 / kLeastBytesASecond),
                                     self->heard_ + kMostPaid);
        if (self->phase_ == Phase::kOpening) {
            self->TakeOpening(space.data() - self->opened_, self->opened_ + size);
        } else if (self->Hears()) {
            self->TakeStream(space.data(), size);
        }
    }
}

void Client::TakeOpening(uint8_t* bytes, size_t size) {
    const auto [command, used] = FindCommand(bytes, size);
    opened_ = size;
    switch (command) {
        case Command::kScan:
            if (IsFull(bridge_)) {
                bridge_.queue.push_back(shared_from_this());
                phase_ = Phase::kQueued;
                break;
            }
            opening_->Append(used);
            request_ = std::make_unique<Scan>(bridge_, *this, name_, std::move(opening_), heard_);
            phase_ = Phase::kBusy;
            if (size != used) {
                TakeStream(bytes + used, size - used);
            }
            break;
        case Command::kVersion:
        case Command::kPing:
            opening_->Append(used);
            opening_->End();
            request_ = std::make_unique<Query>(bridge_, *this, std::move(opening_), heard_);
            phase_ = Phase::kBusy;
            Wake();
            break;
        case Command::kStats:
            Reply(StatsText(bridge_, heard_));
            break;
        case Command::kUnknown:
            Refuse("an unknown command",
                   "sent an unknown command: " + std::string(bytes, bytes + std::min<size_t>(size, 64)));
            break;
        case Command::kIncomplete:
            break;
    }
}

void Client::TakeStream(uint8_t* bytes, size_t size) {
    if (request_->Take(bytes, size, heard_)) {
        Wake();
    } else {
        Refuse("a chunk length", "sent a chunk length above " + std::to_string(kMaxChunkSize));
    }
}

void Client::BeginQueued() {
    if (phase_ == Phase::kQueued) {
        Try([this] {
            heard_ = Clock::now();
            TakeOpening(opening_->Space().data(), opened_);
            space_.Open();
        });
    }
}

void Client::ReadingFailed(const asio::error_code& error) {
    if (phase_ == Phase::kBusy && Hears()) {
        Refuse("left in the middle", "left in the middle of its data");
    } else if (error == asio::error::eof && (phase_ == Phase::kBusy || writing_)) {
        finished_ = true;
        if (request_) {
            request_->FinishedSending(Clock::now());
        }
    } else if (phase_ == Phase::kBusy) {
        NoReply("it left");
    } else {
        Close();
    }
}

void Client::Send(std::string_view text) {
    outbox_ += text;
    if (!writing_) {
        Write(shared_from_this());
    }
}

void Client::Reply(std::string_view text) {
    phase_ = Phase::kLingering;
    request_.reset();
    Send(std::string(text) + '\0');
}

Task<Client> Client::Write(std::shared_ptr<Client> self) {
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
    if (self->phase_ == Phase::kLingering && self->finished_) {
        self->Close();
    } else if (self->phase_ == Phase::kLingering) {
        asio::error_code ignored;
        self->socket_.shutdown(tcp::socket::shutdown_send, ignored);
        self->write_until_ = Clock::now() + kLingering;
    }
}

void Client::Refuse(const char* kind, const std::string& reason) {
    ++bridge_.metrics.refused;
    LogBridge(std::string("refused ") + kind, "refused " + name_ + " - " + reason);
    Close();
}

void Client::NoReply(const std::string& reason) {
    LogBridge("no reply " + reason, "no reply to " + name_ + " - " + reason);
    Close();
}

void Client::Failed() {
    LogException();
    Close();
}

void Client::Close() {
    if (std::exchange(phase_, Phase::kClosed) == Phase::kClosed) {
        return;
    }
    const auto self = shared_from_this();
    request_.reset();
    asio::error_code ignored;
    if (writing_) {
        socket_.cancel(ignored);  // under Wine, closing alone does not end a send
    }
    socket_.close(ignored);
    space_.Open();
    Remove(bridge_, number_);
}

void Client::Advance(Time now) {
    const auto self = shared_from_this();
    Try([&] {
        while (phase_ == Phase::kBusy) {
            const Answer answer = request_->Advance(now);
            if (answer.kind == Answer::Kind::kNothing) {
                break;
            }
            if (answer.kind == Answer::Kind::kPart) {
                Send(answer.text);
            } else if (answer.kind == Answer::Kind::kReply) {
                Reply(answer.text);
            } else {
                NoReply(answer.text);
            }
        }
        space_.Open();  // the server may have taken data, or there may be memory again
    });
}

bool Client::Tick(Time now, bool others_wait) {
    bool made_way = false;
    Try([&] {
        const bool hears = Hears() && !space_.IsWaitedAt();
        if (now >= write_until_) {
            Close();
        } else if ((Hears() || phase_ == Phase::kQueued) && bridge_.stopping &&
                   now >= *bridge_.stopping + Idle()) {
            NoReply("the bridge ends");
        } else if (hears && now >= heard_ + Idle()) {
            Refuse("silence", phase_ == Phase::kOpening
                                  ? "sent no command in time"
                                  : "sent nothing for " + std::to_string(bridge_.settings.idle) + " s");
        } else if (hears && others_wait && now >= paid_until_) {
            made_way = true;
            Refuse("others wait", "too slow while others wait for a place");
        } else {
            Advance(now);
        }
    });
    return made_way;
}

void Client::Stop() {
    if (phase_ == Phase::kOpening) {
        Close();
    }
}

}  // namespace kesto::bridge
