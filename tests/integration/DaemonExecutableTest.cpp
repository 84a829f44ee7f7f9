// The real tavrad beside the real tavra-helper, end to end. Both live in one
// private mount namespace with fresh tmpfs on /run and /var/lib, so the
// helper's fixed socket and state never touch the machine's own and the
// system bus is out of reach; the daemon gets a private home. The test talks
// to the helper through /proc/{pid}/root and to the daemon through its socket.

#include <gtest/gtest.h>

#include "kit/DaemonClient.h"
#include "kit/HelperClient.h"
#include "support/Children.h"
#include "support/TempDir.h"
#include "support/linux/ProcessTree.h"

namespace tavra {
namespace {

using testing::eventually;

class DaemonExecutableTest : public ::testing::Test {
protected:
    testing::TempDir dir;
    const std::filesystem::path build = testing::buildTree();
    // What the children inherit: a private home, no system bus, a helper to talk to.
    testing::Children children{dir / "log",
                               {{"HOME", (dir / "home").string()},
                                {"XDG_DATA_HOME", ""},
                                {"XDG_STATE_HOME", ""},
                                {"DBUS_SYSTEM_BUS_ADDRESS", ""},
                                {"TAVRA_NO_HELPER", ""}}};
    pid_t helper = -1;

    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root for a private mount namespace";
        if (!std::filesystem::exists(build / "src/daemon/tavrad") ||
            !std::filesystem::exists(build / "src/helper/tavra-helper"))
            GTEST_SKIP() << "no built tavra-helper and tavrad found (TAVRA_BUILD_DIR)";
        if (std::system("unshare -m true >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "unshare -m is not available";
    }

    std::string log() const { return children.output(); }
    // The helper founds the namespace; every daemon joins it.
    pid_t daemon(std::vector<std::string> arguments = {}) {
        std::vector<std::string> argv{"/usr/bin/nsenter",
                                      "-t",
                                      std::to_string(helper),
                                      "-m",
                                      "--",
                                      (build / "src/daemon/tavrad").string()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return children.start(argv);
    }
    HelperPlan helperPlan() {
        auto socket = "/proc/" + std::to_string(helper) + "/root/run/com.tavra.helper.sock";
        return HelperClient{socket}.send(HelperRequest::heartbeat(), 5).plan;
    }
    DaemonClient client() { return {(dir / "home/.local/share/tavra/tavrad.sock").string()}; }
};

TEST_F(DaemonExecutableTest, HoldsFreezesAndLeavesNothingBehindAfterAKillAndARecover) {
    helper = children.start({"/usr/bin/unshare", "-m", "sh", "-c",
                             "mount -t tmpfs none /run && mount -t tmpfs none /var/lib && exec \"$0\"",
                             (build / "src/helper/tavra-helper").string()});
    ASSERT_TRUE(eventually([&] { return helperPlan() == HelperPlan::released; })) << log();
    auto first = daemon();
    ASSERT_TRUE(eventually([&] { return client().isRunning(); })) << log();

    testing::ProcessTree agent([](int fd) { testing::growTree(fd, 1, 2); });
    auto everyone = agent.reported(2);
    everyone.push_back(agent.root());
    AgentEvent event{AgentKind::claude,
                     "e2e",
                     AgentEvent::Kind::promptSubmitted,
                     {},
                     dir.path().string(),
                     agent.root(),
                     {},
                     {},
                     {}};
    AgentEvent other = event;  // no process: it cannot be paused, so it keeps the machine held
    other.sessionID = "keep";
    other.pid.reset();
    ASSERT_EQ(client().send(DaemonRequest::hook({event, other}), 5), DaemonResponse::ok()) << log();

    auto status = client().status();
    ASSERT_EQ(status.runs.size(), 2u);
    EXPECT_TRUE(status.plan.preventIdleSleep);
    EXPECT_EQ(helperPlan(), (HelperPlan{status.plan.disableLidSleep, status.plan.deferOSUpdates}));
    EXPECT_NE(helperPlan(), HelperPlan::released);

    ASSERT_EQ(client().send(DaemonRequest::command(UserCommand::pause()), 5), DaemonResponse::ok());
    for (Pid pid : everyone) EXPECT_TRUE(testing::waitForState(pid, testing::isStoppedState)) << pid;
    ::kill(first, SIGKILL);  // a crash: none of the daemon's own clean-up runs
    children.exitCode(first);
    EXPECT_TRUE(testing::waitForState(agent.root(), testing::isStoppedState));
    EXPECT_NE(helperPlan(), HelperPlan::released);

    EXPECT_EQ(children.exitCode(daemon({"--recover"})), 0) << log();
    for (Pid pid : everyone)
        EXPECT_TRUE(testing::waitForState(pid, [](char c) { return !testing::isStoppedState(c); })) << pid;
    EXPECT_EQ(helperPlan(), HelperPlan::released);

    // A new daemon: the journal and the runs survived, and no run is paused any more.
    auto second = daemon();
    ASSERT_TRUE(eventually([&] { return client().isRunning(); })) << log();
    auto response = client().send(DaemonRequest::report(dateFromEpochSeconds(0)), 5);
    ASSERT_TRUE(std::holds_alternative<DaemonResponse::ReportReply>(response.value)) << log();
    EXPECT_EQ(std::get<DaemonResponse::ReportReply>(response.value).report.runs.size(), 2u);
    for (const auto& view : client().status().runs) EXPECT_NE(view.run.status, RunStatus::paused);

    ::kill(second, SIGTERM);
    EXPECT_EQ(children.exitCode(second), 0) << log();
    EXPECT_NE(log().find("released all holds"), std::string::npos);
}

}  // namespace
}  // namespace tavra
