// The real tavra-hook against the real tavrad: silent without a daemon; a
// session's hooks make a run; a permission request that nobody could answer
// from a phone (no chat channel) comes back at once with nothing printed.

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

TEST(HookDaemon, ASessionsHooksMakeARunAndAnUnanswerablePermissionReturnsAtOnce) {
    const std::string build = std::getenv("TAVRA_BUILD_DIR") ? std::getenv("TAVRA_BUILD_DIR") : "";
    const std::string tavrad = build + "/src/daemon/tavrad", hook = build + "/src/hook/tavra-hook";
    if (!std::filesystem::exists(tavrad) || !std::filesystem::exists(hook))
        GTEST_SKIP() << "no tavrad, tavra-hook";
    testing::TempDir home;
    const std::string data = (home / "data").string();
    auto run = [&](const std::string& event, const std::string& extra = "") {
        std::ofstream(home / "in") << R"({"session_id":"e2e","hook_event_name":")" << event << '"' << extra
                                   << "}";
        auto result =
            Shell::run("/bin/sh", {"-c", "exec \"$0\" claude < \"$1\"", hook, (home / "in").string()},
                       Shell::Environment{{"XDG_DATA_HOME", data}}, std::nullopt, 20.0);
        EXPECT_EQ(result.status, 0) << event;
        return result.stdout;
    };
    const std::string bash = R"(,"tool_name":"Bash","tool_input":{"command":"make"})";
    EXPECT_EQ(run("PermissionRequest", bash), "");  // no daemon yet

    pid_t daemon = ::fork();
    if (daemon == 0) {
        ::setenv("HOME", home.path().c_str(), 1);
        ::setenv("XDG_DATA_HOME", data.c_str(), 1);
        ::setenv("TAVRA_NO_HELPER", "1", 1);
        ::execl(tavrad.c_str(), "tavrad", nullptr);
        ::_exit(127);
    }
    DaemonClient client{data + "/tavra/tavrad.sock"};
    for (int i = 0; i < 400 && !client.isRunning(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    EXPECT_EQ(run("SessionStart") + run("UserPromptSubmit", R"(,"prompt":"go")") + run("PreToolUse", bash),
              "");
    auto runs = client.status().runs;
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(std::make_pair(runs[0].run.key, runs[0].run.status),
              std::make_pair(RunKey{AgentKind::claude, "e2e"}, RunStatus::working));
    EXPECT_EQ(run("PermissionRequest", bash), "");
    EXPECT_EQ(client.status().runs.at(0).run.status, RunStatus::waiting);
    ::kill(daemon, SIGTERM);
    ::waitpid(daemon, nullptr, 0);
}

}  // namespace
}  // namespace tavra
