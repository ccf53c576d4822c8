// Who waits for sockets. What happens there is noted down and wakes the sleeper; the loop lets it go on when
// the handler has ended. Nothing is called back.
#pragma once

#include <list>

#include "bridge/clock.h"

namespace kesto::bridge {

class Sleeper {
 public:
    using Woken = std::list<Sleeper*>;

    explicit Sleeper(Woken& woken) : woken_(woken) {}
    Sleeper(const Sleeper&) = delete;
    Sleeper& operator=(const Sleeper&) = delete;

    // Takes no memory. Once is as good as more often.
    void Wake() { woken_.splice(woken_.end(), asleep_); }

    // Lets all that are woken go on.
    static void LetGoOn(Woken& woken, Time now) {
        while (!woken.empty()) {
            Sleeper& first = *woken.front();
            first.asleep_.splice(first.asleep_.end(), woken, woken.begin());
            first.Advance(now);
        }
    }

 protected:
    ~Sleeper() { woken_.remove(this); }

    // Does what has become possible. Does not throw.
    virtual void Advance(Time now) = 0;

 private:
    Woken& woken_;
    Woken asleep_{this};  // empty while it is woken
};

}  // namespace kesto::bridge
