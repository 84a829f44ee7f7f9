#include <chrono>
#include <thread>

#include "HelperFixture.h"
#include "kit/Clients.h"

namespace tavra {
namespace {

using Strings = std::vector<std::string>;

TEST_F(HelperFixture, StartLogsRestoresThenListens) {
    helper = Helper::create(context, {501, 20}, environment());
    EXPECT_EQ(helper->allowedUIDs(), (std::set<std::uint32_t>{0, 20, 501}));
    EXPECT_TRUE(runner->commands().empty());  // creation touches nothing
    helper->start();
    EXPECT_EQ(logs.lines(),
              (Strings{"2025-03-01T09:30:00Z tavra-helper 0.5.0 starting; allowed uids [0, 20, 501]",
                       "2025-03-01T09:30:00Z restored defaults (launch)"}));
    EXPECT_EQ(runner->commands(), (Strings{kPmsetOff}));
    EXPECT_TRUE(std::filesystem::exists(dir / "helper.sock"));
    EXPECT_EQ(helper->plan(), HelperPlan::released);
}

TEST_F(HelperFixture, LaunchUndoesWhatACrashedPredecessorLeftBeforeABindCanFail) {
    writeState(R"({"originalAutoInstall":"1"})");
    auto env = environment();
    env.socketPath = (dir / "no/such/dir.sock").string();
    helper = Helper::create(context, {}, env);
    try {
        helper->start();
        FAIL() << "expected SocketError";
    } catch (const SocketError& e) {
        EXPECT_EQ(e.description(), "bind failed: No such file or directory");
    }
    EXPECT_EQ(runner->commands(), (Strings{kPmsetOff, kWriteTrue}));
    EXPECT_EQ(logs.messages(),
              (Strings{"tavra-helper 0.5.0 starting; allowed uids [0]",
                       "restored automatic macOS updates setting", "restored defaults (launch)"}));
    EXPECT_EQ(readState(), "{}");
}

TEST_F(HelperFixture, ForbiddenPeerChangesNothingAndIsNotLogged) {
    startHelper({501});
    auto reply = request(HelperRequest::apply({true, true}), 502);
    EXPECT_EQ(TavraJSON::parse(reply), TavraJSON::parse(R"({"error":{"_0":"forbidden"}})"));
    EXPECT_EQ(request("total rubbish", 502), R"({"error":{"_0":"forbidden"}})");
    EXPECT_TRUE(runner->commands().empty());
    EXPECT_TRUE(logs.lines().empty());
    EXPECT_EQ(helper->lastHeartbeat(), std::nullopt);
    EXPECT_EQ(helper->plan(), HelperPlan::released);
    EXPECT_EQ(okStatus(request(HelperRequest::heartbeat(), 0)).lastHeartbeat,
              clock.now());  // root always may
}

TEST_F(HelperFixture, UndecodableLineIsABadRequestAndNoHeartbeat) {
    startHelper();
    for (const char* line :
         {"{", "", R"({"heartbeat":null})", R"({"apply":{"_0":{"disableLidSleep":true}}})"}) {
        EXPECT_EQ(request(line), R"({"error":{"_0":"bad request"}})") << line;
    }
    EXPECT_EQ(helper->lastHeartbeat(), std::nullopt);
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(HelperFixture, EveryAcceptedRequestIsAHeartbeatAndReportsTheStatus) {
    startHelper();
    for (const auto& r : {HelperRequest::heartbeat(), HelperRequest::restoreDefaults(),
                          HelperRequest::sleepNow(), HelperRequest::apply({false, false})}) {
        clock.advance(7);
        auto status = okStatus(request(r));
        EXPECT_EQ(status.version, "0.5.0");
        EXPECT_EQ(status.watchdogSeconds, 30.0);
        EXPECT_EQ(status.lastHeartbeat, clock.now());
        EXPECT_EQ(helper->lastHeartbeat(), clock.now());
    }
    auto reply = request(HelperRequest::heartbeat());
    EXPECT_EQ(
        TavraJSON::parse(reply),
        TavraJSON::parse(
            R"({"ok":{"_0":{"lastHeartbeat":"2025-03-01T09:30:28Z","plan":{"deferOSUpdates":false,"disableLidSleep":false},"version":"0.5.0","watchdogSeconds":30}}})"));
}

TEST_F(HelperFixture, SleepNowReleasesEverythingThenSleeps) {
    startHelper();
    runner->answer(kRead, {0, "1\n", ""});
    request(HelperRequest::apply({true, true}));
    runner->clear();
    auto status = okStatus(request(HelperRequest::sleepNow()));
    EXPECT_EQ(status.plan, HelperPlan::released);
    EXPECT_EQ(runner->commands(), (Strings{kPmsetOff, kWriteTrue, kSleepNow}));
    // A restore with nothing held still runs and logs.
    forget();
    request(HelperRequest::restoreDefaults());
    EXPECT_EQ(runner->commands(), (Strings{kPmsetOff}));
    EXPECT_EQ(logs.messages(), (Strings{"restored defaults (requested)"}));
}

// The real loop: requests through the socket, ticks from the timer.
class HelperLoopTest : public HelperFixture {
protected:
    std::thread loop;
    void runLoop() {
        loop = std::thread([this] { context.run(); });
    }
    void TearDown() override {
        context.stop();
        if (loop.joinable()) loop.join();
        helper.reset();
    }
    template <class Predicate>
    bool eventually(Predicate predicate) {
        for (int i = 0; i < 3000; ++i) {
            if (predicate()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }
};

TEST_F(HelperLoopTest, ServesRequestsOverTheSocket) {
    startHelper({});
    runLoop();
    HelperClient client{(dir / "helper.sock").string()};
    auto status = client.send(HelperRequest::apply({true, false}), 30);
    EXPECT_EQ(status.plan, (HelperPlan{true, false}));
    EXPECT_EQ(status.lastHeartbeat, clock.now());
    EXPECT_EQ(runner->commands(), (Strings{kPmsetOn}));
}

TEST_F(HelperLoopTest, TimerDrivesTheWatchdog) {
    auto env = environment();
    env.tickInterval = std::chrono::milliseconds(20);
    helper = Helper::create(context, {}, env);
    helper->start();
    runLoop();
    HelperClient{(dir / "helper.sock").string()}.send(HelperRequest::apply({true, false}), 30);
    clock.advance(31);
    EXPECT_TRUE(eventually([&] {
        auto m = logs.messages();
        return std::find(m.begin(), m.end(), "restored defaults (watchdog)") != m.end();
    }));
    auto messages = logs.messages();
    EXPECT_NE(std::find(messages.begin(), messages.end(), "WATCHDOG: no heartbeat for 31s"), messages.end());
}

}  // namespace
}  // namespace tavra
