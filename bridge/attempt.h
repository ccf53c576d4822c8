// A stream on its way to one server: sends it while it is still coming in, and reads one reply. What happens
// is noted down here and wakes the owner.
#pragma once

#include <array>
#include <asio/ip/tcp.hpp>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "bridge/bridge.h"
#include "bridge/reply.h"
#include "bridge/task.h"

namespace kesto::bridge {

class Attempt final : public std::enable_shared_from_this<Attempt> {
 public:
    // If no reply has come at `reply_until`, the server is silent. The owner may not end before the attempt
    // has ended or been cancelled.
    Attempt(Bridge& bridge, Sleeper& owner, ServerPtr server, std::shared_ptr<KeptStream> stream,
            Time reply_until = Time::max());

    void Start();   // sends the stream from its beginning; to be called once
    void More();    // the stream has grown or ended
    void Cancel();  // it wakes nobody any more
    void Failed();  // the exception is being handled

    const ServerPtr& Upstream() const { return server_; }
    uint64_t Sent() const { return sent_; }  // bytes
    bool HandedOver() const { return stream_->Ended() && sent_ == stream_->Size(); }
    Time Moved() const { return moved_; }  // when some bytes were taken last, or it began
    // Null: it has not ended. Ends it when its time is over. Throws the exception that has ended it.
    const AttemptEnd* End(Time now);

 private:
    enum class State {
        kConnecting,
        kTalking,
        kReplyWaitsForSend,  // the reply counts only if the send under way takes all its data
        kOver,
    };

    static Task<Attempt> Converse(std::shared_ptr<Attempt> self);
    static Task<Attempt> Send(std::shared_ptr<Attempt> self);
    void TakeReply(const asio::error_code& error, size_t size);
    void CalledCleanTooEarly() {
        Finish({AttemptEnd::Kind::kBroken, "called the file clean before its end"});
    }
    void Finish(AttemptEnd end);

    const std::chrono::seconds idle_;
    Sleeper& owner_;
    const ServerPtr server_;
    const std::shared_ptr<KeptStream> stream_;
    asio::ip::tcp::socket socket_;
    State state_ = State::kConnecting;
    std::array<char, 1024> bytes_;
    std::string reply_;
    uint64_t sent_ = 0;
    uint64_t sending_ = 0;  // bytes of the send under way
    Time moved_ = Clock::now();
    Time step_until_ = Time::max();  // time limit of the connect or send under way
    Time reply_until_;
    std::optional<AttemptEnd> end_;
    std::exception_ptr failure_;
};

}  // namespace kesto::bridge
