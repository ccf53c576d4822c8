// One scan: what is kept of its stream, its attempts, and the execution of what its policy decides.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bridge/attempt.h"
#include "bridge/framing.h"
#include "bridge/request.h"
#include "bridge/scan_policy.h"

namespace kesto::bridge {

class Scan final : public Request {
 public:
    // `stream` holds the command. `client` and its name outlive the scan.
    Scan(Bridge& bridge, Sleeper& client, const std::string& name, std::shared_ptr<KeptStream> stream,
         Time now);
    ~Scan() override;

    bool Hears() const override { return !policy_.StreamHasEnded(); }
    std::span<uint8_t> Space(std::shared_ptr<KeptStream>& keeper) override;
    bool Take(uint8_t* bytes, size_t size, Time now) override;
    void FinishedSending(Time now) override { policy_.FinishedSending(now); }
    Answer Advance(Time now) override;
    bool Waits() const override { return policy_.Waits(); }

 private:
    void Begin(const ServerPtr& server);
    void HearAttempts(Time now);
    void FreeWindow();
    void CancelAttempts();

    Bridge& bridge_;
    Sleeper& client_;
    const std::string& name_;
    std::shared_ptr<KeptStream> stream_;
    ChunkStream chunks_;
    ScanPolicy policy_;
    std::vector<std::shared_ptr<Attempt>> attempts_;  // by the policy's numbers, null when heard to the end
    const Time began_;
    Outcome outcome_;
};

}  // namespace kesto::bridge
