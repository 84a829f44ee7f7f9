#include "core/Run.h"

#include <gtest/gtest.h>

#include "core/Settings.h"
#include "core/StuckDetector.h"

namespace tavra {
namespace {

Date at(double seconds) {
    return dateFromEpochSeconds(1740821400 + seconds);
}

ToolCall call(std::string signature, bool writes = false) {
    return ToolCall{"Tool", std::move(signature), writes, {}};
}

TEST(RunAccounting, CountsOnlyWorkingIntervalsAndNeverGoesBack) {
    tavra::Run run({AgentKind::claude, "s"}, at(0));
    run.setStatus(RunStatus::working, at(0));
    run.accountWorkingTime(at(100));
    EXPECT_EQ(run.workingSeconds, 100);
    run.accountWorkingTime(at(100));
    EXPECT_EQ(run.workingSeconds, 100);

    run.accountWorkingTime(at(50));  // clock set back
    EXPECT_EQ(run.workingSeconds, 100);
    EXPECT_EQ(run.accountedUntil, at(100));
    run.accountWorkingTime(at(160));
    EXPECT_EQ(run.workingSeconds, 160);

    run.setStatus(RunStatus::paused, at(160));
    run.accountWorkingTime(at(400));
    EXPECT_EQ(run.workingSeconds, 160);
    EXPECT_EQ(run.accountedUntil, at(400));
}

TEST(RunSetStatus, SameStatusKeepsClocksAndLeavingWaitingEndsTheGrace) {
    tavra::Run run({AgentKind::claude, "s"}, at(0));
    run.setStatus(RunStatus::waiting, at(10));
    run.waitingSince = at(10);
    run.graceExpired = true;
    run.setStatus(RunStatus::waiting, at(20));
    EXPECT_EQ(run.statusSince, at(10));
    EXPECT_TRUE(run.graceExpired);

    run.setStatus(RunStatus::paused, at(30));
    EXPECT_EQ(run.statusSince, at(30));
    EXPECT_FALSE(run.waitingSince);
    EXPECT_FALSE(run.graceExpired);
    EXPECT_FALSE(run.pauseReason);  // the caller sets it
    EXPECT_FALSE(run.isFrozen());   // no pid
    run.pauseReason = PauseReason::thermal;
    run.pid = 7;
    EXPECT_TRUE(run.isFrozen());

    run.setStatus(RunStatus::working, at(40));
    EXPECT_FALSE(run.pauseReason);
}

TEST(RunJSON, RoundTripsAFullRecordAndRequiresItsFlags) {
    tavra::Run run({AgentKind{"aider"}, "s1"}, at(0));
    run.cwd = "/w";
    run.pid = 12;
    run.status = RunStatus::paused;
    run.pauseReason = PauseReason::network;
    run.pauses = {{PauseReason::thermal, at(5), at(9)}, {PauseReason::network, at(10), {}}};
    run.workingSeconds = 12.5;
    run.turnStartWorkingSeconds = 3;
    run.stuck.record(call("a"), at(1));
    run.lastMessage = "done";
    Json j = run;
    EXPECT_EQ(j["status"], "paused");
    EXPECT_EQ(j["pauses"][1].contains("resumedAt"), false);
    EXPECT_EQ(TavraJSON::decode<tavra::Run>(TavraJSON::encode(j)), run);

    j.erase("graceExpired");
    EXPECT_THROW(TavraJSON::read<tavra::Run>(j), DecodingError);
}

TEST(StuckDetectorWindow, KeepsTheLatestTwentyAndWritesEmptyIt) {
    StuckDetector d(at(0));
    for (int i = 0; i < 25; ++i) d.record(call(std::to_string(i)), at(i));
    ASSERT_EQ(d.recentSignatures.size(), 20u);
    EXPECT_EQ(d.recentSignatures.front(), "5");
    EXPECT_EQ(d.recentSignatures.back(), "24");
    EXPECT_EQ(d.lastProgressAt, at(0));

    d.record(call("w", true), at(30));
    EXPECT_EQ(d.recentSignatures, std::vector<std::string>{"w"});
    EXPECT_EQ(d.lastProgressAt, at(30));
}

TEST(StuckDetectorRepeats, CountsOverTheWholeWindowWithInclusiveLimits) {
    StuckDetector d(at(0));
    EXPECT_EQ(d.maxRepeatCount(), 0u);
    for (const char* s : {"a", "b", "a", "b", "a"}) d.record(call(s), at(1));
    EXPECT_EQ(d.maxRepeatCount(), 3u);
    EXPECT_TRUE(d.isStuck(at(100), 100, 3));
    EXPECT_FALSE(d.isStuck(at(99), 100, 3));
    EXPECT_FALSE(d.isStuck(at(100), 100, 4));
    EXPECT_EQ(TavraJSON::decode<StuckDetector>(TavraJSON::encode(Json(d))), d);
}

TEST(PolicySettingsSanitized, ClampsOnlyTheBoundedFields) {
    struct Case {
        const char* name;
        void (*change)(PolicySettings&);
        void (*expect)(PolicySettings&);
    };
    const Case cases[] = {
        {"nominal max with serious resume",
         [](PolicySettings& s) {
             s.maxThermal = ThermalLevel::nominal, s.thermalResumeAt = ThermalLevel::serious;
         },
         [](PolicySettings& s) {
             s.maxThermal = ThermalLevel::fair, s.thermalResumeAt = ThermalLevel::nominal;
         }},
        {"resume equal to max",
         [](PolicySettings& s) { s.maxThermal = ThermalLevel::fair, s.thermalResumeAt = ThermalLevel::fair; },
         [](PolicySettings& s) {
             s.maxThermal = ThermalLevel::fair, s.thermalResumeAt = ThermalLevel::nominal;
         }},
        {"critical both",
         [](PolicySettings& s) { s.maxThermal = s.thermalResumeAt = ThermalLevel::critical; },
         [](PolicySettings& s) {
             s.maxThermal = ThermalLevel::critical, s.thermalResumeAt = ThermalLevel::serious;
         }},
        {"floor 0", [](PolicySettings& s) { s.batteryFloorPercent = 0; },
         [](PolicySettings& s) { s.batteryFloorPercent = 5; }},
        {"floor 95", [](PolicySettings& s) { s.batteryFloorPercent = 95; },
         [](PolicySettings& s) { s.batteryFloorPercent = 90; }},
        {"floor 90", [](PolicySettings& s) { s.batteryFloorPercent = 90; },
         [](PolicySettings& s) { s.batteryFloorPercent = 90; }},
        {"sleep after 59", [](PolicySettings& s) { s.thermalSleepAfter = 59; },
         [](PolicySettings& s) { s.thermalSleepAfter = 60; }},
        {"sleep after 4000", [](PolicySettings& s) { s.thermalSleepAfter = 4000; },
         [](PolicySettings& s) { s.thermalSleepAfter = 3600; }},
        {"grace -1", [](PolicySettings& s) { s.permissionGrace = -1; },
         [](PolicySettings& s) { s.permissionGrace = 0; }},
        {"repeat 1", [](PolicySettings& s) { s.stuckRepeatThreshold = 1; },
         [](PolicySettings& s) { s.stuckRepeatThreshold = 2; }},
        {"unbounded fields stay",
         [](PolicySettings& s) {
             s.networkPauseAfter = -5, s.staleAfter = -1, s.awayAfterIdle = -3, s.enabled = false;
         },
         [](PolicySettings& s) {
             s.networkPauseAfter = -5, s.staleAfter = -1, s.awayAfterIdle = -3, s.enabled = false;
         }},
    };
    for (const auto& c : cases) {
        PolicySettings input = PolicySettings::defaults;
        c.change(input);
        PolicySettings expected = PolicySettings::defaults;
        c.expect(expected);
        PolicySettings before = input;
        EXPECT_EQ(input.sanitized(), expected) << c.name;
        EXPECT_EQ(input, before) << c.name;
    }
    EXPECT_EQ(PolicySettings::defaults.sanitized(), PolicySettings::defaults);
}

TEST(PolicySettingsJSON, AllFifteenKeysAreRequired) {
    Json j = PolicySettings::defaults;
    EXPECT_EQ(j.size(), 15u);
    EXPECT_EQ(j["maxThermal"], 2);
    EXPECT_EQ(TavraJSON::encode(j).find("600.0"), std::string::npos);
    EXPECT_EQ(TavraJSON::read<PolicySettings>(j), PolicySettings::defaults);
    for (auto it = j.begin(); it != j.end(); ++it) {
        Json partial = j;
        partial.erase(it.key());
        EXPECT_THROW(TavraJSON::read<PolicySettings>(partial), DecodingError) << it.key();
    }
}

}  // namespace
}  // namespace tavra
