// The real tavra-hook against the real tavrad: what a session's hooks say
// becomes a run, and a permission request that nobody could answer from a
// phone (no chat channel) comes back at once with nothing printed.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "kit/DaemonClient.h"
#include "platform/Shell.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;

TEST(HookDaemon, ASessionsHooksMakeARunAndAnUnanswerablePermissionReturnsAtOnce) {
    const char* given = std::getenv("TAVRA_BUILD_DIR");
    const fs::path build = given ? given : "";
    const std::string tavrad = (build / "src/daemon/tavrad").string(),
                      hook = (build / "src/hook/tavra-hook").string();
    if (!given || !fs::exists(tavrad) || !fs::exists(hook)) GTEST_SKIP() << "no built tavrad and tavra-hook";
    testing::TempDir home;
    const std::string log = (home / "tavrad.log").string();
    pid_t daemon = ::fork();
    if (daemon == 0) {
        std::freopen(log.c_str(), "w", stdout);
        ::setenv("HOME", home.path().c_str(), 1);
        ::setenv("TAVRA_NO_HELPER", "1", 1);
        for (const char* name : {"XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CONFIG_HOME"}) ::unsetenv(name);
        ::execl(tavrad.c_str(), "tavrad", nullptr);
        ::_exit(127);
    }
    const std::string socket = (home / ".local/share/tavra/tavrad.sock").string();
    DaemonClient client{socket};
    for (int i = 0; i < 400 && !client.isRunning(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    ASSERT_TRUE(client.isRunning()) << std::ifstream(log).rdbuf();

    auto run = [&](const std::string& event, const std::string& extra = "") {
        std::ofstream(home / "in") << R"({"session_id":"e2e","cwd":")" << home.path().string()
                                   << R"(","hook_event_name":")" << event << '"' << extra << "}";
        auto result =
            Shell::run("/bin/sh", {"-c", "exec \"$0\" claude < \"$1\"", hook, (home / "in").string()},
                       Shell::Environment{{"HOME", home.path().string()}}, std::nullopt, 20.0);
        EXPECT_EQ(result.status, 0) << event;
        return result.stdout;
    };
    const std::string bash = R"(,"tool_name":"Bash","tool_input":{"command":"make"})";
    EXPECT_EQ(run("SessionStart") + run("UserPromptSubmit", R"(,"prompt":"go")") + run("PreToolUse", bash),
              "");
    auto status = client.status();
    ASSERT_EQ(status.runs.size(), 1u);
    EXPECT_EQ(status.runs[0].run.key, (RunKey{AgentKind::claude, "e2e"}));
    EXPECT_EQ(status.runs[0].run.status, RunStatus::working);

    EXPECT_EQ(run("PermissionRequest", bash), "");
    EXPECT_TRUE(client.status().pendingApprovals.empty());
    EXPECT_EQ(run("Stop", R"(,"last_assistant_message":"Done.")"), "");
    EXPECT_EQ(client.status().runs.at(0).run.status, RunStatus::idle);

    ::kill(daemon, SIGTERM);
    int code = 0;
    ::waitpid(daemon, &code, 0);
}

}  // namespace
}  // namespace tavra
