#include "engine/stream_scan.h"
// winsock2.h, in what is above, must come before windows.h.
#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "host/check/check_server.h"
#include "host/check/database_age.h"
#include "host/check/test_samples.h"
#include "host/common/text.h"

namespace kesto {
namespace {

constexpr uint32_t kConnectMs = 1000;     // what the plug-in gives a server before it tries the next
constexpr uint32_t kSlowConnectMs = 300;  // near enough to that limit to be told
constexpr uint32_t kReplyMs = 5000;
constexpr int kOldDays = 7;  // signatures appear daily

// The account's reason without the call's arguments above it.
std::string ConnectFailure(SocketConnection& connection) {
    std::string_view account = connection.LastErrorText();
    const size_t reason = account.find("Connect function failed.\n");
    account.remove_prefix(reason != std::string_view::npos ? account.find('\n', reason) + 1
                                                           : account.rfind('\n') + 1);
    std::string text = Utf8FromAnsi(account);
    for (char& c : text) {
        c = c == '\n' ? ' ' : c;
    }
    return text;
}

bool Connect(SocketConnection& connection, const ServerEntry& server) {
    return connection.Connect(server.host.c_str(), server.port, false, kConnectMs);
}

// None: no reply came.
std::optional<std::string> Ask(const ServerEntry& server, std::string_view command) {
    SocketConnection connection;
    ReceivedText reply;
    connection.MaxReadIdleMs(kReplyMs);
    if (!Connect(connection, server) || !SendCommand(connection, command) ||
        !connection.ReceiveStringUntilByte(0, reply)) {
        return std::nullopt;
    }
    return std::string(reply.View());
}

struct SampleVerdict {
    VerdictKind kind;
    std::string text;  // as ScanVerdict has it
};

std::optional<SampleVerdict> Scan(const ServerEntry& server, std::string_view sample, bool encrypt) {
    SocketConnection connection;
    if (!Connect(connection, server)) {
        return std::nullopt;
    }
    ScanFileInput input = {};
    input.size = static_cast<uint32_t>(sample.size());
    input.data = reinterpret_cast<const uint8_t*>(sample.data());
    ReceivedText reply;
    const ScanVerdict verdict = StreamScan(connection, input, encrypt, reply);
    return SampleVerdict{verdict.kind, std::string(verdict.text)};
}

bool Is(const std::optional<SampleVerdict>& verdict, VerdictKind kind) {
    return verdict && verdict->kind == kind;
}

std::string Quoted(std::string_view reply) {
    return "\"" + Utf8FromAnsi(reply.substr(0, 200)) + "\"";
}

std::string Describe(const std::optional<SampleVerdict>& verdict) {
    if (!verdict) {
        return "no further connection was accepted";
    }
    switch (verdict->kind) {
        case VerdictKind::kClean:
            return "found clean";
        case VerdictKind::kInfected:
            return "found infected with " + Utf8FromAnsi(verdict->text);
        case VerdictKind::kSendFailed:
            return "the connection broke while sending";
        case VerdictKind::kUnexpectedReply:
            break;
    }
    return verdict->text.empty() ? "no reply came" : "the reply was " + Quoted(verdict->text);
}

class ServerCheck {
 public:
    ServerCheck(CheckReport& report, const ServerEntry& server, bool encrypt)
        : report_(report),
          server_(server),
          encrypt_(encrypt),
          name_("server " + Utf8FromAnsi(server.host) + ":" + std::to_string(server.port) + " ") {}

    void Run() {
        if (!CheckConnection() || !CheckPing()) {
            return;
        }
        CheckVersion();
        CheckCleanSample();
        CheckEicar();
    }

 private:
    bool CheckConnection() {
        const std::string check = name_ + "connection";
        const auto start = std::chrono::steady_clock::now();
        SocketConnection connection;
        if (!Connect(connection, server_)) {
            report_.Failed(check, "not made: " + ConnectFailure(connection),
                           "start what listens there, open the firewall for it, or correct servers= in "
                           "kestoav.ini");
            return false;
        }
        const auto taken =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
        const std::string text = "made in " + std::to_string(taken.count()) + " ms";
        if (taken.count() > kSlowConnectMs) {
            report_.Warning(check, text, "a server that takes over 1000 ms is passed over: use a nearer one");
        } else {
            report_.Ok(check, text);
        }
        return true;
    }

    bool CheckPing() {
        const std::string check = name_ + "zPING";
        const std::optional<std::string> reply = Ask(server_, "zPING");
        if (!reply) {
            report_.Failed(check, "no answer",
                           "see the engine's log: the clamd behind it may be down or still loading");
            return false;
        }
        if (*reply == "PONG") {
            report_.Ok(check, "answered");
        } else {
            report_.Warning(check, "answered " + Quoted(*reply),
                            "check that a clamd listens there, or the engine in front of one");
        }
        return true;
    }

    void CheckVersion() {
        const std::string check = name_ + "zVERSION";
        const std::optional<std::string> reply = Ask(server_, "zVERSION");
        if (!reply) {
            report_.Warning(check, "no answer: the age of its signatures is unknown", "see the engine's log");
            return;
        }
        const std::string remedy = "run the signature updater on the engine's machine";
        const auto today = std::chrono::floor<std::chrono::days>(std::chrono::system_clock::now());
        const std::optional<int> age = DatabaseAgeDays(*reply, today);
        if (!age) {
            report_.Warning(check, Quoted(*reply) + ": the age of its signatures is unknown", remedy);
        } else if (*age > kOldDays) {
            report_.Warning(
                check, Quoted(*reply) + ": its signatures are " + std::to_string(*age) + " days old", remedy);
        } else if (*age < -1) {  // a day may be the time zone
            report_.Warning(check, Quoted(*reply) + ": its signatures are of a day to come",
                            "set the clocks of both machines");
        } else {
            report_.Ok(check, Quoted(*reply));
        }
    }

    void CheckCleanSample() {
        const std::string check = name_ + "clean sample";
        const auto verdict = Scan(server_, kCleanSample, encrypt_);
        if (Is(verdict, VerdictKind::kClean)) {
            report_.Ok(check, "found clean");
        } else {
            report_.Failed(check, Describe(verdict), "see the engine's log");
        }
    }

    void CheckEicar() {
        const std::string check = name_ + "EICAR";
        const std::string eicar = EicarTestString();
        const auto verdict = Scan(server_, eicar, encrypt_);
        if (Is(verdict, VerdictKind::kInfected)) {
            report_.Ok(check, Describe(verdict) + ", with encrypt=" + (encrypt_ ? "1" : "0"));
        } else if (Is(verdict, VerdictKind::kClean) &&
                   Is(Scan(server_, eicar, !encrypt_), VerdictKind::kInfected)) {
            report_.Failed(check,
                           std::string("found only with encrypt=") + (encrypt_ ? "0" : "1") +
                               ": plug-in and engine do not agree, and every virus passes",
                           encrypt_
                               ? "set encrypt=0 in kestoav.ini, or have the engine undo the byte shift"
                               : "set encrypt=1 in kestoav.ini, or have the engine leave the bytes alone");
        } else {
            report_.Failed(check, Describe(verdict), "check that the engine has loaded its signatures");
        }
    }

    CheckReport& report_;
    const ServerEntry& server_;
    const bool encrypt_;
    const std::string name_;
};

}  // namespace

void CheckServer(CheckReport& report, const ServerEntry& server, bool encrypt) {
    ServerCheck(report, server, encrypt).Run();
}

}  // namespace kesto
