#include "kit/Clients.h"

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

TEST(HelperClientTest, ExchangesOneRequestForAStatusOrAnError) {
    testing::TempDir dir;
    const std::string path = (dir / "h.sock").string();
    HelperClient client{path};
    EXPECT_THROW(client.send(HelperRequest::heartbeat(), 3), SocketError) << "helper down";

    std::string lastLine, answer;
    UnixSocketServer server{path, 0600, [&](std::string line, std::uint32_t, UnixSocketServer::Reply reply) {
                                lastLine = line;
                                reply(answer);
                            }};
    server.start();
    answer =
        R"({"ok":{"_0":{"lastHeartbeat":"2025-03-01T09:30:00Z","plan":{"deferOSUpdates":false,"disableLidSleep":true},"version":"0.5.0","watchdogSeconds":30}}})";
    const HelperStatus status = client.send(HelperRequest::apply({true, false}), 30);
    EXPECT_EQ(TavraJSON::parse(lastLine),
              TavraJSON::parse(R"({"apply":{"_0":{"disableLidSleep":true,"deferOSUpdates":false}}})"));
    EXPECT_EQ(status,
              (HelperStatus{"0.5.0", {true, false}, 30.0, TavraJSON::parseDate("2025-03-01T09:30:00Z")}));

    answer = R"({"error":{"_0":"forbidden"}})";
    try {
        client.send(HelperRequest::heartbeat(), 30);
        ADD_FAILURE() << "no ClientError";
    } catch (const ClientError& e) {
        EXPECT_EQ(e.description(), "forbidden");
    }
    answer = R"({"ok":{"_0":{"version":"0.5.0")";
    EXPECT_THROW(client.send(HelperRequest::heartbeat(), 30), DecodingError);
}

}  // namespace
}  // namespace tavra
