// Questions to engine servers, directly and not through the plug-in.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kesto {

using Deadline = std::chrono::steady_clock::time_point;

struct Endpoint {
    std::string host;  // a name, or an IPv4 or IPv6 address without brackets; in the ANSI code page
    uint16_t port;
};

struct ServerAnswer {
    std::optional<std::string> reply{};  // whole, without its NUL
    std::string failure{};               // why there is no reply: one line in UTF-8
    bool name_failed = false;            // the name could not be looked up
    bool connected = false;
    double seconds = 0;  // from the start of connecting to the end
};

struct Question {
    Endpoint server;
    std::string bytes{};          // what is sent; empty: only connects, and the reply is empty
    std::string_view patience{};  // its beginning is not a reply yet: the bridge sends it while it waits
    bool as_the_plug_in = false;  // connects to IPv4 addresses only, and within a second
};

// Has the bytes scanned, each shifted down by one with `shifted`, as the plug-in does with encrypt=1. Unlike
// the plug-in, the talk takes a reply that comes before all of them are sent.
Question ScanQuestion(const Endpoint& server, std::string_view bytes, bool shifted);

// Talks with any number of servers at a time, in one thread. Each talk ends by the deadline, and earlier when
// nothing came for as long as the plug-in would wait.
class ServerTalks {
 public:
    explicit ServerTalks(Deadline deadline);

    // `answered` is called once, within Run, and may put further questions. The question waits for `pause`
    // first.
    void Put(Question question, std::function<void(ServerAnswer)> answered,
             std::chrono::milliseconds pause = {});

    // Returns when all questions are answered. `waiting` is called now and then.
    void Run(const std::function<void()>& waiting = [] {});

 private:
    struct Loop;
    class Talk;
    std::shared_ptr<Loop> loop_;
};

// One question.
ServerAnswer AnswerTo(Question question, Deadline deadline);

// Sends a command, which includes its NUL.
ServerAnswer AskServer(const Endpoint& server, std::string_view command, Deadline deadline);

// "10 ms" or "2.3 s".
std::string DurationText(double seconds);

}  // namespace kesto
