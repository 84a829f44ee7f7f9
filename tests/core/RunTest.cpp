#include "core/Run.h"

#include <cmath>

#include <gtest/gtest.h>

#include "core/Settings.h"
#include "support/CorePrinters.h"

namespace tavra {
namespace {

Date at(double seconds) {
    return dateFromEpochSeconds(1740821400 + seconds);
}
ToolCall call(std::string signature, bool writes = false) {
    return ToolCall{"T", std::move(signature), writes, {}};
}

TEST(RunJSON, RoundTripsAFullRecordAndRequiresItsFlags) {
    tavra::Run run({AgentKind{"aider"}, "s1"}, at(0));
    run.status = RunStatus::paused;
    run.pauseReason = PauseReason::network;
    run.pauses = {{PauseReason::thermal, at(5), at(9)}, {PauseReason::network, at(10), {}}};
    run.stuck.record(call("a"), at(1));
    Json j = run;
    EXPECT_FALSE(j["pauses"][1].contains("resumedAt"));
    EXPECT_EQ(TavraJSON::decode<tavra::Run>(TavraJSON::encode(j)), run);
    j.erase("graceExpired");
    EXPECT_THROW(TavraJSON::read<tavra::Run>(j), DecodingError);
}

TEST(Run, SetStatusTouchesTheWaitAndPauseFieldsOnlyOnARealChange) {
    using S = RunStatus;
    // From, to, and whether the wait fields and the pause reason survive.
    const std::tuple<S, S, bool, bool> cases[] = {
        {S::waiting, S::waiting, true, true},  // no change at all: statusSince stays too
        {S::waiting, S::paused, false, true},  // entering paused: the caller sets the reason
        {S::paused, S::working, false, false},
        {S::waiting, S::idle, false, false},
    };
    for (const auto& [from, to, waitKept, reasonKept] : cases) {
        tavra::Run run({AgentKind::claude, "s"}, at(0));
        run.status = from;
        run.waitingSince = at(0);
        run.graceExpired = true;
        run.pauseReason = PauseReason::stuck;
        run.setStatus(to, at(10));
        SCOPED_TRACE(std::string(toString(from)) + " -> " + std::string(toString(to)));
        EXPECT_EQ(run.status, to);
        EXPECT_EQ(run.statusSince, from == to ? at(0) : at(10));
        EXPECT_EQ(run.waitingSince.has_value(), waitKept);
        EXPECT_EQ(run.graceExpired, waitKept);
        EXPECT_EQ(run.pauseReason.has_value(), reasonKept);
    }
}

TEST(Run, AccountingCountsOnlyWorkingTimeAndNeverRunsBackwards) {
    tavra::Run run({AgentKind::claude, "s"}, at(100));
    run.status = RunStatus::working;
    run.accountWorkingTime(at(100));
    EXPECT_EQ(run.workingSeconds, 0);
    run.accountWorkingTime(at(160));
    run.setStatus(RunStatus::paused, at(160));
    run.accountWorkingTime(at(400));  // paused time is stepped over
    EXPECT_EQ(run.workingSeconds, 60);
    EXPECT_EQ(run.accountedUntil, at(400));
    run.setStatus(RunStatus::working, at(400));
    run.accountWorkingTime(at(300));  // a clock set back accrues nothing and keeps the later mark
    EXPECT_EQ(run.accountedUntil, at(400));
    run.accountWorkingTime(at(430));
    EXPECT_EQ(run.workingSeconds, 90);
}

TEST(StuckDetector, KeepsTheLatestTwentyCountsRepeatsInclusivelyAndAWriteEmptiesTheWindow) {
    StuckDetector d(at(0));
    EXPECT_EQ(d.maxRepeatCount(), 0u);
    for (const char* s : {"a", "b", "a", "b", "a"}) d.record(call(s), at(1));
    EXPECT_EQ(d.maxRepeatCount(), 3u);
    EXPECT_TRUE(d.isStuck(at(100), 100, 3));
    EXPECT_FALSE(d.isStuck(at(99), 100, 3));
    EXPECT_FALSE(d.isStuck(at(100), 100, 4));
    EXPECT_FALSE(d.isStuck(at(100), std::nan(""), 3));
    for (int i = 0; i < 20; ++i) d.record(call(std::to_string(i)), at(i));
    EXPECT_EQ(d.recentSignatures.size(), 20u);
    EXPECT_EQ(d.recentSignatures.front(), "0");
    EXPECT_EQ(d.maxRepeatCount(), 1u);  // the old repeats left the window
    EXPECT_EQ(d.lastProgressAt, at(0));
    d.record(call("w", true), at(30));
    EXPECT_EQ(d.recentSignatures, std::vector<std::string>{"w"});
    EXPECT_EQ(d.lastProgressAt, at(30));
}

TEST(PolicySettings, SanitizedClampsOnlyTheBoundedFields) {
    using T = ThermalLevel;
    const auto thermal = [](T max, T resume) {
        return PolicySettings{.maxThermal = max, .thermalResumeAt = resume};
    };
    const std::pair<PolicySettings, PolicySettings> cases[] = {
        {PolicySettings::defaults, PolicySettings::defaults},
        {thermal(T::nominal, T::serious), thermal(T::fair, T::nominal)},
        {thermal(T::critical, T::critical), thermal(T::critical, T::serious)},
        {{.batteryFloorPercent = 0}, {.batteryFloorPercent = 5}},
        {{.batteryFloorPercent = 95}, {.batteryFloorPercent = 90}},
        {{.thermalSleepAfter = 59}, {.thermalSleepAfter = 60}},
        {{.thermalSleepAfter = 4000}, {.thermalSleepAfter = 3600}},
        {{.permissionGrace = -1}, {.permissionGrace = 0}},
        {{.stuckRepeatThreshold = 1}, {.stuckRepeatThreshold = 2}},
        {{.enabled = false, .networkPauseAfter = -5, .staleAfter = -1, .awayAfterIdle = -3},
         {.enabled = false, .networkPauseAfter = -5, .staleAfter = -1, .awayAfterIdle = -3}},
    };
    for (const auto& [input, expected] : cases) {
        PolicySettings copy = input;
        EXPECT_EQ(input.sanitized(), expected) << TavraJSON::encode(Json(input));
        EXPECT_EQ(input, copy);
    }
}

TEST(PolicySettings, JSONRequiresAllFifteenKeys) {
    Json j = PolicySettings::defaults;
    EXPECT_EQ(j.size(), 15u);
    EXPECT_EQ(j["maxThermal"], 2);
    EXPECT_EQ(TavraJSON::read<PolicySettings>(j), PolicySettings::defaults);
    for (auto it = j.begin(); it != j.end(); ++it) {
        Json partial = j;
        partial.erase(it.key());
        EXPECT_THROW(TavraJSON::read<PolicySettings>(partial), DecodingError) << it.key();
    }
}

}  // namespace
}  // namespace tavra
