// Whole timelines through PolicyEngine::handle, asserting on complete effect
// lists and plans.

#include <gtest/gtest.h>

#include "EngineTesting.h"

namespace tavra {
namespace {

using namespace testing_engine;
using K = AgentEvent::Kind;
using JK = JournalEntry::Kind;
using Effects = std::vector<Effect>;
using L = Alert::Level;
using C = Alert::Category;

const std::string kDot = " \xC2\xB7 ";

TEST(EngineScenario, SessionFromFirstPromptToEnd) {
    Timeline tl;
    auto d = tl.agent(0, event(kClaude, K::promptSubmitted, "/Users/me/proj", 42));
    EXPECT_EQ(d.effects, (Effects{journal(0, JK::runStarted, kClaude, "/Users/me/proj")}));
    EXPECT_TRUE(tl.agent(60, toolEvent(kClaude, K::toolStarted, "Bash", "ls")).effects.empty());

    d = tl.agent(90, toolEvent(kClaude, K::permissionRequested, "Bash", "ls"));
    EXPECT_EQ(d.effects,
              (Effects{alert("permission-claude:s1-" + epochAt(90), "Claude (proj) needs you",
                             "Waiting for permission to use Bash.", L::warning, C::permission, kClaude)}));
    EXPECT_EQ(d.plan, holding({"Claude (proj) waiting for you"}));

    // Time spent waiting (90...150) is not working time.
    EXPECT_TRUE(tl.agent(150, toolEvent(kClaude, K::toolFinished, "Bash", "ls")).effects.empty());
    EXPECT_FALSE(tl.run(kClaude).waitingSince);
    EXPECT_TRUE(tl.agent(200, toolEvent(kClaude, K::toolStarted, "Edit", "edit a", true)).effects.empty());
    EXPECT_TRUE(tl.agent(210, toolEvent(kClaude, K::toolFinished, "Edit", "edit a", true)).effects.empty());

    AgentEvent stop = event(kClaude, K::turnStopped);
    stop.message = "All done.";
    d = tl.agent(660, stop);
    EXPECT_EQ(d.effects,
              (Effects{journal(660, JK::turnFinished, kClaude, "/Users/me/proj", {}, {}, 600.0),
                       alert("finished-claude:s1-1", "Claude (proj) finished",
                             "Worked 10 min" + kDot + "2 tool calls" + kDot + "1 file edits\nAll done.",
                             L::info, C::finished, kClaude, {}, 600.0),
                       releaseEntry(660, "agents finished")}));
    EXPECT_EQ(d.plan, PowerPlan::released);

    d = tl.agent(700, event(kClaude, K::sessionEnded));
    EXPECT_EQ(d.effects,
              (Effects{journal(700, JK::runEnded, kClaude, "/Users/me/proj", "session ended", {}, 600.0)}));
    EXPECT_TRUE(tl.engine.runs().empty());
}

TEST(EngineScenario, HotSpellWithLidClosedThenCoolingOfflineThenNetworkBack) {
    SystemSnapshot sys = machine(PowerSource::ac, true, true);
    Timeline tl(sys);
    const RunKey a{AgentKind::claude, "a"};
    const RunKey b{AgentKind::codex, "b"};  // no pid: can never be frozen
    tl.agent(0, event(a, K::promptSubmitted, "/w/a", 1));
    tl.agent(1, event(b, K::promptSubmitted));

    sys.thermal = ThermalLevel::serious;
    auto d = tl.system(10, sys);
    EXPECT_EQ(d.effects, (Effects{Effect::freeze(a, 1), journal(10, JK::paused, a, "/w/a", "thermal"),
                                  journal(10, JK::guardTripped, {}, {}, "thermal", "hot"),
                                  alert("thermal-" + epochAt(10), "Computer is hot",
                                        "Paused Claude (a) until it cools down.", L::warning, C::thermal)}));
    EXPECT_EQ(d.plan, holding({"Claude (a) paused (thermal), waiting to resume", "Codex working"}));
    EXPECT_TRUE(tl.tick(11).effects.empty());  // told once per spell

    // Cools while offline: the pause is handed to the network guard, silently.
    sys.thermal = ThermalLevel::fair;
    sys.networkReachable = false;
    d = tl.system(20, sys);
    EXPECT_TRUE(d.effects.empty());
    EXPECT_EQ(tl.run(a).pauseReason, PauseReason::network);
    EXPECT_EQ(d.plan, holding({"Claude (a) paused (network), waiting to resume", "Codex working"}));

    // The outage passes its limit, but the only working run has no pid: no alert.
    EXPECT_TRUE(tl.tick(45).effects.empty());
    EXPECT_EQ(tl.run(b).status, RunStatus::working);

    sys.networkReachable = true;
    d = tl.system(60, sys);
    EXPECT_EQ(d.effects, (Effects{Effect::thaw(a, 1), journal(60, JK::resumed, a, "/w/a", "network"),
                                  alert("resumed-claude:a-" + epochAt(60), "Claude (a) resumed",
                                        "Network cleared.", L::info, C::resumed, a)}));
    EXPECT_EQ(d.plan, holding({"Claude (a) working", "Codex working"}));
}

TEST(EngineScenario, NetworkPauseIsHandedToHeatAndResumedWhenItCools) {
    SystemSnapshot sys = machine(PowerSource::ac, true, true);
    Timeline tl(sys);
    const RunKey a{AgentKind::claude, "a"};
    tl.agent(0, event(a, K::promptSubmitted, "/w/a", 1));

    sys.networkReachable = false;
    EXPECT_TRUE(tl.system(10, sys).effects.empty());
    EXPECT_TRUE(tl.tick(29).effects.empty());
    auto d = tl.tick(30);  // exactly networkPauseAfter
    EXPECT_EQ(
        d.effects,
        (Effects{Effect::freeze(a, 1), journal(30, JK::paused, a, "/w/a", "network"),
                 alert("network-" + epochAt(30), "Network lost",
                       "Paused Claude (a) so it doesn't burn retries. Will resume when the network is back.",
                       L::warning, C::network)}));
    // Heat with nothing left to pause is still told, once.
    sys.thermal = ThermalLevel::serious;
    EXPECT_EQ(tl.system(40, sys).effects, (Effects{journal(40, JK::guardTripped, {}, {}, "thermal", "hot"),
                                                   alert("thermal-" + epochAt(40), "Computer is hot",
                                                         "Watching temperature.", L::warning, C::thermal)}));

    // The network returns while it is hot with the lid closed: the pause changes hands silently.
    sys.networkReachable = true;
    d = tl.system(50, sys);
    EXPECT_TRUE(d.effects.empty());
    EXPECT_EQ(tl.run(a).pauseReason, PauseReason::thermal);
    EXPECT_EQ(d.plan, holding({"Claude (a) paused (thermal), waiting to resume"}));

    sys.thermal = ThermalLevel::nominal;
    d = tl.system(60, sys);
    EXPECT_EQ(d.effects, (Effects{Effect::thaw(a, 1), journal(60, JK::resumed, a, "/w/a", "thermal"),
                                  alert("resumed-claude:a-" + epochAt(60), "Claude (a) resumed",
                                        "Thermal cleared.", L::info, C::resumed, a)}));
    EXPECT_EQ(tl.run(a).pauses, (std::vector<PauseRecord>{{PauseReason::network, at(30), at(60)}}));
}

TEST(EngineScenario, SilentRunGoesIdleByItsLimitAndAnExitMidRunIsTold) {
    Timeline tl;
    tl.agent(0, event(kClaude, K::promptSubmitted, "/w/p", 5));
    tl.agent(0, event(kClaude, K::toolStarted));
    EXPECT_TRUE(tl.tick(1200).effects.empty());  // a tool in flight gets the longer limit
    auto d = tl.tick(7200);
    EXPECT_EQ(d.effects,
              (Effects{journal(7200, JK::guardTripped, kClaude, {}, "stale", "no events for 120 min"),
                       releaseEntry(7200, "agents finished")}));

    tl.agent(7300, event(kClaude, K::promptSubmitted));
    d = tl.engine.handle(PolicyInput::processExited(kClaude), at(7400));
    EXPECT_EQ(d.effects, (Effects{journal(7400, JK::runEnded, kClaude, "/w/p", "process exited", {}, 7300.0),
                                  alert("ended-claude:s1-" + epochAt(7400), "Claude stopped mid-run",
                                        "Reason: process exited.", L::warning, C::system, kClaude),
                                  releaseEntry(7400, "agents finished")}));
    EXPECT_TRUE(tl.engine.runs().empty());
}

TEST(EngineScenario, BatterySpellTripsOnceAndRearmsOnlyWithMargin) {
    SystemSnapshot sys = machine(PowerSource::battery);
    sys.batteryPercent = 30;
    Timeline tl(sys);
    auto d = tl.agent(1, event(kClaude, K::promptSubmitted, "/w/p", 7));
    EXPECT_EQ(d.effects,
              (Effects{journal(1, JK::runStarted, kClaude, "/w/p"),
                       alert("battery-lid-" + epochAt(1), "On battery: closing the lid sleeps the computer",
                             "Agents stop until you open it. Plug in, or turn on Lid Closed on Battery in "
                             "Tavra.",
                             L::info, C::system)}));
    EXPECT_EQ(d.plan, holding({"Claude (p) working"}, false));

    auto battery = [&](double t, int pct) {
        sys.batteryPercent = pct;
        return tl.system(t, sys);
    };
    auto tripped = [&](double t, int pct) {
        return Effects{journal(t, JK::guardTripped, {}, {}, "battery", std::to_string(pct) + "% <= 25%"),
                       alert("battery-" + epochAt(t), "Battery at " + std::to_string(pct) + "%",
                             "Below your 25% floor. Letting the computer sleep.", L::critical, C::battery),
                       releaseEntry(t, "battery below floor")};
    };

    d = battery(100, 25);
    EXPECT_EQ(d.effects, tripped(100, 25));
    EXPECT_EQ(d.plan, PowerPlan::released);
    EXPECT_TRUE(battery(200, 27).effects.empty());  // within the margin: still tripped
    EXPECT_TRUE(battery(300, 24).effects.empty());  // no second alert in the spell
    d = battery(400, 28);                           // floor + 3 re-arms
    EXPECT_TRUE(d.effects.empty());
    EXPECT_EQ(d.plan, holding({"Claude (p) working"}, false));
    EXPECT_EQ(battery(500, 25).effects, tripped(500, 25));

    // Plugging in re-arms at once, whatever the percentage.
    sys.powerSource = PowerSource::ac;
    d = tl.system(600, sys);
    EXPECT_FALSE(tl.engine.batteryGuardTripped());
    EXPECT_EQ(d.plan, holding({"Claude (p) working"}));
}

TEST(EngineScenario, StuckLoopTripsIsResumedAndTripsAgainOnlyAfterAFullSpell) {
    Timeline tl;
    tl.agent(0, event(kClaude, K::promptSubmitted, "/w/p", 9));
    auto repeat = [&](double from) {
        for (int i = 0; i < 5; ++i)
            EXPECT_TRUE(
                tl.agent(from + i, toolEvent(kClaude, K::toolStarted, "Bash", "npm test")).effects.empty());
    };
    auto stuckAlert = [](double t) {
        return alert("stuck-claude:s1-" + epochAt(t), "Claude (p) looks stuck",
                     "No file changes for 20 min and the same tool call keeps repeating. Paused it.",
                     L::warning, C::stuck, kClaude, {{"\xE2\x96\xB6\xEF\xB8\x8F Resume", "resume claude:s1"}},
                     {});
    };
    repeat(1000);
    EXPECT_TRUE(tl.tick(1199).effects.empty());
    auto d = tl.tick(1200);
    EXPECT_EQ(d.effects,
              (Effects{Effect::freeze(kClaude, 9), journal(1200, JK::paused, kClaude, "/w/p", "stuck"),
                       stuckAlert(1200), releaseEntry(1200, "agents finished")}));
    EXPECT_EQ(d.plan, PowerPlan::released);

    d = tl.command(1300, UserCommand::resume(kClaude));
    EXPECT_EQ(d.effects,
              (Effects{Effect::thaw(kClaude, 9), journal(1300, JK::resumed, kClaude, "/w/p", "stuck")}));
    EXPECT_EQ(d.plan, holding({"Claude (p) working"}));

    repeat(2400);
    EXPECT_TRUE(tl.tick(2499).effects.empty());  // the window counts from the resumption
    EXPECT_EQ(tl.tick(2500).effects,
              (Effects{Effect::freeze(kClaude, 9), journal(2500, JK::paused, kClaude, "/w/p", "stuck"),
                       stuckAlert(2500), releaseEntry(2500, "agents finished")}));
}

TEST(EngineScenario, WaitPastItsGraceLetsTheMacSleepWhenNobodyIsThere) {
    SystemSnapshot sys = machine(PowerSource::ac, true, true);
    sys.userIdleSeconds = 600;
    Timeline tl(sys);
    tl.agent(0, event(kClaude, K::promptSubmitted, "/w/p", 3));
    AgentEvent ask = event(kClaude, K::permissionRequested);
    ask.message = "Allow write?";
    auto d = tl.agent(10, ask);
    EXPECT_EQ(d.effects, (Effects{alert("permission-claude:s1-" + epochAt(10), "Claude (p) needs you",
                                        "Allow write?", L::warning, C::permission, kClaude)}));
    EXPECT_TRUE(tl.agent(100, ask).effects.empty());  // no second alert within the wait
    EXPECT_TRUE(tl.tick(309).effects.empty());

    d = tl.tick(310);
    EXPECT_EQ(d.effects, (Effects{alert("grace-claude:s1-" + epochAt(310), "Claude (p) is still waiting",
                                        "The computer is allowed to sleep until you answer.", L::warning,
                                        C::permission, kClaude),
                                  releaseEntry(310, "waiting for permission"),
                                  journal(310, JK::sleep, {}, {}, "waiting for permission"),
                                  Effect::sleepNow("waiting for permission")}));
    EXPECT_EQ(tl.run(kClaude).status, RunStatus::waiting);
}

}  // namespace
}  // namespace tavra
