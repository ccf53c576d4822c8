// What the guard decides, with events and times handed in: no handles, no clocks.
#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <sstream>

#include "common/guard_words.h"
#include "guard/policy.h"

namespace kesto {
namespace {

using namespace guard;
using namespace std::literals;

// A guard that looks four times a second. Its story is told in events "SECONDS EVENT [NUMBER]"; what it does
// is "SECONDS DEED": +N starts worker N, -N tells it to leave, xN ends it, =TEXT answers who has asked, ?
// turns clients away. "+N!" starts a worker that knows of its problem.
std::string Trace(const std::string& story) {
    const Time start{24h};
    Time now = start;
    Policy policy(now);
    std::set<uint32_t> well;
    std::ostringstream trace;
    bool lacking = false, crowded = false;
    const auto look = [&](Time at) {
        now = at;
        const auto tell = [&](const std::string& deed) {
            trace << (trace.tellp() == 0 ? "" : " ") << std::chrono::duration<double>(now - start).count()
                  << deed;
        };
        policy.Look(now);
        for (const uint32_t worker : well) {
            policy.GaveSign(worker, now);
        }
        policy.ClientsWait(crowded && !policy.Serves(), now);
        for (Step step = policy.Next(now); step.kind != Step::Kind::kNothing; step = policy.Next(now)) {
            tell(" +-x="[static_cast<size_t>(step.kind)] +
                 (step.worker != 0 ? std::to_string(step.worker) : step.text) +
                 (step.kind == Step::Kind::kStart && policy.IsProblemKnown() ? "!" : ""));
            if (step.kind == Step::Kind::kEnd) {
                policy.Ended(step.worker, 1, "hangs", now);
            } else if (step.kind == Step::Kind::kStart && lacking) {
                policy.StartFailed(step.worker, "lacks", now);
            }
        }
        if (policy.IsToTurnAway(now)) {
            tell("?");
            policy.ClientsWait(false, now);
        }
    };
    look(now);
    std::istringstream steps(story);
    for (std::string step; std::getline(steps, step, '|');) {
        std::istringstream words(step);
        double seconds = 0;
        std::string event;
        uint32_t worker = 0;
        words >> seconds >> event >> worker;
        const Time at = start + std::chrono::milliseconds(std::lround(seconds * 1000));
        while (event != "woke" && now + 250ms < at) {
            look(now + 250ms);
        }
        now = at;
        if (event == "well") {
            well.insert(worker);
        } else if (event == "hangs") {
            well.erase(worker);
        } else if (event == "ended" || event == "left" || event == "wrong") {
            well.erase(worker);
            policy.Ended(worker, event == "ended" ? 1 : event == "left" ? 0 : kCannotFollow, "e", now);
        } else if (event == "closed") {
            policy.AcceptsNobody(worker);
        } else if (event == "asked") {
            policy.RestartAsked();
        } else if (event == "crowd" || event == "gone") {
            crowded = event == "crowd";
        } else if (event == "lacking" || event == "back") {
            lacking = event == "lacking";
        }
        look(now);
    }
    return trace.str();
}

TEST(GuardPolicy, Stories) {
    const std::pair<const char*, const char*> cases[] = {
        // Whoever has served is followed at once, however often; clients may wait meanwhile.
        {"0 well 1 |1.3 ended 1 |1.3 crowd |1.4 well 2 |2.6 ended 2 |2.7 well 3 |20 -", "0+1 1.3+2 2.6+3"},
        // The pauses grow to a second, and begin anew behind one that has served.
        {"0.1 ended 1 |0.2 ended 2 |0.5 ended 3 |1.1 ended 4 |2.2 ended 5 |3.3 well 6 |4 ended 6 |4 ended 7 "
         "|5 -",
         "0+1 0.1+2 0.45+3 1+4 2.1+5 3.2+6 4+7 4.25+8"},
        // Its program is missing. Clients that have waited for ten seconds are turned away; the next begin
        // anew.
        {"0 well 1 |1 lacking |1 ended 1 |1.5 crowd |1.75 back |22 -",
         "0+1 1+2 1.25+3 1.5+4 1.75+5 11.5? 17x5 17.25+6 21.75?"},
        // At once only while the settings cannot be followed, which are tried again every five seconds.
        {"0 wrong 1 |1 crowd |1.1 gone |5.2 wrong 2 |5.5 crowd |5.6 gone |11 well 3 |20 ended 3 |20 crowd "
         "|22 -",
         "0+1 1? 5.1+2! 5.5? 10.35+3! 20+4"},
        {"0 well 1 |1 asked |2 wrong 2 |2 crowd |3 ended 1 |4 -", "0+1 1+2 2=the new kestobridge.exe e 3+3!"},
        // A silent worker is ended: also one that never served; sooner where another one serves.
        {"1 well 1 |2 hangs 1 |20 -", "0+1 17x1 17+2"},
        {"16 -", "0+1 15.25x1 15.25+2"},
        {"0 well 1 |1 asked |12 -", "0+1 1+2 11.25x2 11.25=the new kestobridge.exe hangs"},
        // The sleep of a machine tells nothing of its workers.
        {"0 well 1 |1 hangs 1 |100 woke |114 well 1 |130 -", "0+1"},
        // The answer comes when the former one accepts nobody, or has ended; then it may take long to leave.
        {"0 well 1 |1 asked |2 well 2 |3 closed 1 |99 left 1", "0+1 1+2 2-1 3=restarted"},
        {"0 well 1 |1 asked |2 well 2 |3 left 1", "0+1 1+2 2-1 3=restarted"},
        {"0 well 1 |1 asked |2 well 2 |3 hangs 1 |19 -", "0+1 1+2 2-1 18x1 18=restarted"},
        // Who asks while one starts gets another one, which reads what is written now.
        {"0 asked |1 well 1 |2 well 2 |2 closed 1", "0+1 1+2 2-1 2=restarted"},
        // The former one goes on where the new one fails. Each who asks gets an answer of his own.
        {"0 well 1 |1 asked |2 ended 2 |3 lacking |3 asked |4 back |4 asked |5 well 4 |5 closed 1",
         "0+1 1+2 2=the new kestobridge.exe e 3+3 3=lacks 4+4 5-1 5=restarted"},
        {"0 well 1 |1 asked |2 well 2 |2.1 ended 2 |2.2 left 1",
         "0+1 1+2 2-1 2.1=the new kestobridge.exe e 2.1+3"},
    };
    for (const auto& [story, deeds] : cases) {
        EXPECT_EQ(Trace(story), deeds) << story;
    }
}

}  // namespace
}  // namespace kesto
