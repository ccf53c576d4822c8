#include <cstring>

#include "tests/simulation/world.h"

namespace kesto::simulation {
namespace {

constexpr const char* kFaultNames[] = {
    "is well again",         "dies",         "cannot be reached", "freezes",
    "stands still",          "goes deaf",    "becomes sick",      "becomes hasty",
    "becomes garbled",       "becomes slow", "becomes busy",      "begins to reset",
    "loses all connections", "moves"};
constexpr size_t kHead = 18;  // tells whose scan it is
constexpr std::string_view kProbe("zINSTREAM\0\0\0\0\5clean\0\0\0\0", 23);

}  // namespace

Server::Server(World& the_world, size_t the_number) : world(the_world), number(the_number) {
    Dice& dice = world.net.dice;
    named = dice.OneIn(3);
    v6 = dice.OneIn(8);
    dead_address = named && dice.OneIn(3) ? dice.Between(1, 2) : 0;
    largest = dice.OneIn(4) ? dice.Wide(2000, 1'000'000) : UINT64_MAX;
    scan = dice.Time(1ms, 2s);
    const std::string n = std::to_string(number);
    name = named ? "s" + n + ".example:3313" : v6 ? "[fd00::" + n + "]:3310" : "10.0." + n + ".1:3310";
    Forgotten();
    if (named && dice.OneIn(6)) {
        world.net.After(dice.Time(1s, world.lasts), [this] { Begin(Fault::kMoved); });
    } else if (!dice.OneIn(4)) {
        for (Duration at = dice.Time(1ms, 60s); at < world.lasts; at += dice.Time(1s, 60s)) {
            const auto next = static_cast<Fault>(dice.Between(1, 12));
            world.net.After(at, [this, next] { Begin(next); });
            at += next == Fault::kForgets ? 21s : dice.Time(200ms, 100s);
            world.net.After(at, [this] { Begin(Fault::kNone); });
        }
    }
}

void Server::Begin(Fault next) {
    if (!known || next == fault) {
        return;
    }
    world.Tell(name, " ", kFaultNames[static_cast<size_t>(next)]);
    const Fault before = std::exchange(fault, next);
    fault_at = world.net.now;
    known = next != Fault::kMoved;
    moves += !known;
    const auto all = lines;
    for (const auto& line : all) {
        if (next == Fault::kRefuses || next == Fault::kMoved || before == Fault::kDeaf) {
            line->Break(asio::error::connection_reset);
        } else if (next == Fault::kForgets) {
            line->Forget();
        }
    }
    Pump();
}

void Server::Found() {
    if (!std::exchange(known, true)) {
        fault = Fault::kNone;
        fault_at = world.net.now;
    }
}

void Server::Forgotten() {
    if (named) {
        fault = Fault::kMoved;
        known = false;
    }
}

void Server::Pump() {
    const auto all = lines;
    for (const auto& line : all) {
        line->Resume();
    }
    std::erase_if(lines, [](const auto& line) { return !line->IsOpen(); });
}

// One that is busy has a thread for the first one alone.
bool Server::Serves(const ServerLine& line) const {
    const auto first =
        std::find_if(lines.begin(), lines.end(), [](const auto& each) { return each->Runs(); });
    return !StandsStill() && (fault != Fault::kBusy || (first != lines.end() && first->get() == &line));
}

size_t Server::Scans() const {
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [](const auto& line) {
        return line->client != nullptr && line->Runs();
    }));
}

void ServerLine::Begins() {
    net.After(delay, [self = shared_from_this(), this] {
        if (server != nullptr) {
            Accept();
        } else if (refuses) {
            Connected(asio::error::connection_refused);
        }
    });
}

void ServerLine::Accept() {
    if (accepted || !IsOpen() || server->fault == Fault::kUnanswered || server->fault == Fault::kFrozen) {
        return;
    }
    accepted = true;
    Connected(server->fault == Fault::kRefuses ? asio::error::connection_refused : asio::error_code());
    if (server->fault == Fault::kResets) {
        net.After(net.dice.Time(1us, 300ms),
                  [self = shared_from_this(), this] { Break(asio::error::connection_reset); });
    }
}

// The server goes on, perhaps.
void ServerLine::Resume() {
    if (!accepted) {
        net.After(net.dice.Time(1ms, 2s), [self = shared_from_this(), this] { Accept(); });
    }
    Flow();
    if (delivered >= size && !std::exchange(answers, true)) {
        Answer();
    }
}

void ServerLine::Content(uint64_t at, std::span<uint8_t> to) {
    std::memcpy(to.data(), reply.data() + at, to.size());
}

void ServerLine::WasRead() {
    const size_t nul = reply.find('\0');
    if (replied || nul == std::string::npos || read <= nul || (client == nullptr && head != kProbe)) {
        return;
    }
    said = reply.substr(0, nul);
    const ScanAnswer answer = ReadScanAnswer(said);
    replied = answer != ScanAnswer::kClean || given == size;  // one too early is none
    replied_at = net.now;
    if (replied) {
        (answer == ScanAnswer::kNoVerdict ? server->erred_at : server->verdict_at) = net.now;
    }
    if (client != nullptr) {
        world.Tell("the bridge reads \"", said, "\" of ", server->name, " for ", *client);
    }
    server->Pump();
}

