#include "kit/Clients.h"

#include <gtest/gtest.h>

#include <fstream>

#include "kit/UnixSocket.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

using testing::TempDir;

TEST(HelperClientTest, InstalledFollowsTheServiceFileUnlessDisabledExactly) {
    TempDir dir;
    auto file = dir / "com.tavra.helper.service";
    EXPECT_FALSE(HelperClient::isInstalled(std::nullopt, file));
    std::ofstream(file) << "[Unit]\n";
    EXPECT_TRUE(HelperClient::isInstalled(std::nullopt, file));
    EXPECT_FALSE(HelperClient::isInstalled("1", file));
    for (const char* other : {"", "0", "true", "yes", " 1", "1 "})
        EXPECT_TRUE(HelperClient::isInstalled(other, file));
    EXPECT_FALSE(HelperClient::isInstalled("0", dir / "absent"));
}

TEST(HelperClientTest, DefaultsToTheFixedSocket) {
    EXPECT_EQ(HelperClient{}.socketPath, TavraPaths::helperSocket());
}

class HelperClientExchange : public ::testing::Test {
protected:
    TempDir dir;
    std::string path = (dir / "h.sock").string();
    std::string lastLine;
    std::string answer;
    UnixSocketServer server{path, 0600,
                            [this](std::string line, std::uint32_t, UnixSocketServer::Reply reply) {
                                lastLine = line;
                                reply(answer);
                            }};
    void SetUp() override { server.start(); }
};

TEST_F(HelperClientExchange, OkReturnsTheStatus) {
    answer =
        R"({"ok":{"_0":{"lastHeartbeat":"2025-03-01T09:30:00Z","plan":{"deferOSUpdates":false,"disableLidSleep":true},"version":"0.5.0","watchdogSeconds":30}}})";
    auto status = HelperClient{path}.send(HelperRequest::apply({true, false}), 30);
    EXPECT_EQ(TavraJSON::parse(lastLine),
              TavraJSON::parse(R"({"apply":{"_0":{"disableLidSleep":true,"deferOSUpdates":false}}})"));
    EXPECT_EQ(status.plan, (HelperPlan{true, false}));
    EXPECT_EQ(status.watchdogSeconds, 30.0);
    EXPECT_EQ(status.version, "0.5.0");
    EXPECT_TRUE(status.lastHeartbeat.has_value());
}

TEST_F(HelperClientExchange, ErrorBecomesRemoteClientError) {
    answer = R"({"error":{"_0":"forbidden"}})";
    try {
        HelperClient{path}.send(HelperRequest::heartbeat(), 30);
        FAIL() << "expected ClientError";
    } catch (const ClientError& e) {
        EXPECT_EQ(e.description(), "forbidden");
        EXPECT_EQ(e.value(), ClientError::Case(ClientError::Remote{"forbidden"}));
    }
}

TEST_F(HelperClientExchange, EmptyOrCutOffReplyIsADecodingError) {
    for (const char* reply : {"", R"({"ok":{"_0":{"version":"0.5.0")", R"({"ok":{"_0":{}}})"}) {
        answer = reply;
        EXPECT_THROW(HelperClient{path}.send(HelperRequest::heartbeat(), 30), DecodingError) << reply;
    }
}

TEST(HelperClientTest, HelperDownIsAConnectError) {
    TempDir dir;
    try {
        HelperClient{(dir / "none.sock").string()}.send(HelperRequest::heartbeat(), 3);
        FAIL() << "expected SocketError";
    } catch (const SocketError& e) {
        EXPECT_EQ(e.value(), SocketError::Case(SocketError::System{"connect", ENOENT}));
    }
}

}  // namespace
}  // namespace tavra
