#include "core/Run.h"

#include <cmath>

#include <gtest/gtest.h>

namespace tavra {
namespace {

Date at(double seconds) {
    return dateFromEpochSeconds(1740821400 + seconds);
}
ToolCall call(std::string signature, bool writes = false) {
    return ToolCall{"T", std::move(signature), writes, {}};
}

// A NaN limit once made every run look stuck.
TEST(StuckDetector, RepeatsCountInclusivelyAndANaNLimitNeverTrips) {
    StuckDetector d(at(0));
    for (const char* s : {"a", "b", "a", "b", "a"}) d.record(call(s), at(1));
    EXPECT_TRUE(d.isStuck(at(100), 100, 3));
    EXPECT_FALSE(d.isStuck(at(100), std::nan(""), 3));
}

}  // namespace
}  // namespace tavra
