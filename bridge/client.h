// One client's connection: its command, its reply, and the request between the two.
#pragma once

#include <array>
#include <asio/ip/tcp.hpp>
#include <memory>
#include <string>

#include "bridge/bridge.h"
#include "bridge/request.h"
#include "bridge/task.h"

namespace kesto::bridge {

// Whatever goes wrong with it ends this connection only; no reply is ever made up.
class Client final : public Sleeper, public std::enable_shared_from_this<Client> {
 public:
    // Serves the client to its end.
    static void Serve(Bridge& bridge, asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer);
    Client(Bridge& bridge, asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer);

    // Each of these may end this client, and no other one.
    void Advance(Time now) override;
    // To be called every now and then. When others wait for its place and it is too slow, it is closed:
    // returns whether that was so.
    bool Tick(Time now, bool others_wait);
    void BeginQueued();  // there is a place for its scan
    void Stop();         // the bridge ends: a client that has asked nothing yet is closed at once

    bool Waits() const { return request_ && request_->Waits(); }
    void Failed();  // the exception is being handled

 private:
    enum class Phase {
        kOpening,    // its command has not come yet
        kQueued,     // it has asked for a scan, for which there is no place yet
        kBusy,       // the request is under way
        kLingering,  // its reply is on the way; the connection ends afterwards
        kClosed,
    };

    static Task<Client> Read(std::shared_ptr<Client> self);
    static Task<Client> Write(std::shared_ptr<Client> self);
    template <typename Work>
    void Try(Work work);
    bool Hears() const;
    std::span<uint8_t> Space(std::shared_ptr<KeptStream>& keeper);
    void TakeOpening(uint8_t* bytes, size_t size);
    void TakeStream(uint8_t* bytes, size_t size);
    void ReadingFailed(const asio::error_code& error);
    void Send(std::string_view text);
    void Reply(std::string_view text);
    void NoReply(const std::string& reason);
    void Refuse(const char* kind, const std::string& reason);
    void Close();
    std::chrono::seconds Idle() const { return std::chrono::seconds(bridge_.settings.idle); }

    Bridge& bridge_;
    const uint64_t number_;
    const std::string name_;
    asio::ip::tcp::socket socket_;
    Phase phase_ = Phase::kOpening;
    // What has come of its command, and how many bytes that is.
    std::shared_ptr<KeptStream> opening_;
    size_t opened_ = 0;
    std::unique_ptr<Request> request_;  // while it is busy
    Time heard_;                        // when bytes came from it last
    Time paid_until_;                   // until when its bytes entitle it to its place
    Gate space_;                        // opened when there may be space again
    std::array<char, 64> scrap_;        // whatever comes after the request
    std::string outbox_;
    bool writing_ = false;
    bool finished_ = false;           // its side of the connection is closed
    Time write_until_ = Time::max();  // time limit of the send under way, then of the lingering
};

}  // namespace kesto::bridge
