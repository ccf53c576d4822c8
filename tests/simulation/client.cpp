#include <algorithm>
#include <array>

#include "base/clamd_words.h"
#include "tests/simulation/world.h"

namespace kesto::simulation {
namespace {

constexpr uint16_t kFirstPort = 1000;

// The data of all files: a part of one table, with the client's number before it, by which it is known again.
constexpr size_t kTable = 65521;
const std::array<std::array<uint8_t, 2 * kTable>, 2> kBytes = [] {
    std::array<std::array<uint8_t, 2 * kTable>, 2> bytes;
    Dice dice(1);
    for (size_t i = 0; i < kTable; ++i) {
        bytes[0][i] = bytes[0][i + kTable] = static_cast<uint8_t>(dice.Below(256));
        bytes[1][i] = bytes[1][i + kTable] = static_cast<uint8_t>(bytes[0][i] - 1);
    }
    return bytes;
}();

std::string Words(Kind kind) {
    switch (kind) {
        case Kind::kPing:
            return std::string(kPingCommand);
        case Kind::kVersion:
            return std::string(kVersionCommand);
        case Kind::kStats:
            return std::string(kStatsCommand);
        case Kind::kNoise:
            return "GET / HTTP/1.1\r\n\r\n";
        case Kind::kTooLong:
            return std::string(kScanCommand) + std::string("\4\0\0\1", 4) + std::string(100, 'd');
        default:
            return "";
    }
}

}  // namespace

std::string SizeText(uint64_t bytes) {
    const auto tenths = [](uint64_t number) {
        return std::to_string(number / 10) + "." + std::to_string(number % 10);
    };
    return bytes < 1000        ? std::to_string(bytes) + " B"
           : bytes < 1'000'000 ? tenths(bytes / 100) + " KB"
                               : tenths(bytes / 100'000) + " MB";
}

Client::Client(World& world, size_t number, const ClientPlan& plan)
    : world(world), number(number), plan(plan), text_(Words(plan.kind)) {
    rate_ = 1e7;
    net_.After(plan.arrives, [this] { Arrive(); });
}

std::string Client::Name() const {
    return "10.9.0.1:" + std::to_string(kFirstPort + number);
}

std::string Client::Text() const {
    return "client " + std::to_string(number) +
           (Scans() ? " (" + SizeText(plan.size) + ", " + kKindNames[static_cast<size_t>(plan.kind)] + ")"
                    : std::string(" (") + kKindNames[static_cast<size_t>(plan.kind)] + ")");
}

uint64_t Client::RequestSize() const {
    const uint64_t chunks = (plan.size + plan.chunk - 1) / plan.chunk;
    return Scans() ? kScanCommand.size() + plan.size + 4 * chunks + 4 : text_.size();
}

// Any part of the request, as it is on the wire or with the shift undone.
void Client::Request(uint64_t at, std::span<uint8_t> to, bool shifted) const {
    while (!to.empty()) {
        size_t size = 1;
        const uint64_t in_chunks = at - kScanCommand.size(), chunk = in_chunks / (plan.chunk + 4);
        const uint64_t in_chunk = in_chunks % (plan.chunk + 4), data = chunk * plan.chunk + in_chunk - 4;
        const uint64_t length =
            std::min<uint64_t>(plan.chunk, plan.size - std::min(plan.size, chunk * plan.chunk));
        if (!Scans()) {
            to[0] = static_cast<uint8_t>(text_[at]);
        } else if (at < kScanCommand.size()) {
            to[0] = static_cast<uint8_t>(kScanCommand[at]);
        } else if (in_chunk < 4) {
            to[0] = static_cast<uint8_t>(length >> (24 - 8 * in_chunk));
        } else if (in_chunk >= 4 + length) {
            to[0] = 0;  // of the zero length behind a last chunk that is shorter
        } else if (data < 4) {
            to[0] = static_cast<uint8_t>((number >> (8 * data)) - shifted);
        } else {
            size = std::min({to.size(), kTable, static_cast<size_t>(length + 4 - in_chunk)});
            std::copy_n(&kBytes[shifted][(number * 977 + data) % kTable], size, to.data());
        }
        to = to.subspan(size);
        at += size;
    }
}

// Whether one more server may get its scan.
bool Client::MayBeAsked() const {
    size_t whole_ones = 0, all = 0;
    bool gone = false;
    for (const auto& line : lines) {
        const bool lost = !line->Runs() && !line->replied;
        whole_ones += line->whole && (lost || line->Runs());
        all += lost || line->Runs();
        gone |= squeezed;
    }
    return whole_ones < 3 && all < 5 && !gone && !lacked;
}

// Since the bridge took it for up last.
bool Client::HasAsked(const Server& server) const {
    return std::any_of(lines.begin(), lines.end(), [&](const auto& line) {
        const bool still = line->replied_at >= server.up_since || line->said == kSizeLimitReply;
        return line->server == &server && (line->Runs() || (line->replied && still));
    });
}

bool Client::WasTold(std::string_view text) const {
    return std::any_of(lines.begin(), lines.end(), [&](const auto& line) {
        return line->said == text && (line->whole || ReadScanAnswer(text) != ScanAnswer::kClean);
    });
}

void Client::Arrive() {
    world.Tell(Text(), " connects");
    const auto arrive = [this](auto...) {
        const Outside outside;
        world.arrivals.push_back(std::static_pointer_cast<Client>(shared_from_this()));
    };
    net_.Wake(arrive, {}, 0);
    heard = net_.now;
    Step();
    if (plan.leaves < 24h) {
        net_.After(plan.leaves, [this] { Leave("leaves", plan.resets); });
    }
}

void Client::Leave(const char* how, bool resets) {
    if (!left && IsOpen()) {
        world.Tell("client ", number, " ", how, resets ? " with a reset" : "");
        left = true;
        resets ? Break(asio::error::connection_reset) : Ends();
    }
}

void Client::Step() {
    if (steps_ || left || !IsOpen() || arrived_ == RequestSize()) {
        return;
    }
    const uint64_t until =
        arrived_ < plan.pauses_at ? std::min(plan.pauses_at, RequestSize()) : RequestSize();
    const auto piece = static_cast<uint64_t>(std::clamp(plan.rate / 5, 1.0, 65536.0));
    const uint64_t size = std::min({until - arrived_, piece, kSystemHolds - (arrived_ - read_)});
    if (size == 0 && arrived_ != until) {
        return;  // goes on when something was read
    }
    Arrives(size);
    if (arrived_ == RequestSize()) {
        world.Tell("client ", number, " has sent all");
        if (plan.finishes) {
            Ends();
        }
        return;
    }
    steps_ = true;
    const auto takes = std::chrono::duration_cast<Duration>(
        std::chrono::duration<double>(static_cast<double>(size) / plan.rate));
    net_.After(std::max<Duration>(takes, 1us) + (arrived_ == plan.pauses_at ? plan.pause : 0s), [this] {
        steps_ = false;
        Step();
    });
}

void Client::Content(uint64_t at, std::span<uint8_t> bytes) {
    Request(at, bytes, world.plan.settings.decrypt);
    world.reading += Scans() ? bytes.size() : 0;
}

void Client::WasRead() {
    heard = net_.now;
    if (came == Time{} && read_ >= kScanCommand.size()) {
        came = net_.now;
    }
    squeezed |= world.reading + (world.bridge->clients.size() << 18) > size_t{world.plan.settings.keep} << 20;
    if (read_ == RequestSize()) {
        ended = due = told = with_nobody_since = net_.now;
        world.Tell("the bridge has all of client ", number);
    }
    net_.After(0s, [this] { Step(); });
}

void Client::Writes(std::span<const uint8_t> bytes) {
    if (answered && !bytes.empty()) {
        world.Broken("client " + std::to_string(number) + " gets something after its reply");
    }
    given.append(bytes.begin(), bytes.end());
    told = net_.now;
    if (!answered && given.find('\0') != std::string::npos) {
        answered = true;
        answered_at = net_.now;
        world.Replied(*this);
    }
}

void Client::Took() {
    if (left) {
        return Break(asio::error::connection_reset);
    }
    if (delivered_ != 0 && given[delivered_ - 1] == '\0' && number % 4 != 0) {
        net_.After(net_.dice.Time(1us, 1s), [this] { Leave("has its reply and closes", false); });
    }
}

void Client::Closed(bool /*ends*/) {
    left = true;
}

}  // namespace kesto::simulation
