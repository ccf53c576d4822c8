#include "tests/simulation/plan.h"

#include <algorithm>

namespace kesto::simulation {
namespace {

FaultPlan AFault(Dice& dice, Duration from) {
    return {from, from + dice.Time(200ms, 100s), static_cast<Fault>(dice.Between(1, 12))};
}

ServerPlan AServer(Dice& dice, Duration lasts) {
    ServerPlan server;
    server.named = dice.OneIn(3);
    server.v6 = dice.OneIn(8);
    server.dead_address = server.named && dice.OneIn(3) ? static_cast<unsigned>(dice.Between(1, 2)) : 0;
    server.largest = dice.OneIn(4) ? dice.Wide(1000, 1'000'000) : UINT64_MAX;
    server.scan = dice.Time(1ms, 2s);
    if (!dice.OneIn(4)) {
        for (Duration at = dice.Time(1ms, 60s); at < lasts; at += dice.Time(1s, 60s)) {
            server.faults.push_back(AFault(dice, at));
            at = server.faults.back().until;
        }
        if (server.named && dice.OneIn(3)) {
            server.faults = {{dice.Time(1s, lasts), lasts, Fault::kMoved}};
        }
    }
    return server;
}

Kind AKind(Dice& dice) {
    constexpr Kind kRare[] = {Kind::kLong,    Kind::kKiller, Kind::kErrs,  Kind::kPing,
                              Kind::kVersion, Kind::kStats,  Kind::kNoise, Kind::kTooLong};
    return dice.OneIn(4)   ? kRare[dice.Below(std::size(kRare))]
           : dice.OneIn(3) ? Kind::kInfected
                           : Kind::kClean;
}

ClientPlan AClient(Dice& dice, Duration lasts, uint64_t largest) {
    ClientPlan client{dice.Time(1ms, lasts)};
    client.arrives = Duration(static_cast<Duration::rep>(dice.Below(static_cast<uint64_t>(lasts.count()))));
    client.kind = AKind(dice);
    client.size = dice.OneIn(20) ? 0 : dice.Wide(4, largest);
    client.chunk = dice.OneIn(4) ? static_cast<uint32_t>(dice.Wide(50, 1 << 20)) : 8192;
    client.rate = static_cast<double>(dice.Wide(400, 100'000'000));
    client.rate = std::max(client.rate, dice.OneIn(2) ? 1e6 : static_cast<double>(client.size) / 200);
    if (dice.OneIn(8)) {
        client.pauses_at = dice.Below(client.size + 14);
        client.pause = dice.Time(100ms, 45s);
    }
    if (dice.OneIn(8)) {
        client.leaves = dice.Time(1ms, 40s);
        client.resets = dice.OneIn(2);
    }
    client.finishes = dice.OneIn(8);
    return client;
}

}  // namespace

Plan PlanOf(uint64_t seed) {
    Dice dice(seed);
    Plan plan;
    plan.lasts = dice.Time(30s, 240s);
    plan.system_takes = dice.OneIn(2);
    plan.settings.upstreams.clear();
    plan.settings.decrypt = !dice.OneIn(4);
    if (dice.OneIn(3)) {
        plan.settings.idle = static_cast<unsigned>(dice.Between(2, 40));
        plan.settings.wait = static_cast<unsigned>(dice.Between(0, 70));
        plan.settings.verdict = static_cast<unsigned>(dice.Between(5, 120));
    }
    if (dice.OneIn(3)) {
        plan.settings.keep = static_cast<unsigned>(dice.Below(3));
    }
    if (dice.OneIn(3)) {
        plan.settings.clients = static_cast<unsigned>(dice.Between(1, 8));
    }
    for (uint64_t left = dice.Between(1, 6); left != 0; --left) {
        plan.servers.push_back(AServer(dice, plan.lasts));
    }
    const uint64_t largest = dice.OneIn(30) ? 30'000'000 : dice.OneIn(4) ? 1'000'000 : 100'000;
    for (uint64_t left = dice.Wide(4, 60); left != 0; --left) {
        plan.clients.push_back(AClient(dice, plan.lasts, largest));
    }
    if (dice.OneIn(4)) {
        for (Duration at = dice.Time(1s, 60s); at < plan.lasts; at += dice.Time(1s, 60s)) {
            plan.lists.push_back(
                {at, static_cast<unsigned>(dice.Between(1, (1u << plan.servers.size()) - 1))});
        }
    }
    if (dice.OneIn(6)) {
        for (Duration at = dice.Time(1ms, 30s); at < plan.lasts; at += dice.Time(100ms, 30s)) {
            plan.lacks.push_back({at, dice.Wide(0, 300), dice.Between(1, 4)});
        }
    }
    if (dice.OneIn(8)) {
        plan.stops = dice.Time(1s, plan.lasts);
    }
    plan.lookups_fail = dice.OneIn(4);
    return plan;
}

}  // namespace kesto::simulation
