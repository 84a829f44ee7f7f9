#include "helper/CommandLine.h"

#include <gtest/gtest.h>

namespace tavra {
namespace {

using HelperCommandLine::allowedUIDs;
using HelperCommandLine::parseUID;
using UIDs = std::set<std::uint32_t>;

TEST(HelperCommandLineTest, ParsesUIDsByTheUsualNumberRules) {
    const std::pair<const char*, std::optional<std::uint32_t>> cases[] = {
        {"+501", 501u}, {"0501", 501u}, {"4294967295", 4294967295u}, {"4294967296", {}}, {"-1", {}}, {"", {}},
        {" 501", {}},   {"0x1F", {}},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(parseUID(text), expected) << '"' << text << '"';
}

TEST(HelperCommandLineTest, CollectsEveryAllowUidAndNeverFails) {
    // The second option is consumed as the first one's value; "501" then stands alone.
    EXPECT_EQ(allowedUIDs({"--allow-uid", "--allow-uid", "501"}), UIDs{});
    EXPECT_EQ(allowedUIDs({"--allow-uid", "4294967296", "--allow-uid", "+501"}), UIDs{501});
    EXPECT_EQ(allowedUIDs({"--verbose", "501", "--allow-uid", "", "--allow-uid", "20", "--allow-uid"}),
              UIDs{20});
    EXPECT_EQ(allowedUIDs({"--allow-uid=501", "--allow-uid", "7", "--allow-uid", "7"}), UIDs{7});
}

}  // namespace
}  // namespace tavra
