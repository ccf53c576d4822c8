#include "host/check/check_server.h"

#include <algorithm>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>

#include "base/clamd_words.h"
#include "common/signatures.h"
#include "common/text.h"
#include "host/check/port_owner.h"
#include "host/check/test_samples.h"
#include "plugin/net/socket_connection.h"

namespace kesto::host {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kPluginConnectMs = 1000;  // what the plug-in gives a server before it tries the next
constexpr double kSlowConnect = 0.3;         // seconds; near enough to that limit to be told
constexpr double kToldSeconds = 1;           // seconds from which on a scan's time is told
constexpr double kSlowReply = 15;            // seconds; near enough to the plug-in's limit of 20
constexpr int kOldDays = 7;                  // signatures appear daily
constexpr size_t kLongStream = 2 << 20;
constexpr int kTries = 5;  // for a question to a server that hangs up: an engine that starts does
constexpr auto kTriesPause = std::chrono::milliseconds(500);
constexpr size_t kMostThreads = 16;  // servers asked at a time, each with several questions

// The account's reason without the call's arguments above it.
std::string ConnectFailure(SocketConnection& connection) {
    std::string_view account = connection.LastErrorText();
    size_t reason = account.rfind('\n') + 1;
    for (const std::string_view beginning : {"\nConnect function failed.\n", "\nDNS ", "\nCannot connect"}) {
        if (const size_t at = account.find(beginning); at != std::string_view::npos) {
            reason = beginning.ends_with('\n') ? at + beginning.size() : at + 1;
            break;
        }
    }
    account.remove_prefix(reason);
    const bool name = account.starts_with("DNS ");
    if (name) {
        // The firewall that the account then suspects is not at fault.
        account = account.substr(0, account.find("\nCheck to make sure"));
    }
    std::string text = (name ? kNameFailure : "") + Utf8FromAnsi(account);
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

std::string Quoted(std::string_view reply) {
    return "\"" + Utf8FromAnsi(reply.substr(0, 200)) + "\"";
}

ScanAnswer VerdictOf(const ServerAnswer& answer) {
    return answer.reply ? ReadScanAnswer(*answer.reply) : ScanAnswer::kNoVerdict;
}

std::string Describe(const ServerAnswer& answer) {
    const std::string time = answer.seconds > kToldSeconds ? " after " + DurationText(answer.seconds) : "";
    switch (VerdictOf(answer)) {
        case ScanAnswer::kClean:
            return "found clean" + time;
        case ScanAnswer::kInfected:
            return "found infected with " + Utf8FromAnsi(VerdictOfReply(*answer.reply).text) + time;
        case ScanAnswer::kNoVerdict:
            break;
    }
    if (!answer.reply) {
        return answer.failure + time;
    }
    const bool passes = VerdictOfReply(*answer.reply).kind == VerdictKind::kClean;
    return "the reply was " + Quoted(*answer.reply) + time +
           (passes ? ", which the plug-in takes for clean" : "");
}

class ServerCheck {
 public:
    ServerCheck(const CheckedServer& server, Deadline deadline) : server_(server), deadline_(deadline) {}

    Findings Run() {
        if (!CheckConnection()) {
            return findings_;
        }
        std::string long_text;
        while (long_text.size() < kLongStream) {
            long_text += kCleanSample;
        }
        const auto ask = [this](std::string_view command) {
            return std::async(std::launch::async, [=, this] { return AskStartingServer(command); });
        };
        const auto scan = [this](const std::string& bytes) {
            return std::async(std::launch::async, [&, this] {
                return ScanAtServer(server_.address, bytes, server_.encrypt, deadline_);
            });
        };
        // At the same time: a server may take seconds for each.
        const std::string clean = kCleanSample;
        const std::string eicar = EicarTestString();
        auto ping = ask(kPingCommand);
        auto version = ask(kVersionCommand);
        auto clean_scan = scan(clean);
        auto eicar_scan = scan(eicar);
        auto long_scan = scan(long_text);
        if (TellPing(ping.get())) {
            TellVersion(version.get());
            const bool scans = TellCleanSample(clean_scan.get());
            TellEicar(eicar_scan.get(), eicar);
            if (scans) {
                TellLongStream(long_scan.get());
            }
        }
        return findings_;
    }

 private:
    std::string Check(const char* what) const { return server_.name + " " + what; }

    ServerAnswer AskStartingServer(std::string_view command) const {
        ServerAnswer answer;
        for (int i = 0; i < kTries && !answer.reply; ++i) {
            if (i > 0) {
                std::this_thread::sleep_for(kTriesPause);
            }
            answer = AskServer(server_.address, command, deadline_);
            if (answer.seconds > kToldSeconds) {
                break;
            }
        }
        return answer;
    }

    bool CheckConnection() {
        const std::string check = Check("connection");
        const auto start = Clock::now();
        std::string failure;
        double seconds = 0;
        if (server_.of_plugin) {
            SocketConnection connection;
            if (!connection.Connect(server_.address.host.c_str(), server_.address.port, false,
                                    kPluginConnectMs)) {
                failure = ConnectFailure(connection);
            }
            seconds = std::chrono::duration<double>(Clock::now() - start).count();
        } else {
            const ServerAnswer answer = ConnectToServer(server_.address, deadline_);
            failure = answer.reply ? "" : answer.failure;
            seconds = answer.seconds;
        }
        const std::string setting =
            server_.of_plugin ? "servers= in kestoav.ini" : "upstreams= in bridge.ini";
        if (!failure.empty()) {
            const bool name = failure.starts_with(kNameFailure);
            findings_.Failed(
                check, "not made: " + failure,
                name ? "write an address in place of the name into " + setting +
                           ", or have the name service know it"
                     : "start what listens there, open the firewall for it, or correct " + setting);
            return false;
        }
        const std::string text = "made in " + DurationText(seconds);
        if (server_.of_plugin && seconds > kSlowConnect) {
            findings_.Warning(check, text,
                              "a server that takes over 1000 ms is passed over: use a nearer one");
        } else {
            findings_.Ok(check, text);
        }
        return true;
    }

    // Names the program of this machine that has the port, unless it is an engine.
    std::string Owner() const {
        const auto owner = server_.address.host.starts_with("127.")
                               ? ListenerOn(server_.address.host, server_.address.port)
                               : std::nullopt;
        const bool told = owner && !owner->program.empty() && owner->program != "kestoav.exe";
        return told ? "; the port belongs to " + OwnerText(*owner) : "";
    }

    bool TellPing(const ServerAnswer& answer) {
        const std::string check = Check("zPING");
        if (!answer.reply) {
            findings_.Failed(
                check, "no answer: " + answer.failure + Owner(),
                server_.of_plugin
                    ? "see the engine's log: the clamd behind it may be down or still loading"
                    : "see clamd's log: it may still be loading, or another program may have the port");
            return false;
        }
        if (*answer.reply == "PONG") {
            findings_.Ok(check, "answered");
        } else {
            findings_.Warning(check, "answered " + Quoted(*answer.reply) + Owner(),
                              "check that a clamd listens there, or the engine in front of one");
        }
        return true;
    }

    void TellVersion(const ServerAnswer& answer) {
        const std::string check = Check("zVERSION");
        const std::string remedy = "run the signature updater on the engine's machine";
        if (!answer.reply) {
            findings_.Warning(check, "no answer: the age of its signatures is unknown",
                              "see the engine's log");
            return;
        }
        const std::string& reply = *answer.reply;
        const auto signatures = ReadSignatures(reply);
        const auto days = [](auto time) { return std::chrono::floor<std::chrono::days>(time); };
        const auto age = days(std::chrono::system_clock::now()) -
                         days(signatures ? signatures->written : std::chrono::sys_seconds());
        if (!signatures) {
            findings_.Warning(check, Quoted(reply) + ": the age of its signatures is unknown", remedy);
        } else if (age.count() > kOldDays) {
            findings_.Warning(
                check, Quoted(reply) + ": its signatures are " + std::to_string(age.count()) + " days old",
                remedy);
        } else if (age.count() < -1) {  // a day may be the time zone
            findings_.Warning(check, Quoted(reply) + ": its signatures are of a day to come",
                              "set the clocks of both machines");
        } else {
            findings_.Ok(check, Quoted(reply));
        }
    }

    bool TellCleanSample(const ServerAnswer& answer) {
        const std::string check = Check("clean sample");
        const bool clean = VerdictOf(answer) == ScanAnswer::kClean;
        if (!clean) {
            findings_.Failed(check, Describe(answer), "see the engine's log");
        } else if (answer.seconds > kSlowReply) {
            findings_.Warning(check, Describe(answer),
                              "the plug-in gives up after 20 s: give the engine's machine less to do");
        } else {
            findings_.Ok(check, Describe(answer));
        }
        return clean;
    }

    void TellEicar(const ServerAnswer& answer, const std::string& eicar) {
        const std::string check = Check("EICAR");
        const bool clean = VerdictOf(answer) == ScanAnswer::kClean;
        const std::string setting = std::string("encrypt=") + (server_.encrypt ? "1" : "0");
        if (VerdictOf(answer) == ScanAnswer::kInfected) {
            findings_.Ok(check, Describe(answer) + (server_.of_plugin ? ", with " + setting : ""));
        } else if (clean && VerdictOf(ScanAtServer(server_.address, eicar, !server_.encrypt, deadline_)) ==
                                ScanAnswer::kInfected) {
            TellOtherShift(check);
        } else {
            findings_.Failed(
                check, Describe(answer),
                clean ? "check that the engine has loaded its signatures" : "see the engine's log");
        }
    }

    void TellOtherShift(const std::string& check) {
        findings_.Failed(check,
                         server_.of_plugin
                             ? std::string("found only with encrypt=") + (server_.encrypt ? "0" : "1") +
                                   ": plug-in and engine do not agree, and every virus passes"
                             : "found only in shifted bytes, which the bridge does not send",
                         server_.shift_remedy);
    }

    void TellLongStream(const ServerAnswer& answer) {
        const std::string check = Check("2 MB stream");
        if (VerdictOf(answer) != ScanAnswer::kClean) {
            findings_.Failed(check, Describe(answer),
                             "raise StreamMaxLength in clamd.conf above the largest mail that is accepted");
        } else if (!server_.of_plugin) {
            findings_.Ok(check, Describe(answer));
        }
    }

    const CheckedServer server_;
    const Deadline deadline_;
    Findings findings_;
};

// Shared with threads that may outlast the check: nothing ends a lookup of a name.
struct Work {
    std::vector<CheckedServer> servers;
    Deadline deadline;
    std::mutex guard;
    std::condition_variable changed;
    std::vector<std::optional<Findings>> results;
    size_t next = 0;
    size_t done = 0;
};

void CheckNextServers(const std::shared_ptr<Work>& work) {
    std::unique_lock guard(work->guard);
    while (work->next < work->servers.size()) {
        const size_t index = work->next++;
        guard.unlock();
        Findings findings = ServerCheck(work->servers[index], work->deadline).Run();
        guard.lock();
        work->results[index] = std::move(findings);
        ++work->done;
        work->changed.notify_one();
    }
}

}  // namespace

std::vector<Findings> CheckServers(const std::vector<CheckedServer>& servers, Deadline deadline,
                                   const std::function<void(size_t)>& progress) {
    const auto work = std::make_shared<Work>();
    work->servers = servers;
    work->deadline = deadline;
    work->results.resize(servers.size());
    for (size_t i = 0; i < std::min(servers.size(), kMostThreads); ++i) {
        std::thread(CheckNextServers, work).detach();
    }
    std::unique_lock guard(work->guard);
    const Deadline end = deadline + std::chrono::milliseconds(500);  // for the threads to tell
    while (work->done < servers.size() && Clock::now() < end) {
        progress(work->done);
        work->changed.wait_for(guard, std::chrono::milliseconds(250));
    }
    std::vector<Findings> all(servers.size());
    for (size_t i = 0; i < servers.size(); ++i) {
        if (work->results[i]) {
            all[i] = *work->results[i];
        } else {
            all[i].Failed(servers[i].name + " connection", "no end within the time of a check",
                          "write an address in place of a name; name fewer servers, or mend those that hang");
        }
    }
    return all;
}

}  // namespace kesto::host
