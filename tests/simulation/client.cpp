#include <array>

#include "tests/simulation/world.h"

namespace kesto::simulation {
namespace {

// The data of all files: a part of one table, with the client's number before it, by which it is known again.
constexpr size_t kTable = 65521;
const std::array<std::array<uint8_t, 2 * kTable>, 2> kBytes = [] {
    std::array<std::array<uint8_t, 2 * kTable>, 2> bytes;  // the second with the shift
    Dice dice(1);
    for (size_t i = 0; i < kTable; ++i) {
        bytes[0][i] = bytes[0][i + kTable] = static_cast<uint8_t>(dice.Below(256));
        bytes[1][i] = bytes[1][i + kTable] = static_cast<uint8_t>(bytes[0][i] - 1);
    }
    return bytes;
}();

constexpr std::string_view kWords[] = {kPingCommand, kVersionCommand, kStatsCommand, "GET / HTTP/1.1\r\n\r\n",
                                       std::string_view("zINSTREAM\0\4\0\0\1dddddddddddddddddd", 32)};
constexpr const char* kKindNames[] = {
    "clean",           "infected",       "takes long",       "kills its server", "an error",
    "asks for a PONG", "asks a version", "asks for numbers", "talks noise",      "sends a long chunk"};

}  // namespace

Client::Client(World& the_world, size_t the_number, Duration arrives) : world(the_world), number(the_number) {
    Dice& dice = net.dice;
    net.After(arrives, [this] { Arrive(); });
    if (arrives == 0s) {
        return;  // an ordinary one
    }
    kind = dice.OneIn(4)   ? static_cast<Kind>(dice.Between(2, 9))
           : dice.OneIn(3) ? Kind::kInfected
                           : Kind::kClean;
    words = Scans() ? "" : kWords[static_cast<size_t>(kind) - static_cast<size_t>(Kind::kPing)];
    file = dice.OneIn(20) ? 0 : dice.Wide(4, world.largest);
    chunk = dice.OneIn(4) ? static_cast<uint32_t>(dice.Wide(50, 1 << 20)) : 8192;
    speed = static_cast<double>(dice.Wide(400, 100'000'000));
    speed = std::max(speed, dice.OneIn(2) ? 1e6 : static_cast<double>(file) / 200);
    if (dice.OneIn(8)) {
        pauses_at = dice.Below(RequestSize());
        pause = dice.Time(100ms, 45s);
    }
    if (dice.OneIn(8)) {
        net.After(arrives + dice.Time(1ms, 40s), [this, resets = dice.OneIn(2)] { Leave("leaves", resets); });
    }
    finishes = dice.OneIn(8);
}

uint64_t Client::RequestSize() const {
    return Scans() ? kScanCommand.size() + file + 4 * ((file + chunk - 1) / chunk) + 4 : words.size();
}

// Any part of the request, as it is on the wire or with the shift undone.
void Client::Request(uint64_t at, std::span<uint8_t> to, bool shifted) const {
    while (!to.empty()) {
        const uint64_t in_stream = at - kScanCommand.size(), of_chunk = in_stream / (chunk + 4) * chunk;
        const uint64_t in_chunk = in_stream % (chunk + 4), data = of_chunk + in_chunk - 4;
        const uint64_t length = std::min<uint64_t>(chunk, file - std::min(file, of_chunk));
        const std::string_view start = Scans() ? kScanCommand : words;
        size_t size = 1;
        if (at < start.size()) {
            to[0] = static_cast<uint8_t>(start[at]);
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

// Three servers had all of it or may have, or five were begun with.
bool Client::IsUsedUp() const {
    const auto all =
        std::count_if(lines.begin(), lines.end(), [](const auto& line) { return !line->replied; });
    return all >= 5 || 3 <= std::count_if(lines.begin(), lines.end(), [](const auto& line) {
                           return !line->replied && (line->whole || line->Runs());
                       });
}

// Since the bridge took it for up last. For some servers a file is too large for ever.
bool Client::HasAsked(const Server& server) const {
    return std::any_of(lines.begin(), lines.end(), [&](const auto& line) {
        const bool still = line->replied_at >= server.up_since || line->said == kSizeLimitReply;
        return line->server == &server && (line->Runs() || (line->replied && still));
    });
}

bool Client::WasTold(std::string_view words_told) const {
    return std::any_of(lines.begin(), lines.end(), [&](const auto& line) {
        return line->said == words_told && (line->whole || words_told != kCleanReply);
    });
}

void Client::Arrive() {
    world.Tell(Text(), " (", Scans() ? std::to_string(file) + " bytes, " : "",
               kKindNames[static_cast<size_t>(kind)], ") connects");
    const auto arrive = [this](auto...) {
        const Outside outside;
        world.arrivals.push_back(std::static_pointer_cast<Client>(shared_from_this()));
    };
    net.Wake(arrive, {}, 0);
    heard = net.now;
    Step();
}

void Client::Leave(const char* how, bool resets) {
    if (!left && IsOpen()) {
        world.Tell(Text(), " ", how, resets ? " with a reset" : "");
        left = true;
        resets ? Break(asio::error::connection_reset) : Ends();
    }
}

// Sends what can be sent.
void Client::Step() {
    const uint64_t all = RequestSize(), until = arrived < pauses_at ? std::min(pauses_at, all) : all;
    const auto piece = static_cast<uint64_t>(std::clamp(speed / 5, 1.0, 65536.0));
    const uint64_t part = std::min({until - arrived, piece, kSystemHolds - (arrived - read)});
    if (steps || left || !IsOpen() || (part == 0 && arrived != until) || arrived == all) {
        return;
    }
    Arrives(part);
    if (arrived == all) {
        world.Tell(Text(), " has sent all");
        return finishes ? Ends() : void();
    }
    steps = true;
    const auto takes = std::chrono::duration<double>(static_cast<double>(part) / speed);
    net.After(std::chrono::duration_cast<Duration>(takes) + 1us + (arrived == pauses_at ? pause : 0s),
              [this] {
                  steps = false;
                  Step();
              });
}

void Client::Content(uint64_t at, std::span<uint8_t> to) {
    Request(at, to, world.settings.decrypt);
    world.reading += Scans() ? to.size() : 0;
}

void Client::WasRead() {
    heard = net.now;
    if (came == Time{} && read >= kScanCommand.size()) {
        came = net.now;
    }
    squeezed |= world.reading + (world.bridge->clients.size() << 18) > size_t{world.settings.keep} << 20;
    if (read == RequestSize()) {
        ended = due = told = alone_since = net.now;
        world.Tell("the bridge has all of ", Text());
    }
    net.After(0s, [this] { Step(); });
}

void Client::Writes(std::span<const uint8_t> bytes) {
    if (answered) {
        world.Broken(Text(), " gets something after its reply");
    }
    text.append(bytes.begin(), bytes.end());
    answered = text.find('\0') != std::string::npos;
    if (answered) {
        answered_at = net.now;
        world.Replies(*this);
    } else if (!finishes && !left && net.now < ended + 15s * text.size()) {
        world.Broken(Text(), " gets a byte too early");
    }
    told = net.now;
}

void Client::Took() {
    if (left) {
        return Break(asio::error::connection_reset);
    }
    if (delivered != 0 && text[delivered - 1] == '\0' && number % 4 != 0) {
        net.After(net.dice.Time(1us, 1s), [this] { Leave("has its reply and closes", false); });
    }
}

}  // namespace kesto::simulation
