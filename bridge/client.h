// One client's connection: its command, its reply, and the exchange between the two.
#pragma once

#include <array>
#include <asio/ip/tcp.hpp>
#include <memory>
#include <string>

#include "bridge/bridge.h"
#include "bridge/exchange.h"
#include "bridge/task.h"

namespace kesto::bridge {

class Client : public Asker, public std::enable_shared_from_this<Client> {
 public:
    // Serves it to its end. Whatever goes wrong ends this connection only; no reply is ever made up.
    static void Serve(Bridge& bridge, asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer);
    Client(Bridge& bridge, asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer);

    // Each of these may end it, and none may be called from within another, or for another client's sake.
    void Tick(Time now);     // to be called every now and then
    void Advance(Time now);  // there is news for one that waits
    void Stop();             // the bridge is to end: who has asked nothing yet goes at once
    bool MakeWay(Time now);  // others wait for its place; true: it was too slow to keep them waiting

    void BeginQueued();  // there is a place for its scan

    bool Waits() const { return phase_ == Phase::kBusy && exchange_->Waits(); }

    void Send(std::string_view text) override;
    void Reply(std::string_view text) override;
    void NoReply(const std::string& reason) override;
    void Refuse(const char* kind, const std::string& reason) override;
    void SpaceIsFree() override { space_.Open(); }
    std::string Name() const override;
    std::shared_ptr<Owner> Self() override { return shared_from_this(); }
    void Failed() noexcept override;

 private:
    enum class Phase {
        kOpening,    // its command is to come
        kQueued,     // that was a scan, for which there is no place yet
        kBusy,       // the exchange goes on
        kLingering,  // its reply is on the way, and the connection is to end
        kClosed,
    };

    static Task Read(std::shared_ptr<Client> self);
    static Task Write(std::shared_ptr<Client> self);
    bool Hears() const;
    std::span<uint8_t> Space(std::shared_ptr<KeptStream>& keeper);
    void TakeBytes(uint8_t* bytes, size_t size);
    void TakeOpening(uint8_t* bytes, size_t size);
    void ReadingFailed(const asio::error_code& error);
    void Close() noexcept;
    std::chrono::seconds Idle() const { return std::chrono::seconds(bridge_.settings.idle); }

    Bridge& bridge_;
    asio::ip::tcp::socket socket_;
    asio::ip::tcp::endpoint peer_;
    Phase phase_ = Phase::kOpening;
    std::shared_ptr<KeptStream> opening_;  // what is there of its command
    size_t opened_ = 0;                    // bytes of it
    std::shared_ptr<const char> place_;    // while it scans
    std::unique_ptr<Exchange> exchange_;   // from kBusy on
    Time heard_;                           // when bytes came from it last
    Time paid_until_;                      // so long its bytes entitle it to its place
    Gate space_;                           // opened when there may be space again
    std::array<char, 64> scrap_;           // what comes behind the request
    std::string outbox_;
    bool writing_ = false;
    bool finished_ = false;           // its side of the connection is closed
    Time write_until_ = Time::max();  // of the send under way, then of the lingering
};

}  // namespace kesto::bridge
