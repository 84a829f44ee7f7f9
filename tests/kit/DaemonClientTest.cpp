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

using namespace tavra::testing;

// A daemon stand-in on a real socket: records the last request line and
// answers with `answer`, or not at all while `silent` (the held replies are
// sent when the test ends, since every connection must get exactly one).
class DaemonClientTest : public ::testing::Test {
protected:
    TempDir dir;
    std::string path = (dir / "d.sock").string();
    std::mutex mutex;
    std::string last;
    std::vector<UnixSocketServer::Reply> held;
    std::string answer = R"({"ok":{}})";
    std::atomic<bool> silent{false};
    UnixSocketServer server{path, 0600,
                            [this](std::string line, std::uint32_t, UnixSocketServer::Reply reply) {
                                std::lock_guard lock(mutex);
                                last = std::move(line);
                                silent ? held.push_back(std::move(reply)) : reply(answer);
                            }};
    DaemonClient client{path};

    void SetUp() override { server.start(); }
    void TearDown() override {
        std::lock_guard lock(mutex);
        for (auto& reply : held) reply("");
    }
    Json lastLine() {
        std::lock_guard lock(mutex);
        return TavraJSON::parse(last);
    }
};

TEST_F(DaemonClientTest, SendsTheRequestLineAndDecodesEachReplyCase) {
    auto status = sampleStatus({sampleRun("claude", "s1", RunStatus::working)});
    // `error` included: it comes back as a value, not an exception.
    using R = DaemonResponse;
    auto request = DaemonRequest::remoteCommand("pause 2");
    for (const auto& reply :
         {R::ok(), R::approval(ApprovalDecision::deny), R::answers({{"Which?", "A"}}), R::status(status),
          R::config(TavraConfig{}), R::report(Report{}), R::text("hello"), R::error("no such run")}) {
        answer = TavraJSON::encodeValue(reply);
        EXPECT_EQ(client.send(request, 10), reply) << answer;
        EXPECT_EQ(TavraJSON::read<DaemonRequest>(lastLine()), request);
    }
}

TEST_F(DaemonClientTest, StatusReturnsTheRecordAndRefusesOtherCases) {
    auto status = sampleStatus({sampleRun("codex", "s1", RunStatus::paused)});
    answer = TavraJSON::encodeValue(DaemonResponse::status(status));
    EXPECT_EQ(client.status(), status);
    EXPECT_EQ(lastLine(), TavraJSON::parse(R"({"status":{}})"));
    for (const auto& other :
         {DaemonResponse::ok(), DaemonResponse::error("busy"), DaemonResponse::text("x")}) {
        answer = TavraJSON::encodeValue(other);
        EXPECT_THROW(client.status(), ClientError) << answer;
    }
}

TEST_F(DaemonClientTest, IsRunningOnlyForAnOkToAPing) {
    EXPECT_TRUE(client.isRunning());
    EXPECT_EQ(lastLine(), TavraJSON::parse(R"({"ping":{}})"));
    for (const char* reply :
         {R"({"error":{"_0":"starting"}})", R"({"text":{"_0":"ok"}})", "garbage", R"({"ok":{})", ""}) {
        answer = reply;
        EXPECT_FALSE(client.isRunning()) << reply;
    }
    EXPECT_THROW(client.send(DaemonRequest::ping(), 10), DecodingError);  // the empty reply
    EXPECT_THROW(client.status(), DecodingError);
    silent = true;
    EXPECT_FALSE(client.isRunning());
    EXPECT_THROW(client.send(DaemonRequest::ping(), 0.5), SocketError);
}

TEST(DaemonClientNoServerTest, NoDaemonIsASocketErrorAndNotRunning) {
    TempDir dir;
    DaemonClient client{(dir / "none.sock").string()};
    EXPECT_FALSE(client.isRunning());
    EXPECT_THROW(client.send(DaemonRequest::ping(), 5), SocketError);
    EXPECT_THROW(client.status(), SocketError);
}

}  // namespace
}  // namespace tavra
