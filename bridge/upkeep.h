// What is done for the servers apart from scans: looking up their names, probing them, and asking which
// signatures they have.
#pragma once

#include <list>
#include <memory>

#include "bridge/attempt.h"
#include "bridge/bridge.h"

namespace kesto::bridge {

class Upkeep final : public Sleeper {
 public:
    explicit Upkeep(Bridge& bridge) : Sleeper(bridge.woken), bridge_(bridge) {}
    void Advance(Time now) override;
    void Tick(Time now);  // to be called every now and then

 private:
    struct Errand {
        std::shared_ptr<Attempt> attempt;
        bool is_probe;  // or asks for the version
    };
    struct Lookup;

    void LookUp(const ServerPtr& server, Time now);
    void Ask(const ServerPtr& server, bool is_probe, Time now);
    bool IsOver(const Errand& errand, Time now);

    Bridge& bridge_;
    std::list<Errand> errands_;
    std::list<std::shared_ptr<Lookup>> lookups_;
};

}  // namespace kesto::bridge
