#include <gtest/gtest.h>

#include <tuple>

#include "platform/FileActivityMonitor.h"

namespace tavra {
namespace {

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
