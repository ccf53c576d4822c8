// A client's question to any server, such as for its version.
#pragma once

#include <memory>
#include <vector>

#include "bridge/attempt.h"
#include "bridge/request.h"

namespace kesto::bridge {

class Query final : public Request {
 public:
    // `stream` holds all of it. `client` outlives the query.
    Query(Bridge& bridge, Sleeper& client, std::shared_ptr<KeptStream> stream, Time now);
    ~Query() override;

    Answer Advance(Time now) override;

 private:
    Bridge& bridge_;
    Sleeper& client_;
    std::shared_ptr<KeptStream> stream_;
    std::vector<ServerPtr> to_ask_;  // the next one last
    std::shared_ptr<Attempt> attempt_;
    Time look_up_until_;  // those whose names are being looked up
};

}  // namespace kesto::bridge
