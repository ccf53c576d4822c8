// One scan: what is kept of its stream, its attempts, and the execution of what its policy decides.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "bridge/exchange.h"
#include "bridge/framing.h"
#include "bridge/scan_policy.h"

namespace kesto::bridge {

class Scan : public Exchange {
 public:
    // `stream` holds the command.
    Scan(Shared& shared, Asker& asker, std::shared_ptr<KeptStream> stream, Time now);

    bool Hears() const override { return policy_ && !policy_->StreamHasEnded(); }
    std::span<uint8_t> Space(std::shared_ptr<KeptStream>& keeper) override;
    void Take(uint8_t* bytes, size_t size, Time now) override;
    void FinishedSending(Time now) override;
    void Advance(Time now) override;
    void Tick(Time now) override;
    bool Waits() const override { return policy_ && policy_->Waits(); }
    void Stop() override;

 private:
    void Begin(size_t number, const ServerPtr& server);
    void AttemptEnded(size_t number, const ServerPtr& server, const AttemptEnd& end);
    void FreeWindow();
    template <typename Work>
    void ForEachAttempt(Work work);
    void CancelAttempts();
    void End(Outcome outcome);

    Shared& shared_;
    Asker& asker_;
    std::shared_ptr<KeptStream> stream_;
    ChunkStream chunks_;
    std::optional<ScanPolicy> policy_;  // until the end
    std::vector<AttemptPtr> attempts_;  // by the policy's numbers, null when ended
    const Time began_;
};

}  // namespace kesto::bridge
