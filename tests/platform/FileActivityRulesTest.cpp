#include <gtest/gtest.h>

#include <tuple>

#include "platform/FileActivityMonitor.h"

namespace tavra {
namespace {

TEST(FileActivityRulesTest, OnlyComponentsBelowTheRootAreTestedAndWhole) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"/r", "/r/src/main.c", true},
        {"/r", "/r/.git/index", false},
        {"/r", "/r", true},  // the root itself
        {"/r/", "/r/", true},
        {"/r", "/r/node_modules", false},   // the noise directory itself
        {"/r", "/r/notes/build/x", false},  // at any depth
        {"/r", "/r/rebuild/x", true},       // compared whole
        {"/r", "/r/build.gradle", true},
        {"/r", "/r//src///x", true},                 // empty pieces are dropped
        {"/w/build/app", "/w/build/app/a.c", true},  // a root inside a noise folder
        {"/w/build/app", "/w/build/app/dist/a.js", false},
    };
    for (const auto& [root, path, expected] : cases)
        EXPECT_EQ(FileActivityRules::counts(root, path), expected) << path;
}

TEST(FileActivityRulesTest, ABatchCountsWhenAnyOfItsPathsCounts) {
    std::vector<std::string> gitOnly(10, "/r/.git/objects/ab");
    EXPECT_FALSE(FileActivityRules::batchCounts("/r", gitOnly));
    EXPECT_FALSE(FileActivityRules::batchCounts("/r", {}));
    gitOnly.push_back("/r/README");
    EXPECT_TRUE(FileActivityRules::batchCounts("/r", gitOnly));
}

TEST(FileActivityRulesTest, PacerCallsAtOnceAfterQuietThenAtMostOncePerInterval) {
    using namespace std::chrono_literals;
    const auto t0 = ActivityPacer::Clock::time_point{} + 1h;
    ActivityPacer pacer;
    // Each step: a change at `at`, the answer expected, and whether the caller
    // then calls (at the answered time).
    const std::tuple<std::chrono::milliseconds, std::optional<std::chrono::milliseconds>, bool> steps[] = {
        {0ms, 0ms, true},               // first of a quiet spell: at once
        {500ms, 2000ms, false},         // within the interval: one call at its end
        {1000ms, std::nullopt, false},  // already scheduled: folded in
        {1900ms, std::nullopt, true},   // the scheduled call is made at 2000
        {2500ms, 4000ms, true},         // the next one waits for 2000 + interval
        {7000ms, 7000ms, true},         // quiet for longer than the interval
    };
    std::optional<ActivityPacer::Clock::time_point> scheduled;
    for (const auto& [at, expected, callThen] : steps) {
        auto answer = pacer.changed(t0 + at);
        if (expected) {
            ASSERT_TRUE(answer) << at.count();
            EXPECT_EQ(*answer, t0 + *expected) << at.count();
            scheduled = answer;
        } else {
            EXPECT_FALSE(answer) << at.count();
        }
        if (callThen) pacer.called(*scheduled);
    }
}

}  // namespace
}  // namespace tavra
