// Table-driven tests of the engine's small pieces: finished bodies, sleep
// reasons, plan rules, the status moves of agent events, and the frame.

#include <gtest/gtest.h>

#include "EngineTesting.h"

namespace tavra {
namespace {

using namespace testing_engine;
using K = AgentEvent::Kind;

TEST(EngineFinishedBody, ListsWorkToolsAndEditsThenTheLastMessage) {
    const std::string dot = " \xC2\xB7 ";
    const std::string longMessage = std::string(279, 'a') + "\xC3\xA9" + "zzzzzzzzzzzzzzzzzzzz";
    // Work time of the turn, tool calls, file edits, last message, body.
    const std::tuple<std::optional<double>, int, int, std::optional<std::string>, std::string> cases[] = {
        {59, 1, 0, {}, "Worked <1 min" + dot + "1 tool calls"},
        {60, 1, 0, {}, "Worked 1 min" + dot + "1 tool calls"},
        {600, 12, 3, {}, "Worked 10 min" + dot + "12 tool calls" + dot + "3 file edits"},
        {std::nullopt, 0, 1, "", "0 tool calls" + dot + "1 file edits"},
        {std::nullopt, 2, 0, "Done.", "2 tool calls\nDone."},
        {std::nullopt, 2, 0, longMessage, "2 tool calls\n" + std::string(279, 'a') + "\xC3\xA9"},
    };
    for (const auto& [turnWork, tools, writes, lastMessage, expected] : cases) {
        tavra::Run run(kClaude, at(0));
        run.toolCount = tools, run.fileWrites = writes, run.lastMessage = lastMessage;
        EXPECT_EQ(PolicyEngine::finishedBody(run, turnWork), expected);
    }
}

TEST(EngineDisplayName, CapitalisesTheAgentAndNamesTheFolderOfKnownRuns) {
    // Agent, cwd of the run (absent: no event brought one), name.
    const std::tuple<std::string, std::optional<std::string>, std::string> cases[] = {
        {"claude", std::nullopt, "Claude"},
        {"claude", "/Users/me/proj/", "Claude (proj)"},
        {"CODEX", "/", "Codex (/)"},
        {"my agent", "relative/dir", "My Agent (dir)"},
    };
    Timeline tl;
    int session = 0;
    for (const auto& [agent, cwd, expected] : cases) {
        const RunKey key{AgentKind{agent}, std::to_string(++session)};
        EXPECT_EQ(tl.engine.displayName(key), expected.substr(0, expected.find(" ("))) << "unknown run";
        tl.agent(0, event(key, K::activity, cwd));
        EXPECT_EQ(tl.engine.displayName(key), expected);
    }
}

TEST(EngineSleepReason, TheFirstMatchingCauseNamesTheRelease) {
    // Causes present: sleep requested, low battery, disabled, waiting, lid closed on battery,
    // critical or hot (serious) thermal.
    const std::pair<const char*, std::string> cases[] = {
        {"agents finished", ""},
        {"sleep requested", "sleep"},
        {"battery below floor", "low disabled critical"},
        {"thermal critical", "critical"},
        {"too hot for too long", "hot"},
        {"disabled", "disabled"},
        {"waiting for permission", "waiting lid"},
        {"on battery with lid closed", "lid"},
    };
    for (const auto& [expected, causes] : cases) {
        const auto has = [&](const char* cause) { return causes.find(cause) != std::string::npos; };
        Timeline tl;
        SystemSnapshot s = machine();
        if (has("disabled")) tl.command(0, UserCommand::setEnabled(false));
        if (has("waiting")) tl.agent(0, event(kClaude, K::needsAttention));
        if (has("sleep")) tl.command(100, UserCommand::sleepNow());
        if (has("low")) s.powerSource = PowerSource::battery, s.batteryPercent = 10;
        if (has("lid")) s.lidClosed = true, s.powerSource = PowerSource::battery;
        if (has("critical")) s.thermal = ThermalLevel::critical;
        if (has("hot")) s.thermal = ThermalLevel::serious;
        tl.system(100, s);
        EXPECT_EQ(tl.engine.sleepReason(at(100)), expected) << causes;
        // A sleep request names the release only in the very second it was given.
        if (has("sleep")) {
            EXPECT_EQ(tl.engine.sleepReason(at(101)), "agents finished");
        }
    }
}

TEST(EnginePlan, HoldsAndStayAwakeCountOnlyUntilTheirDateAndSortById) {
    Timeline tl;
    tl.command(0, UserCommand::hold("b", at(50)));
    tl.command(0, UserCommand::hold("a", at(100)));
    auto d = tl.command(0, UserCommand::stayAwake(at(50)));
    EXPECT_EQ(d.plan, holding({"stay-awake requested", "a", "b"}));
    EXPECT_EQ(tl.engine.computePlan(at(50)), holding({"a"}));
    d = tl.tick(50);  // expired entries go in the pass that reaches them
    EXPECT_FALSE(tl.engine.stayAwakeUntil());
    EXPECT_EQ(tl.engine.holds().size(), 1u);
    EXPECT_EQ(d.plan, holding({"a"}));
    EXPECT_EQ(d.effects, std::vector<Effect>{});  // the idle hold stays, nothing lost
    EXPECT_EQ(tl.command(60, UserCommand::hold("a", std::nullopt)).effects,
              (std::vector<Effect>{releaseEntry(60, "agents finished")}));
    EXPECT_TRUE(tl.command(61, UserCommand::hold("zzz", std::nullopt)).effects.empty());
}

TEST(EnginePlan, HelperFlagsFollowHelperPowerAndSettings) {
    // Power source, helper, lid closed on battery and defer settings; lid and defer flags expected.
    const std::tuple<PowerSource, bool, bool, bool, bool, bool> cases[] = {
        {PowerSource::ac, true, false, true, true, true},
        {PowerSource::battery, true, false, true, false, true},
        {PowerSource::battery, true, true, true, true, true},
        {PowerSource::unknown, true, true, true, false, true},
        {PowerSource::ac, false, true, true, false, false},
        {PowerSource::ac, true, false, false, true, false},
    };
    for (const auto& [source, helper, lidOnBattery, defer, expectLid, expectDefer] : cases) {
        PolicySettings settings = PolicySettings::defaults;
        settings.lidClosedOnBattery = lidOnBattery, settings.deferOSUpdates = defer;
        Timeline tl(machine(source, helper), settings);
        EXPECT_EQ(tl.agent(0, event(kClaude, K::promptSubmitted)).plan,
                  holding({"Claude working"}, expectLid, expectDefer))
            << toString(source);
    }
}

TEST(EnginePlan, PausedRunsHoldOnlyForSelfClearingCauses) {
    PolicySettings settings = PolicySettings::defaults;
    settings.networkPauseAfter = 0;
    SystemSnapshot sys = machine();
    Timeline tl(sys, settings);
    const RunKey b{AgentKind::claude, "b"}, a{AgentKind::claude, "a"};
    tl.agent(0, event(b, K::promptSubmitted, std::nullopt, 1));
    tl.agent(0, event(a, K::promptSubmitted, std::nullopt, 2));  // same start: key order decides
    EXPECT_EQ(tl.engine.plan(), holding({"Claude working", "Claude working"}));
    EXPECT_EQ(tl.engine.sortedRuns().front().key, a);

    sys.networkReachable = false;
    auto d = tl.system(10, sys);
    EXPECT_EQ(d.plan, holding({"Claude paused (network), waiting to resume",
                               "Claude paused (network), waiting to resume"}));
    EXPECT_EQ(tl.engine.computePlan(at(1809)).reasons.size(), 2u);
    EXPECT_EQ(tl.engine.computePlan(at(1810)), PowerPlan::released);  // exactly networkWaitMax
}

TEST(EngineStatusMoves, EveryKindFromEveryStatus) {
    using S = RunStatus;
    auto prepare = [](Timeline& tl, S status) {
        tl.agent(0, event(kClaude, K::activity, "/w/p", 5));
        if (status == S::working || status == S::paused) tl.agent(1, event(kClaude, K::promptSubmitted));
        if (status == S::waiting) tl.agent(1, event(kClaude, K::needsAttention));
        if (status == S::paused) tl.command(2, UserCommand::pause());
        ASSERT_EQ(tl.run(kClaude).status, status);
    };
    const std::string finished = "journal:turnFinished alert:finished";
    // Event kind, status before, status after (absent: the run is gone), shape of the effects.
    const std::tuple<K, S, std::optional<S>, std::string> cases[] = {
        {K::activity, S::working, S::working, ""},
        {K::sessionStarted, S::paused, S::paused, ""},
        {K::toolStarted, S::idle, S::working, ""},
        {K::toolFailed, S::waiting, S::working, ""},
        {K::toolFinished, S::paused, S::working, ""},
        {K::needsAttention, S::idle, S::waiting, "alert:permission"},
        {K::needsAttention, S::paused, S::paused, ""},
        {K::turnStopped, S::idle, S::idle, ""},
        {K::turnStopped, S::paused, S::idle, finished},
        {K::sessionEnded, S::working, std::nullopt, "journal:runEnded alert:system journal:power"},
        {K::sessionEnded, S::waiting, std::nullopt, "journal:runEnded journal:power"},
        {K::sessionEnded, S::paused, std::nullopt, "thaw journal:runEnded alert:system"},
    };
    for (const auto& [kind, from, to, effects] : cases) {
        SCOPED_TRACE(std::string(toString(kind)) + " from " + std::string(toString(from)));
        Timeline tl;
        prepare(tl, from);
        EXPECT_EQ(shapeOf(tl.agent(10, event(kClaude, kind)).effects), effects);
        auto it = tl.engine.runs().find(kClaude);
        if (!to) {
            EXPECT_EQ(it, tl.engine.runs().end());
            continue;
        }
        ASSERT_NE(it, tl.engine.runs().end());
        EXPECT_EQ(it->second.status, *to);
        EXPECT_EQ(it->second.lastEventAt, at(10));
        if (from == S::paused && to == S::working) {
            EXPECT_EQ(it->second.pauses.back().resumedAt, at(10));  // closed without a thaw
        }
        if (from == S::paused && to == S::idle) {
            EXPECT_FALSE(it->second.pauses.back().resumedAt);  // left open on purpose
            EXPECT_FALSE(it->second.pauseReason);
        }
    }
}

TEST(EngineEvents, FirstEventsAndRefreshRules) {
    Timeline tl;
    EXPECT_TRUE(tl.agent(0, event(kClaude, K::sessionEnded)).effects.empty());
    EXPECT_TRUE(tl.engine.runs().empty());

    // The first alert of a run does not yet know the folder its event brings.
    auto d = tl.agent(1, event(kClaude, K::permissionRequested, "/w/p", std::nullopt));
    EXPECT_EQ(d.alerts().at(0).title, "Claude needs you");
    EXPECT_EQ(d.alerts().at(0).body, "Waiting for permission.");

    AgentEvent e = event(kClaude, K::activity, std::nullopt, 77);
    for (const char* message : {"", "hello", ""}) {
        e.message = message;
        tl.agent(2, e);
    }
    EXPECT_EQ(tl.run(kClaude).lastMessage, "hello");
    EXPECT_EQ(tl.run(kClaude).pid, 77);
    EXPECT_EQ(tl.run(kClaude).cwd, "/w/p");

    // A stop after a tool without a prompt counts a turn with no work time.
    tl.agent(140, toolEvent(kClaude, K::toolStarted, "Bash", "ls"));
    d = tl.agent(150, event(kClaude, K::turnStopped));
    EXPECT_EQ(d.alerts().at(0).id, "finished-claude:s1-1");
    EXPECT_FALSE(d.alerts().at(0).workSeconds);
}

TEST(EngineFrame, SettingsInputsAreSanitisedAndReplaceTheSwitch) {
    Timeline tl;
    EXPECT_EQ(tl.tick(0), (Decision{PowerPlan::released, {}}));
    tl.agent(1, event(kClaude, K::promptSubmitted));
    tl.command(2, UserCommand::setEnabled(false));
    PolicySettings s = PolicySettings::defaults;
    s.maxThermal = ThermalLevel::nominal;
    EXPECT_EQ(tl.engine.handle(PolicyInput::settings(s), at(3)).plan, holding({"Claude working"}));
    EXPECT_EQ(tl.engine.settings().maxThermal, ThermalLevel::fair);
}

TEST(EngineFrame, ProgressAndProcessExitReachOnlyTheirOwnRun) {
    PolicySettings settings = PolicySettings::defaults;
    settings.stuckAfter = 0, settings.stuckRepeatThreshold = 2;
    Timeline tl(machine(), settings);
    tl.agent(0, event(kClaude, K::promptSubmitted, "/w/p"));
    tl.agent(1, toolEvent(kClaude, K::toolStarted, "Bash", "ls"));
    // Without a pid the stuck run cannot be paused: it stays flagged and working.
    EXPECT_EQ(shapeOf(tl.agent(2, toolEvent(kClaude, K::toolStarted, "Bash", "ls")).effects), "alert:stuck");
    ASSERT_TRUE(tl.run(kClaude).stuckFlagged);

    const PolicyInput strangers[] = {PolicyInput::progress(kCodex), PolicyInput::processExited(kCodex)};
    for (const auto& input : strangers)
        EXPECT_EQ(tl.engine.handle(input, at(3)), (Decision{holding({"Claude (p) working"}), {}}));
    EXPECT_TRUE(tl.run(kClaude).stuckFlagged);

    EXPECT_TRUE(tl.engine.handle(PolicyInput::progress(kClaude), at(4)).effects.empty());
    EXPECT_FALSE(tl.run(kClaude).stuckFlagged);
    EXPECT_EQ(tl.run(kClaude).stuck, StuckDetector(at(4)));
}

}  // namespace
}  // namespace tavra
