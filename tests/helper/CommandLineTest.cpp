#include "helper/CommandLine.h"

#include <gtest/gtest.h>

namespace tavra {
namespace {

using HelperCommandLine::parseUID;

TEST(HelperCommandLineTest, ParsesUIDsByTheUsualNumberRules) {
    const std::pair<const char*, std::optional<std::uint32_t>> cases[] = {
        {"+501", 501u}, {"0501", 501u}, {"4294967295", 4294967295u}, {"4294967296", {}}, {"-1", {}}, {"", {}},
        {" 501", {}},   {"0x1F", {}},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(parseUID(text), expected) << '"' << text << '"';
}

}  // namespace
}  // namespace tavra
