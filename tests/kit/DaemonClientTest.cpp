#include "kit/DaemonClient.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "kit/UnixSocket.h"
#include "support/ErrorText.h"
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

TEST_F(DaemonClientTest, SendsTheRequestLineAndDecodesTheReply) {
    auto status = sampleStatus({sampleRun("claude", "s1", RunStatus::working)});
    auto request = DaemonRequest::remoteCommand("pause 2");
    // `error` included: it comes back as a value, not an exception.
    for (const auto& reply : {DaemonResponse::error("no such run"), DaemonResponse::status(status)}) {
        answer = TavraJSON::encodeValue(reply);
        EXPECT_EQ(client.send(request, 10), reply) << answer;
        EXPECT_EQ(TavraJSON::read<DaemonRequest>(lastLine()), request);
    }
    EXPECT_EQ(client.status(), status);
    EXPECT_EQ(lastLine(), TavraJSON::parse(R"({"status":{}})"));
    answer = TavraJSON::encodeValue(DaemonResponse::ok());
    EXPECT_EQ(errorText<ClientError>([&] { client.status(); }), "unexpected reply");
}

TEST_F(DaemonClientTest, IsRunningOnlyForAnOkToAPing) {
    EXPECT_TRUE(client.isRunning());
    EXPECT_EQ(lastLine(), TavraJSON::parse(R"({"ping":{}})"));
    answer = R"({"error":{"_0":"starting"}})";
    EXPECT_FALSE(client.isRunning());
    answer = "garbage";
    EXPECT_FALSE(client.isRunning());
    EXPECT_THROW(client.status(), DecodingError);
    silent = true;
    EXPECT_FALSE(client.isRunning());
    server.stop();  // no daemon at all
    EXPECT_FALSE(client.isRunning());
    EXPECT_THROW(client.status(), SocketError);
}

}  // namespace
}  // namespace tavra
