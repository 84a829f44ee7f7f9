#include "kit/HelperClient.h"

#include <gtest/gtest.h>

#include <fstream>

#include "kit/UnixSocket.h"
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

// The ok and error replies are read through the power controller's and the
// helper's own tests; here the two ways a reply can fail to arrive or to read.
TEST(HelperClientTest, ADownHelperAndABrokenReplyThrow) {
    testing::TempDir dir;
    const std::string path = (dir / "h.sock").string();
    HelperClient client{path};
    EXPECT_THROW(client.send(HelperRequest::heartbeat(), 3), SocketError);
    UnixSocketServer server{path, 0600, [](std::string, std::uint32_t, UnixSocketServer::Reply reply) {
                                reply(R"({"ok":{"_0":{"version":"0.5.0")");
                            }};
    server.start();
    EXPECT_THROW(client.send(HelperRequest::heartbeat(), 30), DecodingError);
}

}  // namespace
}  // namespace tavra
