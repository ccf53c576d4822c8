// What the guard decides, with events and times handed in: no handles, no clocks.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <set>
#include <sstream>

#include "common/guard_words.h"
#include "guard/policy.h"

namespace {

using namespace kesto::guard;
using namespace std::literals;

// A guard that looks four times a second. Its story is told in events "SECONDS EVENT NUMBER"; what it does is
// "SECONDS DEED": +N starts worker N, +N! one that knows of its problem, -N tells it to leave, xN ends it,
// =TEXT answers who has asked, ? turns clients away.
std::string Trace(const std::string& story) {
    Time now{24h};
    const Time start = now;
    Policy policy(now);
    std::set<uint32_t> well;
    std::map<std::string, uint32_t> latest;  // number of each event
    std::ostringstream trace;
    const auto look = [&] {
        policy.Look(now);
        for (const uint32_t worker : well) {
            policy.GaveSign(worker, now);
        }
        if (!policy.Serves()) {
            policy.ClientsWait(latest["crowd"] != 0, now);
        }
        const double seconds = std::chrono::duration<double>(now - start).count();
        for (Step step = policy.Next(now); step.kind != Step::Kind::kNothing; step = policy.Next(now)) {
            const bool starts = step.kind == Step::Kind::kStart;
            trace << seconds << " +-x="[static_cast<size_t>(step.kind)]
                  << (step.worker != 0 ? std::to_string(step.worker) : step.text)
                  << (starts && policy.IsProblemKnown() ? "! " : " ");
            if (step.kind == Step::Kind::kEnd) {
                policy.Ended(step.worker, 1, "hangs", now);
            } else if (starts && latest["lacks"] != 0) {
                policy.StartFailed(step.worker, "lacks", now);
            }
        }
        if (policy.IsToTurnAway(now)) {
            trace << seconds << "? ";
            policy.ClientsWait(false, now);
        }
    };
    const std::map<std::string, uint32_t> codes = {{"ends", 1}, {"left", 0}, {"wrong", kesto::kCannotFollow}};
    look();
    std::istringstream words(story);
    double seconds = 0;
    std::string event;
    uint32_t number = 0;
    for (char bar; words >> seconds >> event >> number; words >> bar) {
        const Time at = start + std::chrono::milliseconds(std::lround(seconds * 1000));
        for (; event != "woke" && now + 250ms < at; look()) {
            now += 250ms;
        }
        now = at;
        latest[event] = number;
        if (event == "well") {
            well.insert(number);
        } else if (event == "hangs") {
            well.erase(number);
        } else if (event == "closed") {
            policy.AcceptsNobody(number);
        } else if (event == "asked") {
            policy.RestartAsked();
        } else if (codes.contains(event)) {
            well.erase(number);
            policy.Ended(number, codes.at(event), "ends", now);
        }
        look();
    }
    return trace.str();
}

TEST(GuardPolicy, Stories) {
    const std::pair<const char*, const char*> cases[] = {
        // Whoever has served is followed at once, however often; clients may wait meanwhile.
        {"0 well 1|1.3 ends 1|1.3 crowd 1|1.4 well 2|2.6 ends 2|2.7 well 3|15 ends 3|20 end 0",
         "0+1 1.3+2 2.6+3 15+4 "},
        // The pauses grow to a second, and begin anew behind one that has served.
        {"0.1 ends 1|0.2 ends 2|0.5 ends 3|1.1 ends 4|2.2 ends 5|3.3 well 6|4 ends 6|4 ends 7|5 end 0",
         "0+1 0.1+2 0.45+3 1+4 2.1+5 3.2+6 4+7 4.25+8 "},
        // Its program is missing. Clients that have waited for ten seconds are turned away; the next begin
        // anew.
        {"0 well 1|1 lacks 1|1 ends 1|1.5 crowd 1|1.75 lacks 0|22 end 0",
         "0+1 1+2 1.25+3 1.5+4 1.75+5 11.5? 17x5 17.25+6 21.75? "},
        // At once only while the settings cannot be followed, which are tried again every five seconds.
        {"0 wrong 1|1 crowd 1|1.1 crowd 0|5.2 wrong 2|5.5 crowd 1|5.6 crowd 0|11 well 3|20 ends 3|"
         "20 crowd 1|22 end 0",
         "0+1 1? 5.1+2! 5.5? 10.35+3! 20+4 "},
        // A silent worker is ended, whether or not it has served; sooner where another one serves.
        {"17 well 2|18 hangs 2|35 well 3|35 asked 0|46.5 end 0",
         "0+1 15.25x1 15.25+2 33x2 33+3 35+4 45.25x4 45.25=the new kestobridge.exe hangs "},
        // The sleep of a machine tells nothing of its workers.
        {"0 well 1|1 hangs 1|100 woke 0|114 well 1|130 end 0", "0+1 "},
        // The answer comes when the former one accepts nobody, has ended, or was ended. Who asks while one
        // starts gets another one, which reads what is written now.
        {"0 closed 1|0 asked 0|1 well 1|2 well 2|3 closed 1|4 asked 0|5 well 3|6 left 2|7 asked 0|8 well 4|8 "
         "hangs 3|"
         "30 end 0",
         "0+1 1+2 2-1 3=restarted 4+3 5-2 6=restarted 7+4 8-3 23.25x3 23.25=restarted "},
        // The former one goes on where the new one fails. Each who asks gets an answer of his own.
        {"0 well 1|1 asked 0|2 ends 2|3 lacks 1|3 asked 0|4 lacks 0|4 asked 0|5 well 4|5 closed 1|6 asked 0|"
         "7 well 5|7.1 ends 5",
         "0+1 1+2 2=the new kestobridge.exe ends 3+3 3=lacks 4+4 5-1 5=restarted 6+5 7-4 7.1=the new "
         "kestobridge.exe ends 7.1+6 "},
    };
    for (const auto& [story, deeds] : cases) {
        EXPECT_EQ(Trace(story), deeds) << story;
    }
}

}  // namespace
