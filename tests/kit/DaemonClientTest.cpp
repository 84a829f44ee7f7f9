#include "kit/DaemonClient.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "kit/UnixSocket.h"
#include "support/SampleStatus.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

using testing::TempDir;

// A daemon stand-in on a real socket: records each request line and answers
// with `answer`, or not at all while `silent` (the held replies are sent when
// the test ends, since every connection must get exactly one).
class DaemonClientTest : public ::testing::Test {
protected:
    TempDir dir;
    std::string path = (dir / "d.sock").string();
    std::mutex mutex;
    std::vector<std::string> lines;
    std::vector<UnixSocketServer::Reply> held;
    std::string answer = R"({"ok":{}})";
    std::atomic<bool> silent{false};
    UnixSocketServer server{path, 0600,
                            [this](std::string line, std::uint32_t, UnixSocketServer::Reply reply) {
                                std::lock_guard lock(mutex);
                                lines.push_back(line);
                                if (silent)
                                    held.push_back(std::move(reply));
                                else
                                    reply(answer);
                            }};
    DaemonClient client{path};

    void SetUp() override { server.start(); }
    void TearDown() override {
        std::lock_guard lock(mutex);
        for (auto& reply : held) reply("");
    }
    std::string lastLine() {
        std::lock_guard lock(mutex);
        return lines.empty() ? std::string() : lines.back();
    }
};

TEST_F(DaemonClientTest, SendsTheRequestLineAndDecodesEachReplyCase) {
    auto status = testing::sampleStatus({testing::sampleRun("claude", "s1", RunStatus::working)});
    const DaemonResponse replies[] = {
        DaemonResponse::ok(),
        DaemonResponse::approval(ApprovalDecision::deny),
        DaemonResponse::answers({{"Which?", "A"}}),
        DaemonResponse::status(status),
        DaemonResponse::config(TavraConfig{}),
        DaemonResponse::report(Report{}),
        DaemonResponse::text("hello"),
        DaemonResponse::error("no such run"),  // a value, not an exception
    };
    auto request = DaemonRequest::remoteCommand("pause 2");
    for (const auto& reply : replies) {
        answer = TavraJSON::encodeValue(reply);
        EXPECT_EQ(client.send(request, 10), reply) << answer;
        EXPECT_EQ(TavraJSON::decode<DaemonRequest>(lastLine()), request);
    }
}

TEST_F(DaemonClientTest, StatusReturnsTheRecordAndRefusesOtherCases) {
    auto status = testing::sampleStatus({testing::sampleRun("codex", "s1", RunStatus::paused)});
    answer = TavraJSON::encodeValue(DaemonResponse::status(status));
    EXPECT_EQ(client.status(), status);
    EXPECT_EQ(TavraJSON::parse(lastLine()), TavraJSON::parse(R"({"status":{}})"));

    for (const auto& other :
         {DaemonResponse::ok(), DaemonResponse::error("busy"), DaemonResponse::text("x")}) {
        answer = TavraJSON::encodeValue(other);
        try {
            client.status();
            ADD_FAILURE() << "no error for " << answer;
        } catch (const ClientError& e) {
            EXPECT_EQ(e.description(), "unexpected reply");
            EXPECT_TRUE(std::holds_alternative<ClientError::UnexpectedReply>(e.value()));
        }
    }
}

TEST_F(DaemonClientTest, IsRunningOnlyForAnOkToAPing) {
    EXPECT_TRUE(client.isRunning());
    EXPECT_EQ(TavraJSON::parse(lastLine()), TavraJSON::parse(R"({"ping":{}})"));

    const std::string failures[] = {
        R"({"error":{"_0":"starting"}})",
        R"({"text":{"_0":"ok"}})",
        "garbage",
        R"({"ok":{})",  // cut off
        "",
    };
    for (const auto& reply : failures) {
        answer = reply;
        EXPECT_FALSE(client.isRunning()) << reply;
    }
}

TEST_F(DaemonClientTest, ASilentDaemonTimesOut) {
    silent = true;
    EXPECT_FALSE(client.isRunning());
    EXPECT_THROW(client.send(DaemonRequest::ping(), 0.5), SocketError);
}

TEST_F(DaemonClientTest, GarbageFailsToDecode) {
    answer = "not json";
    EXPECT_THROW(client.send(DaemonRequest::ping(), 10), DecodingError);
    EXPECT_THROW(client.status(), DecodingError);
}

TEST(DaemonClientNoServerTest, NoDaemonIsAConnectErrorAndNotRunning) {
    TempDir dir;
    DaemonClient client{(dir / "none.sock").string()};
    EXPECT_FALSE(client.isRunning());
    try {
        client.send(DaemonRequest::ping(), 5);
        ADD_FAILURE() << "connected to nothing";
    } catch (const SocketError& e) {
        EXPECT_EQ(e.description().rfind("connect failed: ", 0), 0u) << e.description();
    }
    EXPECT_THROW(client.status(), SocketError);
}

}  // namespace
}  // namespace tavra
