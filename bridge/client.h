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

class Client final : public Asker, public std::enable_shared_from_this<Client> {
 public:
    // Serves the client to its end. Whatever goes wrong ends this connection only; no reply is ever made up.
    static void Serve(Bridge& bridge, asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer);
    Client(Bridge& bridge, asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer);

    // Each of these may end the client. None may be called from within another one, or on behalf of another
    // client.
    void Tick(Time now);     // to be called every now and then
    void Advance(Time now);  // there is news for a client that waits
    void Stop();             // the bridge ends: a client that has asked nothing yet is closed at once
    bool MakeWay(
        Time now);  // closes it if it is too slow while others wait for its place; returns whether it did

    void BeginQueued();  // there is a place for its scan

    bool Waits() const { return phase_ == Phase::kBusy && exchange_->Waits(); }

    void Send(std::string_view text) override;
    void Reply(std::string_view text) override;
    void NoReply(const std::string& reason) override;
    void Refuse(const char* kind, const std::string& reason) override;
    void SpaceIsFree() override { space_.Open(); }
    std::string Name() const override;
    std::shared_ptr<Owner> Self() override { return shared_from_this(); }
    void Failed() override;

 private:
    enum class Phase {
        kOpening,    // its command has not come yet
        kQueued,     // it has asked for a scan, for which there is no place yet
        kBusy,       // the exchange goes on
        kLingering,  // its reply is on the way; the connection ends afterwards
        kClosed,
    };

    static Task Read(std::shared_ptr<Client> self);
    static Task Write(std::shared_ptr<Client> self);
    bool Hears() const;
    std::span<uint8_t> Space(std::shared_ptr<KeptStream>& keeper);
    void TakeBytes(uint8_t* bytes, size_t size);
    void TakeOpening(uint8_t* bytes, size_t size);
    void ReadingFailed(const asio::error_code& error);
    void Close();
    std::chrono::seconds Idle() const { return std::chrono::seconds(bridge_.settings.idle); }

    Bridge& bridge_;
    const uint64_t number_;
    asio::ip::tcp::socket socket_;
    asio::ip::tcp::endpoint peer_;
    Phase phase_ = Phase::kOpening;
    std::shared_ptr<KeptStream> opening_;  // what has come of its command
    size_t opened_ = 0;                    // bytes of it
    std::shared_ptr<const char> place_;    // while it scans
    std::unique_ptr<Exchange> exchange_;   // from kBusy on
    Time heard_;                           // when bytes came from it last
    Time paid_until_;                      // until when its bytes entitle it to its place
    Gate space_;                           // opened when there may be space again
    std::array<char, 64> scrap_;           // whatever comes after the request
    std::string outbox_;
    bool writing_ = false;
    bool finished_ = false;           // its side of the connection is closed
    Time write_until_ = Time::max();  // time limit of the send under way, then of the lingering
};

}  // namespace kesto::bridge
