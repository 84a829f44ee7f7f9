#include "kit/HelperClient.h"

#include <gtest/gtest.h>

#include <fstream>

#include "support/TempDir.h"

namespace tavra {
namespace {

TEST(HelperClientTest, InstalledFollowsTheServiceFileUnlessDisabledExactly) {
    testing::TempDir dir;
    auto file = dir / "com.tavra.helper.service";
    EXPECT_FALSE(HelperClient::isInstalled(std::nullopt, file));
    std::ofstream(file) << "[Unit]\n";
    EXPECT_TRUE(HelperClient::isInstalled(std::nullopt, file));
    EXPECT_FALSE(HelperClient::isInstalled("1", file));
    for (const char* other : {"", "0", "true", " 1", "1 "})
        EXPECT_TRUE(HelperClient::isInstalled(other, file));
}

}  // namespace
}  // namespace tavra
