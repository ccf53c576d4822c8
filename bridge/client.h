// One client's connection: its command, the stream of its scan, its reply.
#pragma once

#include <array>
#include <asio/ip/tcp.hpp>
#include <memory>
#include <string>
#include <vector>

#include "bridge/attempt.h"
#include "bridge/bridge.h"
#include "bridge/framing.h"
#include "bridge/scan_policy.h"
#include "bridge/task.h"

namespace kesto::bridge {

class Client : public std::enable_shared_from_this<Client> {
 public:
    // Serves it to its end. Whatever goes wrong ends this connection only; no reply is ever made up.
    static void Serve(Bridge& bridge, asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer);
    Client(Bridge& bridge, asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer);

    // To be called every now and then.
    void Tick(Time now);
    // Does for its scan what is to be done now.
    void Advance();
    // The bridge is to end: who has asked nothing yet goes at once.
    void Stop();
    // Others wait for its place: ends it if it has been silent for too long to keep them waiting. True if so.
    bool MakeWay(Time now);

    bool Waits() const { return waits_; }

 private:
    enum class Phase { kCommand, kStream, kAnswer, kLinger, kClosed };

    static Task Read(std::shared_ptr<Client> self);
    static Task Write(std::shared_ptr<Client> self);
    std::span<uint8_t> Space();
    void TakeBytes(uint8_t* bytes, size_t size);
    void TakeOpening(uint8_t* bytes, size_t size);
    void TakeStream(uint8_t* bytes, size_t size);
    void ReadingFailed(const asio::error_code& error);
    void BeginScan();
    void BeginAttempt(size_t number, const ServerPtr& server);
    void AttemptProgressed(size_t number);
    void AttemptEnded(size_t number, const AttemptEnd& end);
    void FreeWindow();
    void EndScan(const ScanStep& step);
    void BeginQuery(size_t command_size);
    void AskNext();
    void Send(std::string_view text);
    void Reply(std::string_view text);
    void Refuse(const char* kind, const std::string& reason);
    void NoReply(const std::string& reason);
    void SetWaits(bool waits);
    void DropAttempts();
    void Close();
    std::string Peer() const;
    std::chrono::seconds Idle() const { return std::chrono::seconds(bridge_.settings.idle); }

    Bridge& bridge_;
    asio::ip::tcp::socket socket_;
    asio::ip::tcp::endpoint peer_;
    Phase phase_ = Phase::kCommand;
    Time heard_;                      // when bytes came from it last
    Time write_until_ = Time::max();  // of the send under way, then of the lingering
    std::shared_ptr<KeptStream> stream_;
    size_t opening_ = 0;    // bytes of an incomplete command, in the stream's space
    bool blocked_ = false;  // not read from, for lack of room
    Gate room_;
    std::array<char, 64> scrap_;  // what comes behind the stream
    std::string outbox_;
    bool writing_ = false;
    bool waits_ = false;
    bool finished_ = false;  // its side of the connection is closed

    ChunkStream chunks_;
    std::unique_ptr<ScanPolicy> policy_;  // while it scans
    Time scan_began_{};
    std::vector<std::shared_ptr<Attempt>> attempts_;  // by the policy's numbers, null when ended
    std::vector<ServerPtr> to_ask_;                   // of a query, the next one last
    Time look_up_until_{};                            // those whose names are being looked up
};

// Scans that wait for a server may have found one.
void AdvanceWaiting(Bridge& bridge);

}  // namespace kesto::bridge