// Tells whose it is.
void ServerLine::Writes(std::span<const uint8_t> bytes) {
    if (!head.empty()) {
        return;
    }
    head.assign(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(std::min<size_t>(bytes.size(), 32)));
    size = head.size();  // of a question, or an empty file
    if (head.starts_with(kScanCommand) && head != kProbe && size >= kHead) {
        uint32_t number = 0;
        std::memcpy(&number, head.data() + 14, sizeof number);
        if (number >= world.clients.size() || !world.clients[number]->Scans()) {
            return world.Broken("bytes that nobody sent go to ", server->name);
        }
        client = world.clients[number].get();
        size = client->RequestSize();
        client->lines.push_back(std::static_pointer_cast<ServerLine>(shared_from_this()));
        world.AttemptBegins(*client, *this);
    }
}

// Everything that leaves the bridge must be what its client sent.
void ServerLine::Gives(std::span<const uint8_t> bytes) {
    static std::array<uint8_t, kSystemHolds> expected;
    while (client != nullptr && !bytes.empty()) {
        const auto part = bytes.first(std::min(bytes.size(), expected.size()));
        client->Request(checked, std::span(expected).first(part.size()), false);
        if (std::memcmp(part.data(), expected.data(), part.size()) != 0) {
            world.Broken("wrong bytes of ", *client, " go to ", server->name);
        }
        checked += part.size();
        whole = checked == size;
        bytes = bytes.subspan(part.size());
    }
}

void ServerLine::Took() {
    const bool early = client != nullptr && delivered < size;
    const bool found =
        early && client->kind == Kind::kInfected && client->number % 4 == 0 && server->IsWell();
    const bool hasty = early && server->fault == Fault::kHasty && delivered > 20;
    const bool too_large = client != nullptr && delivered > server->largest;
    if (!(found && delivered > size / 2) && !hasty && !too_large && delivered < size) {
        return;
    }
    if (std::exchange(answers, true)) {
        return;
    }
    if (hasty || too_large) {
        Say(std::string(hasty ? kCleanReply : kSizeLimitReply));
    } else if (found) {
        Answer();
    } else {
        Duration takes = net.dice.Time(100us, server->scan) * (server->fault == Fault::kSlow ? 20 : 1);
        takes += client != nullptr && client->kind == Kind::kLong ? net.dice.Time(8s, 40s) : 0s;
        net.After(takes, [self = shared_from_this(), this] { Answer(); });
    }
}

void ServerLine::Answer() {
    if (!IsOpen() || server->fault == Fault::kDeaf) {
        return;
    }
    if (!server->Serves(*this)) {
        answers = false;  // Resume will
        return;
    }
    const Kind kind = client != nullptr ? client->kind : Kind::kClean;
    if (!head.starts_with(kScanCommand)) {
        Say(head.starts_with("zPING") ? "PONG" : "Engine 1/27000/Fri Nov 20 09:12:31 2026");
    } else if (server->fault == Fault::kGarbled) {
        Say("stream: " + (net.dice.OneIn(2) ? "OK" : std::string(9000, 'x')), false);
    } else if (server->fault == Fault::kSick) {
        constexpr const char* kErrors[] = {"stream: no memory ERROR", "UNKNOWN COMMAND", "stream: OK "};
        Say(kErrors[net.dice.Below(3)]);
    } else if (kind == Kind::kKiller) {
        net.After(net.dice.Time(500ms, 20s), [server = server] { server->Begin(Fault::kNone); });
        server->Begin(Fault::kRefuses);
    } else {
        Say(kind == Kind::kInfected ? "stream: Evil." + std::to_string(client->number) + " FOUND"
            : kind == Kind::kErrs   ? "stream: cannot open ERROR"
                                    : std::string(kCleanReply));
    }
}

// And ends, in one of the ways in which servers do.
void ServerLine::Say(const std::string& text, bool whole_reply) {
    world.Tell(*server, " says \"", text.substr(0, 40), client != nullptr ? "\" to a client" : "\"");
    reply = text + std::string(whole_reply, '\0');
    const uint64_t way = net.dice.Below(delivered < size ? 2 : 4),
                   first = way == 2 ? reply.size() / 2 : reply.size();
    if (way == 0) {  // its reset is there with the reply
        arrived += first;
        return Break(asio::error::connection_reset);
    }
    Arrives(first);
    net.After(way == 2 ? net.dice.Time(1ms, 1s) : 1ms, [self = shared_from_this(), this, way, first] {
        Arrives(reply.size() - first);
        way == 1 ? Break(asio::error::connection_reset) : Ends();
    });
}

void ServerLine::Closed(bool /*ends*/) {
    Break(asio::error::connection_reset);
    server->Pump();
}

}  // namespace kesto::simulation
