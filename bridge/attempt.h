// One connection to one server: a request goes out while it comes in, one reply comes back.
#pragma once

#include <asio/ip/tcp.hpp>
#include <functional>
#include <memory>
#include <string>

#include "bridge/bridge.h"
#include "bridge/task.h"

namespace kesto::bridge {

// How an attempt ended.
struct AttemptEnd {
    enum Kind {
        kReplied,    // text: the reply, without its NUL
        kUnreached,  // text, here and below: the reason
        kBroken,     // lost, or not to be believed
        kSilent,     // took or gave nothing for too long
    };
    Kind kind;
    std::string text;
};

class Attempt : public std::enable_shared_from_this<Attempt> {
 public:
    // Sends the request from its beginning. `progressed` is called after each part that was sent, `ended`
    // once, unless the attempt is cancelled before. Neither is called from within Begin.
    static std::shared_ptr<Attempt> Begin(Bridge& bridge, const ServerPtr& server,
                                          const std::shared_ptr<KeptStream>& request,
                                          std::function<void()> progressed,
                                          std::function<void(const AttemptEnd&)> ended);
    Attempt(Bridge& bridge, const ServerPtr& server, const std::shared_ptr<KeptStream>& request);

    void More();    // the request has grown or ended
    void Cancel();  // closes it, and nothing is called any more

    // Without a reply this long after now it is silent.
    void LimitReply(std::chrono::seconds limit, Time now) { reply_until_ = now + limit; }
    void Tick(Time now);

    uint64_t Sent() const { return sent_; }
    bool HandedOver() const { return request_->Ended() && sent_ == request_->Size(); }

 private:
    static Task Converse(std::shared_ptr<Attempt> self);
    static Task Send(std::shared_ptr<Attempt> self);
    void TakeReply(std::string_view bytes, const asio::error_code& error);
    void End(AttemptEnd::Kind kind, const std::string& text);
    void Close();

    Bridge& bridge_;
    ServerPtr server_;
    std::shared_ptr<KeptStream> request_;
    std::function<void()> progressed_;
    std::function<void(const AttemptEnd&)> ended_;
    asio::ip::tcp::socket socket_;
    std::array<char, 1024> bytes_;
    std::string reply_;
    uint64_t sent_ = 0;
    uint64_t sending_ = 0;  // bytes of the send under way
    bool connected_ = false;
    bool no_delay_ = false;  // asked for with the second send, which many scans do not have
    bool replied_ = false;   // the whole reply has come
    bool over_ = false;
    bool timed_out_ = false;
    Time step_until_ = Time::max();  // of the connect or send under way
    Time reply_until_ = Time::max();
};

}  // namespace kesto::bridge
