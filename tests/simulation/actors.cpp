// What servers and clients do.
#include <cstring>

#include "base/byte_shift.h"
#include "tests/simulation/world.h"

namespace kesto::simulation {
namespace {

using namespace std::string_literals;

constexpr const char* kFaultNames[] = {
    "is well again",        "dies",          "freezes",      "stands still", "goes deaf",
    "becomes sick",         "becomes hasty", "becomes slow", "becomes busy", "begins to reset",
    "loses all connections"};

// The data of all files: parts of one table, with the client's number before it, by which it is known again.
const std::array<uint8_t, 65521> kBytes = [] {
    std::array<uint8_t, 65521> bytes;
    Dice dice(1);
    std::ranges::generate(bytes, [&] { return static_cast<uint8_t>(dice.Below(256)); });
    return bytes;
}();

// What those say that do not scan.
constexpr std::string_view kWords[] = {kPingCommand, kVersionCommand, kStatsCommand, "zPINGS",
                                       std::string_view("zINSTREAM\0\4\0\0\1dddddddddddddddddd", 32),
                                       // the longest that there may be, of which not all comes
                                       std::string_view("zINSTREAM\0\4\0\0\0eeeeeeeeeeeeeeeeee", 32)};
constexpr const char* kKindNames[] = {
    "clean",           "infected",       "takes long",       "kills its server", "an error",
    "asks for a PONG", "asks a version", "asks for numbers", "talks noise",      "sends a long chunk"};

}  // namespace

Server::Server(size_t the_number) : number(the_number) {
    Network& net = g_world->net;
    Dice& dice = net.dice;
    named = dice.OneIn(3);
    has_other = named && dice.OneIn(3);
    other_errs = has_other && dice.OneIn(2);
    largest = dice.OneIn(4) ? dice.Wide(2000, 1'000'000) : UINT64_MAX;
    scan = dice.Time(1ms, 2s);
    rate = dice.OneIn(4) && g_world->settings.idle >= 30 ? 1e5 : 1e8;
    name = named ? "s" + std::to_string(number) + ".example:3313" : At(1, dice.OneIn(4)) + ":3310";
    Know(false);
    const bool fails = !dice.OneIn(4);
    for (Duration at = dice.Time(1ms, 60s); fails && at < g_world->lasts; at += dice.Time(1s, 60s)) {
        net.After(at, [this, next = static_cast<Fault>(dice.Between(1, 10))] { Begin(next); });
        net.After(at += dice.Time(200ms, 100s), [this] { Begin(Fault::kNone); });
    }
}

void Server::Begin(Fault next) {
    if (next == fault) {
        return;
    }
    g_world->Tell(name, " ", kFaultNames[static_cast<size_t>(next)]);
    // Connections that there are may still have the fault.
    const bool lasts_on = next == Fault::kForgets || fault == Fault::kSlow || fault == Fault::kSick;
    fault = next;
    fault_at = std::max(fault_at, g_world->net.now + (lasts_on ? 20s : 0s));
    for (const auto& line : lines) {
        next == Fault::kDead ? line->Reset() : next == Fault::kForgets ? line->Forget() : void();
    }
    if (named && next == Fault::kDead && !g_world->calm && g_world->net.dice.OneIn(4)) {
        place = place % 4 + 1;  // where it comes back
        Know(false);
    }
    Pump();
}

// An address whose last byte tells the server and the place.
std::string Server::At(size_t its_place, bool v6) const {
    return v6 ? "[fd00::" + std::to_string(10 * number + its_place) + "]"
              : "10.0.0." + std::to_string(16 * number + its_place);
}

// The bridge does from now on, or no more.
void Server::Know(bool its_address) {
    if (named && known != its_address) {
        known = its_address;
        fault_at = g_world->net.now;
    }
}

void Server::Pump() {
    for (const auto& line : std::vector(lines)) {
        line->Resume();
    }
    std::erase_if(lines, [](const auto& line) { return !line->IsOpen(); });
}

// One that is busy has a thread for the first one alone.
bool Server::Serves(const ServerLine& line) const {
    const auto runs = [](const auto& each) { return each->is_there && each->Runs(); };
    const auto first = std::ranges::find_if(lines, runs);
    return !line.is_there || (fault != Fault::kFrozen && fault != Fault::kStopped &&
                              (fault != Fault::kBusy || (first != lines.end() && first->get() == &line)));
}

void ServerLine::Accept() {
    const bool nobody = is_there ? server->fault == Fault::kFrozen : !server->other_errs && net.dice.OneIn(2);
    if (accepted || !IsOpen() || nobody) {
        return;
    }
    accepted = is_there ? server->fault != Fault::kDead : server->other_errs;
    Connected(accepted ? asio::error_code() : asio::error::connection_refused);
    if (server->fault == Fault::kResets) {
        net.After(net.dice.Time(1us, 300ms), [self = shared_from_this()] { self->Reset(); });
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

void ServerLine::WasRead() {
    const size_t nul = reply.find('\0');
    if (replied || nul == std::string::npos || read <= nul || !head.starts_with(kScanCommand)) {
        return;
    }
    said = reply.substr(0, nul);
    replied = ReadScanAnswer(said) != ScanAnswer::kClean || IsWhole();  // one too early is none
    replied_at = net.now;
    if (HasVerdict() && IsCurrent()) {
        server->verdict_at = net.now;
        server->failed = IsProbe() ? server->failed : 0;
        server->pauses = IsProbe() || !server->up || sent != size ? server->pauses : 0;
    } else if (Erred()) {
        server->erred_at = net.now;
        server->sick_at = IsProbe() ? net.now : server->sick_at;
    }
    g_world->Tell("the bridge reads \"", said, "\" of ", server->name);
    net.After(0s, [server = server] { server->Pump(); });
}

// Tells whose it is.
void ServerLine::Writes(std::span<const uint8_t> bytes) {
    g_world->Never(!keeps_alive, "a connection to ", server->name, " is not kept alive");
    if (!head.empty()) {
        return;
    }
    head.assign(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(std::min<size_t>(bytes.size(), 32)));
    size = head.size();  // of a question, or an empty file
    server->versions += head.starts_with("zVERSION");
    if (IsProbe()) {
        server->probed_at = net.now;
        g_world->Never(++server->probes > 60 + (net.now - Time(24h)) / 1s, server->name,
                       " is probed too often");
        const auto probes = [](const auto& line) {
            return line->IsProbe() && line->Runs() && line->IsCurrent();
        };
        g_world->Never(std::ranges::count_if(server->lines, probes) > 1, server->name,
                       " gets two probes at a time");
    } else if (head.starts_with(kScanCommand) && size >= 18) {
        uint32_t number = 0;
        std::memcpy(&number, head.data() + 14, sizeof number);
        client = g_world->clients.at(number).get();
        size = client->RequestSize();
        g_world->AttemptBegins(*client, *this);
        client->lines.push_back(std::static_pointer_cast<ServerLine>(shared_from_this()));
    }
}

// Everything that leaves the bridge must be what its client sent.
void ServerLine::Gives(std::span<const uint8_t> bytes) {
    if (client != nullptr && !bytes.empty()) {
        std::vector<uint8_t> expected(bytes.size());
        client->Request(given, expected, false);
        g_world->Never(std::memcmp(bytes.data(), expected.data(), bytes.size()) != 0, "wrong bytes of ",
                       client->name, " go to ", server->name);
    }
}

// Some files, and some servers, need less than all of it for a reply.
void ServerLine::Took() {
    const bool finds = client != nullptr && client->kind == Kind::kInfected && client->number % 4 == 0;
    const bool hurries = client != nullptr && server->fault == Fault::kHasty;
    const uint64_t enough = std::min(hurries ? 20 : finds ? size / 2 : size, server->largest);
    if (delivered <= std::min(enough, size - 1) || std::exchange(answers, true)) {
        return;
    }
    Duration takes = net.dice.Time(100us, server->scan) * (server->fault == Fault::kSlow ? 20 : 1);
    takes += client != nullptr && client->kind == Kind::kLong ? net.dice.Time(8s, 40s) : 0s;
    net.After(delivered < size || !is_there ? 0s : takes, [self = shared_from_this(), this] { Answer(); });
}

void ServerLine::Answer() {
    if (!IsOpen() || (is_there && server->fault == Fault::kDeaf) || !server->Serves(*this)) {
        answers = false;  // Resume will
        return;
    }
    const bool hurries = server->fault == Fault::kHasty && delivered < size;
    const Kind kind = client != nullptr && !hurries ? client->kind : Kind::kClean;
    const bool spares_probes = server->number % 2 == 1 && client == nullptr;
    if (!head.starts_with(kScanCommand)) {
        Say(head.starts_with("zPING") ? "PONG\0"s : "Engine 1/27000/Fri Nov 20 09:12:31 2026\0"s);
    } else if (!is_there || (server->fault == Fault::kSick && !spares_probes)) {
        const std::string errors[] = {"stream: no memory ERROR\0"s, "UNKNOWN COMMAND\0"s, "stream: OK \0"s,
                                      "stream: OK"s, std::string(9000, 'x')};
        Say(errors[net.dice.Below(5)]);
    } else if (kind == Kind::kKiller) {
        net.After(net.dice.Time(500ms, 20s), [server = server] {
            server->fault == Fault::kDead ? server->Begin(Fault::kNone) : void();
        });
        server->Begin(Fault::kDead);
    } else {
        Say(std::string(delivered > server->largest ? kSizeLimitReply
                        : kind == Kind::kErrs       ? "stream: cannot open ERROR"
                        : kind == Kind::kInfected   ? client->found
                                                    : kCleanReply) +
            '\0');
    }
}

// And ends, in one of the ways in which servers do.
void ServerLine::Say(const std::string& text) {
    g_world->Tell(server->name, " says \"", std::string_view(text.c_str()).substr(0, 40),
                  client != nullptr ? "\" to a client" : "\"");
    reply = text;
    const uint64_t way = net.dice.Below(delivered < size ? 2 : 4),
                   first = way == 2 ? reply.size() / 2 : reply.size();
    if (way == 0) {  // its reset is there with the reply
        arrived += first;
        return Reset();
    }
    Arrives(first);
    net.After(way == 2 ? net.dice.Time(1ms, 1s) : 1ms, [self = shared_from_this(), this, way, first] {
        Arrives(reply.size() - first);
        way == 1 ? Reset() : Ends();
    });
}

void ServerLine::Closed(bool /*ends*/) {
    Reset();
    server->Pump();
}

Client::Client(size_t the_number, Duration arrives, bool is_ordinary) : number(the_number) {
    Dice& dice = net.dice;
    net.After(arrives, [this] { Arrive(); });
    if (is_ordinary) {
        return;
    }
    kind = dice.OneIn(4)   ? static_cast<Kind>(dice.Between(2, 9))
           : dice.OneIn(3) ? Kind::kInfected
                           : Kind::kClean;
    const size_t other = static_cast<size_t>(kind) - static_cast<size_t>(Kind::kPing);
    words = Scans() ? "" : kWords[other + (kind == Kind::kTooLong && dice.OneIn(2))];
    file = dice.OneIn(20) ? 0 : dice.Wide(4, g_world->largest);
    chunk = dice.OneIn(4) ? static_cast<uint32_t>(dice.Wide(50, 1 << 20)) : 8192;
    speed = static_cast<double>(dice.Wide(400, 100'000'000));
    speed = std::max(speed, dice.OneIn(2) ? 1e6 : static_cast<double>(file) / 200);
    if (dice.OneIn(8)) {
        pauses_at = dice.OneIn(4) ? 0 : dice.Below(RequestSize());
        pause = dice.Time(100ms, 45s);
    }
    if (dice.OneIn(8)) {
        net.After(arrives + dice.Time(1ms, 40s), [this, resets = dice.OneIn(2)] { Leave("leaves", resets); });
    }
    finishes = dice.OneIn(8) && kind != Kind::kTooLong;
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
            const size_t from = (number * 977 + data) % kBytes.size();
            size = std::min({to.size(), kBytes.size() - from, static_cast<size_t>(length + 4 - in_chunk)});
            std::copy_n(&kBytes[from], size, to.data());
            shifted ? ShiftBytes(to.data(), size, -1) : void();
        }
        to = to.subspan(size);
        at += size;
    }
}

// Three servers had all of it or may have, or five had some of it, or had been begun with.
bool Client::IsUsedUp(bool by_all) const {
    size_t begun = 0, whole = 0;
    for (const auto& line : lines) {
        begun += !line->replied && (by_all || line->sent != 0);
        whole += !line->replied && (line->sent == line->size || line->Runs());
    }
    return begun >= 5 || whole >= 3;
}

// No server can get it any more, since not all of it is kept.
bool Client::IsSqueezed() const {
    return squeezed && std::ranges::any_of(lines, [](const auto& line) { return line->given != 0; });
}

// Since the bridge took it for up last. For some servers a file is too large for ever.
bool Client::HasAsked(const Server& server) const {
    return std::ranges::any_of(lines, [&](const auto& line) {
        const bool still = line->replied_at >= server.turned_at || line->said == kSizeLimitReply;
        return line->server == &server && (line->Runs() || (line->replied && still));
    });
}

// As far as the bridge may know. Attempts may have broken before they were noticed here, the first one with
// any server.
bool Client::MayHave(const Server& server) const {
    const bool tried = lines.size() <= repeats || asked.find(server.name) != std::string::npos;
    return server.up && !HasAsked(server) && !IsSqueezed() && !IsUsedUp(tried) && !(tried && repeats >= 4);
}

bool Client::WasTold(std::string_view words_told) const {
    return std::ranges::any_of(lines, [&](const auto& line) {
        return line->said == words_told && (line->IsWhole() || words_told != kCleanReply);
    });
}

void Client::Arrive() {
    g_world->Tell(name, " (", Scans() ? std::to_string(file) + " bytes, " : "",
                  kKindNames[static_cast<size_t>(kind)], ") connects");
    g_world->arrivals.push_back(std::static_pointer_cast<Client>(shared_from_this()));
    net.Wake([](auto...) {}, {}, 0);
    heard = net.now;
    net.After(pauses_at == 0 ? pause : 0s, [this] { Step(); });
}

void Client::Leave(const char* how, bool resets) {
    if (IsOpen() && !std::exchange(left, true)) {
        g_world->Tell(name, " ", how, resets ? " with a reset" : "");
        resets ? Reset() : Ends();
    }
}

// Sends what can be sent.
void Client::Step() {
    const uint64_t all = RequestSize(), until = arrived < pauses_at ? std::min(pauses_at, all) : all;
    const auto piece = static_cast<uint64_t>(std::clamp(speed / 5, 1.0, 65536.0));
    const uint64_t part = std::min({until - arrived, piece, kSystemHolds - (arrived - read)});
    if (left || !IsOpen()) {
        return;
    }
    Arrives(part);
    if (arrived == all) {
        return finishes ? Ends() : void();
    }
    const auto takes = std::chrono::duration<double>(static_cast<double>(part) / speed);
    net.After(std::chrono::duration_cast<Duration>(takes) + (part == 0 ? 50ms : 1us) +
                  (arrived == pauses_at ? pause : 0s),
              [this] { Step(); });
}

void Client::Content(uint64_t at, std::span<uint8_t> to) {
    Request(at, to, g_world->settings.decrypt);
    g_world->reading += Scans() ? to.size() : 0;
}

void Client::WasRead() {
    heard = net.now;
    came = came == Time{} && read >= std::min(kScanCommand.size(), RequestSize()) ? net.now : came;
    squeezed |= g_world->reading + (g_world->bridge.clients.size() << 18) > size_t{g_world->settings.keep}
                                                                                << 20;
    uint64_t sent = 0;
    for (const auto& line : lines) {
        sent = std::max(sent, line->replied ? read : line->sent);
    }
    g_world->Never(Scans() && g_world->settings.keep == 0 && read > sent + (128 << 10), name,
                   " has given more than a window holds");
    if (read == RequestSize()) {
        ended = due = told = alone_since = net.now;
    }
}

void Client::Writes(std::span<const uint8_t> bytes) {
    g_world->Never(answered, name, " gets something after its reply");
    text.append(bytes.begin(), bytes.end());
    answered = text.find('\0') != std::string::npos;
    const size_t early = finishes ? std::min<size_t>(text.size(), 2) : 0;
    g_world->Never(!answered && !left && net.now < ended + 3s * early + 15s * (text.size() - early), name,
                   " gets a byte too early");
    if (answered) {
        answered_at = net.now;
        g_world->Replies(*this);
    }
    told = net.now;
}

void Client::Took() {
    if (left) {
        Reset();
    } else if (delivered != 0 && text[delivered - 1] == '\0' && number % 4 != 0) {
        net.After(net.dice.Time(1us, 1s), [this] { Leave("has its reply and closes", false); });
    }
}

}  // namespace kesto::simulation
