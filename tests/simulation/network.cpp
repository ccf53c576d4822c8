#include "tests/simulation/network.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace kesto::simulation {

Network* Network::it_ = nullptr;

uint64_t Dice::Below(uint64_t end) {
    uint64_t z = state_ += 0x9e3779b97f4a7c15;
    z = (z ^ z >> 30) * 0xbf58476d1ce4e5b9;
    z = (z ^ z >> 27) * 0x94d049bb133111eb;
    return (z ^ z >> 31) % end;
}

uint64_t Dice::Wide(uint64_t low, uint64_t high) {
    uint64_t top = high;
    while (top / 4 > low && Below(4) != 0) {
        top /= 4;
    }
    return Between(low, top);
}

Duration Dice::Time(Duration low, Duration high) {
    return Duration(static_cast<Duration::rep>(
        Wide(static_cast<uint64_t>(low.count()), static_cast<uint64_t>(high.count()))));
}

void Network::Wake(Handler handler, asio::error_code error, size_t size) {
    ++waking;
    queue_.insert({now, {[handler = std::move(handler), error, size] { handler(error, size); }, true}});
}

void Network::RunOne(Time until) {
    while (!queue_.empty() && queue_.begin()->first <= std::max(until, now)) {
        const auto next = [&] {
            const Outside outside;
            return queue_.extract(queue_.begin());
        }();
        at_this_moment = next.key() > now ? 0 : at_this_moment + 1;
        now = std::max(now, next.key());
        waking -= next.mapped().of_bridge;
        const Inside whose(next.mapped().of_bridge);
        next.mapped().run();
        if (next.mapped().of_bridge) {
            return;
        }
    }
    at_this_moment = until > now ? 0 : at_this_moment;
    now = std::max(now, until);
}

template <typename Operation>
void Line::Finish(std::optional<Operation>& operation, asio::error_code error, size_t size) {
    if (operation) {
        Handler handler = std::move(operation->handler);
        operation.reset();
        net_.Wake(std::move(handler), error, size);
    }
}

void Line::Connect(Handler handler) {
    connecting_ = {{}, std::move(handler)};
    Open();
    Begins();
}

void Line::Connected(asio::error_code error) {
    broken_ = error;
    Finish(connecting_, error, 0);
}

void Line::Read(std::span<uint8_t> bytes, Handler handler) {
    reading_ = {bytes, std::move(handler)};
    PumpReading();
}

size_t Line::TakeArrived(std::span<uint8_t> bytes) {
    size_t size = std::min<size_t>(bytes.size(), arrived_ - read_);
    if (size > 1 && !broken_ && net_.dice.OneIn(20)) {
        size = net_.dice.Between(1, size);
    }
    Content(read_, bytes.first(size));
    read_ += size;
    WasRead();
    return size;
}

void Line::PumpReading() {
    if (!reading_ || forgotten_) {
        return;
    }
    if (broken_) {
        Finish(reading_, broken_, 0);
    } else if (read_ != arrived_) {
        Finish(reading_, {}, TakeArrived(reading_->bytes));
    } else if (ended_) {
        Finish(reading_, asio::error::eof, 0);
    }
}

size_t Line::ReadNow(std::span<uint8_t> bytes, asio::error_code& error) {
    const Outside outside;
    error = read_ != arrived_ ? asio::error_code() : broken_ ? broken_ : asio::error::would_block;
    return error ? 0 : TakeArrived(bytes);
}

void Line::Write(std::vector<std::span<const uint8_t>> pieces, Handler handler) {
    size_t size = 0;
    for (const auto& piece : pieces) {
        size += piece.size();
    }
    Writes(pieces.front());
    writing_ = {std::move(pieces), size, 0, std::move(handler)};
    PumpWriting();
}

// The next bytes of the write under way leave the bridge's memory.
void Line::Give(size_t size) {
    size_t at = writing_->done;
    given_ += size;
    writing_->done += size;
    for (const auto& piece : writing_->pieces) {
        const size_t part = at < piece.size() ? std::min(piece.size() - at, size) : 0;
        Gives(piece.subspan(std::min(at, piece.size()), part));
        size -= part;
        at -= std::min(at, piece.size());
    }
}

void Line::PumpWriting() {
    if (writing_ && broken_) {
        Finish(writing_, broken_, 0);
    } else if (writing_ && net_.system_takes && given_ - delivered_ < kSystemHolds) {
        Give(std::min(writing_->size, kSystemHolds - static_cast<size_t>(given_ - delivered_)));
        Finish(writing_, {}, writing_->done);
    }
    Flow();
}

void Line::Flow() {
    const uint64_t waiting = net_.system_takes || !writing_ ? 0 : writing_->size - writing_->done;
    const uint64_t size = std::min<uint64_t>(given_ - delivered_ + waiting, kSystemHolds);
    if (flows_ || broken_ || forgotten_ || !Takes()) {
        return;
    }
    if (size != 0) {
        flows_ = true;
        const auto takes = std::chrono::duration_cast<Duration>(
            std::chrono::duration<double>(static_cast<double>(size) / rate_));
        net_.After(delay_ + takes, [self = shared_from_this(), size] { self->Deliver(size); });
    } else if ((shut_ || closed_) && !std::exchange(told_end_, true)) {
        Closed(true);
    }
}

void Line::Deliver(size_t size) {
    flows_ = false;
    if (broken_ || forgotten_ || !Takes()) {
        return;
    }
    if (!net_.system_takes && writing_) {
        Give(std::min(size, writing_->size - writing_->done));
    }
    delivered_ += std::min<uint64_t>(size, given_ - delivered_);
    if (!net_.system_takes && writing_ && writing_->done == writing_->size) {
        Finish(writing_, {}, writing_->size);
    }
    Took();
    PumpWriting();
}

void Line::Cancel() {
    const Outside outside;
    Finish(connecting_, asio::error::operation_aborted, 0);
    Finish(reading_, asio::error::operation_aborted, 0);
    Finish(writing_, asio::error::operation_aborted, 0);
}

// Does not end a write, as under Wine.
void Line::Close() {
    Finish(connecting_, asio::error::operation_aborted, 0);
    Finish(reading_, asio::error::operation_aborted, 0);
    --net_.open;
    closed_ = true;
    if (broken_ || forgotten_) {
        return;
    }
    if (read_ != arrived_) {  // what is not read resets the connection
        broken_ = asio::error::connection_reset;
        net_.After(delay_, [self = shared_from_this()] { self->Closed(false); });
    } else {
        net_.After(delay_, [self = shared_from_this()] { self->Flow(); });
    }
}

void Line::Shutdown() {
    const Outside outside;
    shut_ = true;
    net_.After(delay_, [self = shared_from_this()] { self->Flow(); });
}

void Line::Arrives(size_t size) {
    if (!broken_ && closed_) {
        broken_ = asio::error::connection_reset;
        Closed(false);
    } else if (!broken_) {
        arrived_ += size;
        PumpReading();
    }
}

void Line::Ends() {
    ended_ = true;
    PumpReading();
}

void Line::Break(asio::error_code error) {
    if (broken_ || forgotten_) {
        return;
    }
    broken_ = error;
    Finish(connecting_, error, 0);
    PumpReading();
    PumpWriting();
}

void Line::Forget() {
    forgotten_ = true;
    if (keeps_alive_) {
        net_.After(net_.dice.Time(10s, 20s), [self = shared_from_this()] {
            self->forgotten_ = false;
            self->Break(asio::error::connection_reset);
        });
    }
}

}  // namespace kesto::simulation
