// What the guard decides, with events and times handed in: no handles, no clocks.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <map>
#include <set>
#include <sstream>

#include "common/guard_words.h"
#include "guard/policy.h"

namespace kesto {
namespace {

using namespace guard;
using namespace std::literals;

// A guard that looks four times a second. Its story is told in events "SECONDS EVENT NUMBER"; what it does is
// "SECONDS DEED": +N starts worker N, +N! one that knows of its problem, -N tells it to leave, xN ends it,
// =TEXT answers who has asked, ? turns clients away.
std::string Trace(const std::string& story) {
    const Time start{24h};
    Time now = start;
    Policy policy(now);
    std::set<uint32_t> well;
    std::string trace;
    bool lacks = false, crowd = false;
    const auto look = [&](Time at) {
        now = at;
        policy.Look(now);
        for (const uint32_t worker : well) {
            policy.GaveSign(worker, now);
        }
        if (!policy.Serves()) {
            policy.ClientsWait(crowd, now);
        }
        std::ostringstream deeds;
        const double seconds = std::chrono::duration<double>(now - start).count();
        for (Step step = policy.Next(now); step.kind != Step::Kind::kNothing; step = policy.Next(now)) {
            const bool starts = step.kind == Step::Kind::kStart;
            deeds << seconds << " +-x="[static_cast<size_t>(step.kind)]
                  << (step.worker != 0 ? std::to_string(step.worker) : step.text)
                  << (starts && policy.IsProblemKnown() ? "! " : " ");
            if (step.kind == Step::Kind::kEnd) {
                policy.Ended(step.worker, 1, "hangs", now);
            } else if (starts && lacks) {
                policy.StartFailed(step.worker, "lacks", now);
            }
        }
        if (policy.IsToTurnAway(now)) {
            deeds << seconds << "? ";
            policy.ClientsWait(false, now);
        }
        trace += deeds.str();
    };
    const auto ends = [&](uint32_t worker, uint32_t code) {
        well.erase(worker);
        policy.Ended(worker, code, "ends", now);
    };
    const std::map<std::string, std::function<void(uint32_t)>> events = {
        {"well", [&](uint32_t worker) { well.insert(worker); }},
        {"hangs", [&](uint32_t worker) { well.erase(worker); }},
        {"ends", [&](uint32_t worker) { ends(worker, 1); }},
        {"left", [&](uint32_t worker) { ends(worker, 0); }},
        {"wrong", [&](uint32_t worker) { ends(worker, kCannotFollow); }},
        {"closed", [&](uint32_t worker) { policy.AcceptsNobody(worker); }},
        {"asked", [&](uint32_t) { policy.RestartAsked(); }},
        {"crowd", [&](uint32_t yes) { crowd = yes != 0; }},
        {"lacks", [&](uint32_t yes) { lacks = yes != 0; }}};
    look(now);
    std::istringstream steps(story);
    for (std::string step, event; std::getline(steps, step, '|');) {
        std::istringstream words(step);
        double seconds = 0;
        uint32_t number = 0;
        words >> seconds >> event >> number;
        const Time at = start + std::chrono::milliseconds(std::lround(seconds * 1000));
        while (event != "woke" && now + 250ms < at) {
            look(now + 250ms);
        }
        now = at;
        if (const auto known = events.find(event); known != events.end()) {
            known->second(number);
        }
        look(now);
    }
    return trace;
}

TEST(GuardPolicy, Stories) {
    const std::pair<const char*, const char*> cases[] = {
        // Whoever has served is followed at once, however often; clients may wait meanwhile.
        {"0 well 1|1.3 ends 1|1.3 crowd 1|1.4 well 2|2.6 ends 2|2.7 well 3|15 ends 3|20 end",
         "0+1 1.3+2 2.6+3 15+4 "},
        // The pauses grow to a second, and begin anew behind one that has served.
        {"0.1 ends 1|0.2 ends 2|0.5 ends 3|1.1 ends 4|2.2 ends 5|3.3 well 6|4 ends 6|4 ends 7|5 end",
         "0+1 0.1+2 0.45+3 1+4 2.1+5 3.2+6 4+7 4.25+8 "},
        // Its program is missing. Clients that have waited for ten seconds are turned away; the next begin
        // anew.
        {"0 well 1|1 lacks 1|1 ends 1|1.5 crowd 1|1.75 lacks 0|22 end",
         "0+1 1+2 1.25+3 1.5+4 1.75+5 11.5? 17x5 17.25+6 21.75? "},
        // At once only while the settings cannot be followed, which are tried again every five seconds.
        {"0 wrong 1|1 crowd 1|1.1 crowd 0|5.2 wrong 2|5.5 crowd 1|5.6 crowd 0|11 well 3|20 ends 3|20 crowd "
         "1|22 end",
         "0+1 1? 5.1+2! 5.5? 10.35+3! 20+4 "},
        // A silent worker is ended, whether or not it has served; sooner where another one serves.
        {"17 well 2|18 hangs 2|35 well 3|35 asked|46.5 end",
         "0+1 15.25x1 15.25+2 33x2 33+3 35+4 45.25x4 45.25=the new kestobridge.exe hangs "},
        // The sleep of a machine tells nothing of its workers.
        {"0 well 1|1 hangs 1|100 woke|114 well 1|130 end", "0+1 "},
        // The answer comes when the former one accepts nobody, has ended, or was ended. Who asks while one
        // starts
        // gets another one, which reads what is written now.
        {"0 closed 1|0 asked|1 well 1|2 well 2|3 closed 1|4 asked|5 well 3|6 left 2|7 asked|8 well 4|8 hangs 3|30 end",
         "0+1 1+2 2-1 3=restarted 4+3 5-2 6=restarted 7+4 8-3 23.25x3 23.25=restarted "},
        // The former one goes on where the new one fails. Each who asks gets an answer of his own.
        {"0 well 1|1 asked|2 ends 2|3 lacks 1|3 asked|4 lacks 0|4 asked|5 well 4|5 closed 1|6 asked|7 well "
         "5|7.1 ends 5",
         "0+1 1+2 2=the new kestobridge.exe ends 3+3 3=lacks 4+4 5-1 5=restarted 6+5 7-4 7.1=the new "
         "kestobridge.exe ends 7.1+6 "},
    };
    for (const auto& [story, deeds] : cases) {
        EXPECT_EQ(Trace(story), deeds) << story;
    }
}

}  // namespace
}  // namespace kesto
