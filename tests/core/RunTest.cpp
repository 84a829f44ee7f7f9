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
        {{.batteryFloorPercent = 0, .thermalSleepAfter = 59, .stuckRepeatThreshold = 1},
         {.batteryFloorPercent = 5, .thermalSleepAfter = 60, .stuckRepeatThreshold = 2}},
        {{.enabled = false, .networkPauseAfter = -5, .staleAfter = -1, .awayAfterIdle = -3},
         {.enabled = false, .networkPauseAfter = -5, .staleAfter = -1, .awayAfterIdle = -3}},
    };
    for (const auto& [input, expected] : cases) {
        PolicySettings copy = input;
        EXPECT_EQ(input.sanitized(), expected) << TavraJSON::encode(Json(input));
        EXPECT_EQ(input, copy);
    }
}

}  // namespace
}  // namespace tavra
