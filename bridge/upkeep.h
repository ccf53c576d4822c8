// What is done for the servers apart from scans: looking up their names, probing them, and asking which
// signatures they have.
#pragma once

#include <list>
#include <memory>
#include <string_view>

#include "bridge/bridge.h"

namespace kesto::bridge {

class Upkeep {
 public:
    explicit Upkeep(Bridge& bridge) : bridge_(bridge) {}
    void Tick(Time now);  // to be called every now and then

 private:
    class Question;
    struct Lookup;

    void LookUp(const ServerPtr& server, Time now);
    void Ask(const ServerPtr& server, std::string_view request, std::chrono::seconds limit, Time now,
             std::function<void(const AttemptEnd&)> ended);
    void Probe(const ServerPtr& server, Time now);
    void AskVersion(const ServerPtr& server, Time now);

    Bridge& bridge_;
    std::list<std::shared_ptr<Question>> questions_;
    std::list<std::shared_ptr<Lookup>> lookups_;
};

}  // namespace kesto::bridge
