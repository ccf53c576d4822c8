#include <algorithm>
#include <cstring>
#include <utility>

#include "base/clamd_words.h"
#include "tests/simulation/world.h"

namespace kesto::simulation {
namespace {

constexpr size_t kHead = 18;  // tells whose scan it is
constexpr std::string_view kProbe("zINSTREAM\0\0\0\0\5clean\0\0\0\0", 23);

std::string SetName(size_t number, const ServerPlan& plan) {
    const std::string n = std::to_string(number);
    return plan.named ? "s" + n + ".example:3313"
           : plan.v6  ? "[fd00::" + n + "]:3310"
                      : "10.0." + n + ".1:3310";
}

}  // namespace

Server::Server(World& world, size_t number, const ServerPlan& plan)
    : world(world),
      number(number),
      plan(plan),
      name(SetName(number, plan)),
      known(!plan.named),
      idle_since(world.net.now) {
    for (const FaultPlan& each : plan.faults) {
        world.net.After(each.from, [this, each] { Begin(each.fault); });
        if (each.fault != Fault::kMoved) {
            world.net.After(each.until, [this] { End(); });
        }
    }
    Forgotten();
}

void Server::Begin(Fault next) {
    if (!known || (next == fault)) {
        return;
    }
    const Fault before = std::exchange(fault, next);
    fault_at = world.net.now;
    world.Tell(name, next == Fault::kNone ? " is well again"
                                          : std::string(" ") + kFaultNames[static_cast<size_t>(next)]);
    if (next == Fault::kMoved) {
        known = false;
        ++moves;
    }
    const std::vector<std::shared_ptr<ServerLine>> all = lines;
    for (const auto& line : all) {
        if (next == Fault::kRefuses || next == Fault::kMoved || before == Fault::kDeaf) {
            line->Break(asio::error::connection_reset);
        } else if (next == Fault::kForgets) {
            line->Forget();
        }
    }
    if (next == Fault::kForgets) {
        fault = Fault::kNone;
    }
    Pump();
}

void Server::Pump() {
    const std::vector<std::shared_ptr<ServerLine>> all = lines;
    for (const auto& line : all) {
        line->Resume();
    }
    std::erase_if(lines, [](const auto& line) { return !line->IsOpen(); });
}

void Server::Found() {
    if (!std::exchange(known, true)) {
        fault = Fault::kNone;
        fault_at = world.net.now;
    }
}

void Server::Forgotten() {
    if (plan.named) {
        fault = Fault::kMoved;
        known = false;
    }
}

LinePtr Server::Connect() {
    lines.push_back(std::make_shared<ServerLine>(world, this));
    asked_at = world.net.now;
    return lines.back();
}

// One that is busy has a thread for the first one alone.
bool Server::Serves(const ServerLine& line) const {
    if (StandsStill() || fault != Fault::kBusy) {
        return !StandsStill();
    }
    const auto first =
        std::find_if(lines.begin(), lines.end(), [](const auto& each) { return each->Runs(); });
    return first != lines.end() && first->get() == &line;
}

size_t Server::Open() const {
    return static_cast<size_t>(
        std::count_if(lines.begin(), lines.end(), [](const auto& line) { return line->Runs(); }));
}

ServerLine::ServerLine(World& world, Server* server, bool refuses)
    : server(server), began(world.net.now), world_(world), refuses_(refuses) {}

void ServerLine::Begins() {
    if (server != nullptr) {
        net_.After(delay_, [self = shared_from_this(), this] { Accept(); });
    } else if (refuses_) {
        net_.After(delay_, [self = shared_from_this(), this] { Connected(asio::error::connection_refused); });
    }
}

void ServerLine::Accept() {
    if (accepted_ || !IsOpen() || server->fault == Fault::kUnanswered || server->fault == Fault::kFrozen) {
        return;
    }
    accepted_ = true;
    Connected(server->fault == Fault::kRefuses ? asio::error::connection_refused : asio::error_code());
    if (server->fault == Fault::kResets) {
        net_.After(net_.dice.Time(1us, 300ms),
                   [self = shared_from_this(), this] { Break(asio::error::connection_reset); });
    }
}

void ServerLine::Resume() {
    if (!accepted_) {
        net_.After(net_.dice.Time(1ms, 2s), [self = shared_from_this(), this] { Accept(); });
    }
    Flow();
    if (delivered_ >= size_ && !std::exchange(answers_, true)) {
        Answer();
    }
}

bool ServerLine::Takes() const {
    return accepted_ && server->Serves(*this);
}

void ServerLine::Content(uint64_t at, std::span<uint8_t> bytes) {
    std::memcpy(bytes.data(), reply_.data() + at, bytes.size());
}

void ServerLine::WasRead() {
    const size_t nul = reply_.find('\0');
    if (replied || nul == std::string::npos || read_ <= nul || (client == nullptr && head_ != kProbe)) {
        return;
    }
    said = reply_.substr(0, nul);
    const ScanAnswer answer = ReadScanAnswer(said);
    replied = answer != ScanAnswer::kClean || given_ == size_;  // the bridge takes no notice of one too early
    replied_at = net_.now;
    if (replied) {
        (answer == ScanAnswer::kNoVerdict ? server->erred_at : server->verdict_at) = net_.now;
    }
    if (client != nullptr) {
        world_.Tell("the bridge reads \"", said, "\" of ", server->name, " for client ", client->number);
        client->verdict_read |= replied && answer != ScanAnswer::kNoVerdict;
    }
    server->Pump();
}

// Everything that leaves the bridge must be what its client sent, or a question of the bridge's own.
void ServerLine::Gives(std::span<const uint8_t> bytes) {
    static std::array<uint8_t, kSystemHolds> expected;
    while (client != nullptr && !bytes.empty()) {
        const auto part = bytes.first(std::min(bytes.size(), expected.size()));
        client->Request(given_at_, std::span(expected).first(part.size()), false);
        if (std::memcmp(part.data(), expected.data(), part.size()) != 0) {
            world_.Broken("wrong bytes of client " + std::to_string(client->number) + " go to " +
                          server->name);
        }
        given_at_ += part.size();
        whole = given_at_ == client->RequestSize();
        bytes = bytes.subspan(part.size());
    }
}

// Tells whose it is.
void ServerLine::Writes(std::span<const uint8_t> bytes) {
    if (!head_.empty()) {
        return;
    }
    head_.assign(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(std::min<size_t>(bytes.size(), 32)));
    if (std::string_view(head_).starts_with(kScanCommand)) {
        if (head_.size() >= 14 && std::string_view(head_).substr(10, 4) == std::string_view("\0\0\0\0", 4)) {
            size_ = 14;
        } else if (kProbe.starts_with(head_)) {
            size_ = kProbe.size();
        } else if (head_.size() >= kHead) {
            uint32_t number = 0;
            std::memcpy(&number, head_.data() + 14, sizeof number);
            if (number >= world_.clients.size() || !world_.clients[number]->Scans()) {
                return world_.Broken("bytes that nobody sent go to " + server->name);
            }
            client = world_.clients[number].get();
            size_ = client->RequestSize();
            client->lines.push_back(std::static_pointer_cast<ServerLine>(shared_from_this()));
            world_.AttemptIsKnown(*client, *this);
        }
    } else {
        size_ = head_.size();
    }
}

void ServerLine::Took() {
    if (client != nullptr && server->fault == Fault::kHasty && delivered_ > 20 && delivered_ < size_ &&
        !std::exchange(answers_, true)) {
        Say("stream: OK");
    } else if (client != nullptr && delivered_ > server->plan.largest && !std::exchange(answers_, true)) {
        Say(std::string(kSizeLimitReply));
    } else if (client != nullptr && client->plan.kind == Kind::kInfected && client->number % 4 == 0 &&
               delivered_ > size_ / 2 && server->fault == Fault::kNone && !std::exchange(answers_, true)) {
        Say("stream: Evil." + std::to_string(client->number) + " FOUND");
    } else if (delivered_ >= size_ && !std::exchange(answers_, true)) {
        got_all = true;
        const bool takes_long = client != nullptr && client->plan.kind == Kind::kLong;
        Duration takes =
            net_.dice.Time(100us, server->plan.scan) + (takes_long ? net_.dice.Time(8s, 40s) : 0s);
        takes *= server->fault == Fault::kSlow ? 20 : 1;
        net_.After(takes, [self = shared_from_this(), this] { Answer(); });
    }
}

void ServerLine::Answer() {
    if (!IsOpen() || server->fault == Fault::kDeaf) {
        return;
    }
    if (!server->Serves(*this)) {
        answers_ = false;  // Resume will
        return;
    }
    const Kind kind = client != nullptr ? client->plan.kind : Kind::kClean;
    if (server->fault == Fault::kGarbled) {
        return Say(net_.dice.OneIn(2) ? "stream: OK" : "stream: " + std::string(9000, 'x'), false);
    }
    if (server->fault == Fault::kSick && head_.starts_with(kScanCommand)) {
        constexpr const char* kErrors[] = {"stream: no memory ERROR", "UNKNOWN COMMAND", "stream: OK "};
        return Say(kErrors[net_.dice.Below(3)]);
    }
    if (!head_.starts_with(kScanCommand)) {
        return Say(head_.starts_with("zPING") ? "PONG" : "Engine 1/27000/Fri Nov 20 09:12:31 2026");
    }
    if (kind == Kind::kKiller) {
        server->Begin(Fault::kRefuses);
        return net_.After(net_.dice.Time(500ms, 20s), [server = server] { server->End(); });
    }
    Say(kind == Kind::kInfected ? "stream: Evil." + std::to_string(client->number) + " FOUND"
        : kind == Kind::kErrs   ? "stream: cannot open ERROR"
                                : "stream: OK");
}

// And ends, in one of the ways in which servers do.
void ServerLine::Say(const std::string& text, bool whole_reply) {
    if (!IsOpen()) {
        return;
    }
    world_.Tell(server->name, " says \"", text.substr(0, 40), "\"",
                client != nullptr ? " to client " + std::to_string(client->number) : "");
    reply_ = text;
    if (whole_reply) {
        reply_ += '\0';
    }
    const bool early = delivered_ < size_;
    switch (net_.dice.Below(early ? 2 : 4)) {
        case 0:  // its reset is there with the reply
            arrived_ += reply_.size();
            return Break(asio::error::connection_reset);
        case 1:
            Arrives(reply_.size());
            return net_.After(1ms,
                              [self = shared_from_this(), this] { Break(asio::error::connection_reset); });
        case 2:
            Arrives(reply_.size() / 2);
            return net_.After(net_.dice.Time(1ms, 1s), [self = shared_from_this(), this] {
                Arrives(reply_.size() - reply_.size() / 2);
                Ends();
            });
        default:
            Arrives(reply_.size());
            Ends();
    }
}

void ServerLine::Closed(bool /*ends*/) {
    Break(asio::error::connection_reset);
    if (server != nullptr) {
        server->Pump();
    }
}

}  // namespace kesto::simulation
