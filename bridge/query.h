// A client's question to any server, such as for its version.
#pragma once

#include <memory>
#include <vector>

#include "bridge/exchange.h"

namespace kesto::bridge {

class Query : public Exchange {
 public:
    // `request` holds all of it.
    Query(Shared& shared, Asker& asker, std::shared_ptr<KeptStream> request, Time now);

    void Advance(Time now) override;
    void Tick(Time now) override;
    void Stop() override;

 private:
    void Ended(const ServerPtr& server, const AttemptEnd& end);

    Shared& shared_;
    Asker& asker_;
    std::shared_ptr<KeptStream> request_;  // until it is stopped
    std::vector<ServerPtr> to_ask_;        // the next one last
    AttemptPtr attempt_;
    Time look_up_until_;  // those whose names are being looked up
};

}  // namespace kesto::bridge
