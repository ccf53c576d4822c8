// Virtual time, and connections as the system under the bridge gives them.
#pragma once

#include <asio/error_code.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "bridge/clock.h"
#include "tests/simulation/memory.h"

namespace kesto::simulation {

using bridge::Clock;
using bridge::Time;
using Duration = Clock::duration;
using Handler = std::function<void(const asio::error_code&, size_t)>;
using namespace std::chrono_literals;

// The same numbers for a seed everywhere, which the distributions of the standard library do not promise.
class Dice {
 public:
    explicit Dice(uint64_t seed) : state_(seed) {}
    uint64_t Below(uint64_t end);
    bool OneIn(uint64_t chances) { return Below(chances) == 0; }
    uint64_t Between(uint64_t low, uint64_t high) { return low + Below(high - low + 1); }
    uint64_t Wide(uint64_t low, uint64_t high);  // all magnitudes alike
    Duration Time(Duration low, Duration high);  // the same

 private:
    uint64_t state_;
};

class Line;
using LinePtr = std::shared_ptr<Line>;

class Network {
 public:
    explicit Network(uint64_t seed) : dice(seed) { it_ = this; }
    static Network& It() { return *it_; }

    // Something of the world's happens.
    void After(Duration delay, std::function<void()> event) { queue_.insert({now + delay, {event, false}}); }
    // An operation of the bridge's has ended.
    void Wake(Handler handler, asio::error_code error, size_t size);
    // Lets one handler of the bridge's run, and all that happens before.
    void RunOne(Time until);
    void Clear() { queue_.clear(); }

    Time now{24h};
    Dice dice;
    bool system_takes =
        true;           // a write is complete when the system has it, otherwise when the other side has it
    size_t open = 0;    // connections that the bridge has not closed
    size_t waking = 0;  // handlers that are to run
    size_t at_this_moment = 0;  // handlers since the time moved
    std::function<LinePtr(const std::string& where)> connect;

 private:
    struct Event {
        std::function<void()> run;
        bool of_bridge;
    };
    static Network* it_;
    std::multimap<Time, Event> queue_;  // those of one moment in their order
};

// One connection between the bridge and something of the world's.
class Line : public std::enable_shared_from_this<Line> {
 public:
    Line() : net_(Network::It()), delay_(net_.dice.Time(100us, 60ms)) {}
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;
    virtual ~Line() = default;

    // What the bridge's socket does.
    void Open() { ++net_.open; }
    void Connect(Handler handler);
    void Read(std::span<uint8_t> bytes, Handler handler);
    void Write(std::vector<std::span<const uint8_t>> pieces, Handler handler);
    size_t ReadNow(std::span<uint8_t> bytes, asio::error_code& error);
    void Cancel();
    void Close();
    void Shutdown();
    void KeepAlive() { keeps_alive_ = true; }

    // What the other side does.
    void Connected(asio::error_code error);
    void Arrives(size_t size);
    void Ends();
    void Break(asio::error_code error);  // what has arrived may still be read, if the dice say so
    void Forget();                       // nothing goes either way any more
    void Flow();                         // Takes may have changed

    bool IsOpen() const { return !closed_ && !broken_; }
    bool IsClosed() const { return closed_; }  // by the bridge
    bool IsRead() const { return reading_.has_value(); }
    bool IsWritten() const { return writing_.has_value(); }

 protected:
    virtual void Begins() = 0;  // the bridge connects
    virtual void Content(uint64_t at, std::span<uint8_t> bytes) = 0;
    virtual void WasRead() = 0;
    virtual void Writes(std::span<const uint8_t> /*bytes*/) {}  // the beginning of what it begins to write
    virtual void Gives(std::span<const uint8_t> bytes) = 0;     // on their way
    virtual bool Takes() const = 0;
    virtual void Took() = 0;             // more of them have come
    virtual void Closed(bool ends) = 0;  // the bridge has: nothing more comes; otherwise it is over at once

    static constexpr size_t kSystemHolds = 64 << 10;
    Network& net_;
    Duration delay_;
    double rate_ = 1e8;       // bytes a second
    uint64_t arrived_ = 0;    // from the other side
    uint64_t read_ = 0;       // of them
    uint64_t given_ = 0;      // to the system
    uint64_t delivered_ = 0;  // to the other side

 private:
    struct Reading {
        std::span<uint8_t> bytes;
        Handler handler;
    };
    struct Writing {
        std::vector<std::span<const uint8_t>> pieces;
        size_t size;
        size_t done;
        Handler handler;
    };
    template <typename Operation>
    void Finish(std::optional<Operation>& operation, asio::error_code error, size_t size);
    void PumpReading();
    void PumpWriting();
    void Give(size_t size);
    void Deliver(size_t size);
    size_t TakeArrived(std::span<uint8_t> bytes);

    std::optional<Reading> connecting_;
    std::optional<Reading> reading_;
    std::optional<Writing> writing_;
    bool flows_ = false;
    bool ended_ = false;  // the other side sends nothing any more
    bool shut_ = false;   // nor does the bridge
    bool told_end_ = false;
    bool closed_ = false;
    bool forgotten_ = false;
    bool keeps_alive_ = false;
    asio::error_code broken_;
};

}  // namespace kesto::simulation
