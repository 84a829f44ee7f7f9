// The real tavra against a real tavrad in a private home, without the root
// helper: what a user types, end to end over the daemon's socket.

#include <gtest/gtest.h>

#include "kit/DaemonClient.h"
#include "support/Children.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

TEST(CliExecutable, StatusPauseResumeAndRunAgainstTheRealDaemon) {
    const auto tavra = (testing::buildTree() / "src/cli/tavra").string();
    const auto tavrad = (testing::buildTree() / "src/daemon/tavrad").string();
    if (!std::filesystem::exists(tavra) || !std::filesystem::exists(tavrad))
        GTEST_SKIP() << "no built tavra and tavrad found (TAVRA_BUILD_DIR)";
    testing::TempDir dir;
    testing::Children children{dir / "log",
                               {{"HOME", (dir / "home").string()},
                                {"XDG_DATA_HOME", ""},
                                {"XDG_STATE_HOME", ""},
                                {"XDG_CONFIG_HOME", ""},
                                {"TAVRA_NO_HELPER", "1"}}};
    auto tavraSays = [&](std::vector<std::string> args) {
        return Shell::run(tavra, args, children.env, std::nullopt, 30.0);
    };
    DaemonClient client{(dir / "home/.local/share/tavra/tavrad.sock").string()};

    EXPECT_EQ(
        tavraSays({"status"}),
        (ShellResult{1, "",
                     "Tavra's daemon is not running. Start it with `systemctl --user start com.tavra.daemon` "
                     "or run `tavra setup`.\n"}));

    children.start({tavrad});
    ASSERT_TRUE(testing::eventually([&] { return client.isRunning(); })) << children.output();
    AgentEvent event;
    event.agent = AgentKind::claude;
    event.sessionID = "cli-e2e";
    event.kind = AgentEvent::Kind::promptSubmitted;
    event.cwd = (dir / "project").string();
    event.pid = children.start({"/bin/sleep", "60"});
    event.timestamp = std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now());
    ASSERT_EQ(client.send(DaemonRequest::hook({event}), 5), DaemonResponse::ok());

    ShellResult status = tavraSays({"status"});
    EXPECT_EQ(status.status, 0);
    EXPECT_NE(status.stdout.find("1. Claude · project · working"), std::string::npos) << status.stdout;

    EXPECT_EQ(tavraSays({"pause", "cli"}).stdout, "Paused claude:cli-e2e.\n");
    EXPECT_EQ(client.status().runs.at(0).run.status, RunStatus::paused);
    EXPECT_EQ(tavraSays({"resume", "1"}).status, 0);
    EXPECT_EQ(client.status().runs.at(0).run.status, RunStatus::working);
    EXPECT_EQ(tavraSays({"pause", "nothing-like-it"}).status, 1);

    // A command run through tavra holds the machine for exactly its lifetime.
    const pid_t runner = children.start({tavra, "run", "--reason", "e2e", "--", "/bin/sleep", "1"});
    EXPECT_TRUE(testing::eventually([&] {
        for (const auto& reason : client.status().plan.reasons)
            if (reason.rfind("e2e (pid ", 0) == 0) return true;
        return false;
    }));
    EXPECT_EQ(children.exitCode(runner), 0);
    for (const auto& reason : client.status().plan.reasons) EXPECT_EQ(reason.find("e2e"), std::string::npos);
}

}  // namespace
}  // namespace tavra
