#include <gtest/gtest.h>

#include <tuple>

#include "platform/FileActivityMonitor.h"

namespace tavra {
namespace {

TEST(FileActivityRulesTest, OnlyComponentsBelowTheRootAreTestedAndWhole) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"/r", "/r/src/main.c", true},
        {"/r", "/r/.git/index", false},
        {"/r", "/r", true},                          // the root itself
        {"/r", "/r/node_modules", false},            // the noise directory itself
        {"/r", "/r/notes/build/x", false},           // at any depth
        {"/r", "/r/rebuild/x", true},                // compared whole
        {"/w/build/app", "/w/build/app/a.c", true},  // a root inside a noise folder
        {"/w/build/app", "/w/build/app/dist/a.js", false},
    };
    for (const auto& [root, path, expected] : cases)
        EXPECT_EQ(FileActivityRules::counts(root, path), expected) << path;
}

TEST(FileActivityRulesTest, PacerCallsAtOnceAfterQuietThenAtMostOncePerInterval) {
    const auto start = ActivityPacer::Clock::time_point{} + std::chrono::hours(1);
    auto at = [&](int milliseconds) { return start + std::chrono::milliseconds(milliseconds); };
    ActivityPacer pacer;
    EXPECT_EQ(pacer.changed(at(0)), at(0));  // the first of a quiet spell: at once
    pacer.called(at(0));
    EXPECT_EQ(pacer.changed(at(500)), at(2000));       // within the interval: at its end
    EXPECT_EQ(pacer.changed(at(1900)), std::nullopt);  // folded into the scheduled call
    pacer.called(at(2000));
    EXPECT_EQ(pacer.changed(at(2500)), at(4000));  // the interval runs from the last call
    pacer.called(at(4000));
    EXPECT_EQ(pacer.changed(at(7000)), at(7000));
}

}  // namespace
}  // namespace tavra
