#include "HelperFixture.h"
#include "kit/HelperClient.h"
#include "support/ErrorText.h"

namespace tavra {
namespace {

using Strings = std::vector<std::string>;

TEST_F(HelperFixture, StartLogsAndUndoesWhatACrashedPredecessorLeftBeforeABindCanFail) {
    writeState(R"({"originalAutoInstall":"1"})");
    auto env = environment();
    env.socketPath = (dir / "no/such/dir.sock").string();
    helper = Helper::create(context, {501, 20}, env);
    EXPECT_EQ(testing::errorText<SocketError>([&] { helper->start(); }),
              "bind failed: No such file or directory");
    EXPECT_EQ(runner->commands(), (Strings{kPmsetOff, kWriteTrue}));
    EXPECT_EQ(logs.lines(),
              (Strings{"2025-03-01T09:30:00Z tavra-helper 0.5.0 starting; allowed uids [0, 20, 501]",
                       "2025-03-01T09:30:00Z restored automatic macOS updates setting",
                       "2025-03-01T09:30:00Z restored defaults (launch)"}));
    EXPECT_EQ(readState(), "{}");
}

TEST_F(HelperFixture, ForbiddenPeersAndBadRequestsChangeNothingAndAreNotLogged) {
    startHelper({501});
    auto reply = request(HelperRequest::apply({true, true}), 502);
    EXPECT_EQ(TavraJSON::parse(reply), TavraJSON::parse(R"({"error":{"_0":"forbidden"}})"));
    EXPECT_EQ(request("total rubbish", 502), R"({"error":{"_0":"forbidden"}})");
    for (const char* line :
         {"{", "", R"({"heartbeat":null})", R"({"apply":{"_0":{"disableLidSleep":true}}})"})
        EXPECT_EQ(request(line), R"({"error":{"_0":"bad request"}})") << line;  // no heartbeat either
    EXPECT_TRUE(runner->commands().empty());
    EXPECT_TRUE(logs.lines().empty());
    EXPECT_EQ(helper->lastHeartbeat(), std::nullopt);
    EXPECT_EQ(okStatus(request(HelperRequest::heartbeat(), 0)).lastHeartbeat,
              clock.now());  // root always may
}

TEST_F(HelperFixture, SleepNowReleasesEverythingThenSleeps) {
    startHelper();
    runner->answer(kRead, {0, "1\n", ""});
    request(HelperRequest::apply({true, true}));
    runner->clear();
    auto status = okStatus(request(HelperRequest::sleepNow()));
    EXPECT_EQ(status.plan, HelperPlan::released);
    EXPECT_EQ(runner->commands(), (Strings{kPmsetOff, kWriteTrue, kSleepNow}));
}

}  // namespace
}  // namespace tavra
