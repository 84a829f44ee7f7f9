// A permission request held by the real tavrad because a chat channel is
// configured (its service unreachable: a closed loopback port), answered
// through the daemon's socket as the phone or `tavra approve` would, and
// withdrawn when the waiting hook goes away.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <future>
#include <thread>

#include "kit/Config.h"
#include "kit/DaemonClient.h"
#include "platform/Shell.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

TEST(ApprovalFlow, AHeldRequestIsAnsweredFromElsewhereOrWithdrawnWithItsHook) {
    const std::string build = std::getenv("TAVRA_BUILD_DIR") ? std::getenv("TAVRA_BUILD_DIR") : "";
    const std::string tavrad = build + "/src/daemon/tavrad", hook = build + "/src/hook/tavra-hook";
    if (!std::filesystem::exists(tavrad) || !std::filesystem::exists(hook))
        GTEST_SKIP() << "no tavrad, tavra-hook";
    testing::TempDir home;
    const std::string data = (home / "data").string(), socket = data + "/tavra/tavrad.sock";
    std::filesystem::create_directories(data + "/tavra");
    TavraConfig config;
    config.remote.notifyWhen = RemoteSettings::NotifyWhen::always;
    config.remote.telegram.enabled = true;
    config.remote.telegram.botToken = "1:token";
    config.remote.telegram.chatID = 1;
    config.remote.telegram.apiBase = "http://127.0.0.1:9";  // nothing listens: configured, unreachable
    ConfigStore::save(config, data + "/tavra/config.json");

    pid_t daemon = ::fork();
    if (daemon == 0) {
        ::setenv("HOME", home.path().c_str(), 1);
        ::setenv("XDG_DATA_HOME", data.c_str(), 1);
        ::setenv("TAVRA_NO_HELPER", "1", 1);
        ::execl(tavrad.c_str(), "tavrad", nullptr);
        ::_exit(127);
    }
    DaemonClient client{socket};
    for (int i = 0; i < 400 && !client.isRunning(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(25));

    // The hook waits for its answer on a thread of its own.
    auto ask = [&](const std::string& session, double timeout) {
        std::ofstream(home / session) << R"({"session_id":")" << session
                                      << R"(","hook_event_name":"PermissionRequest","tool_name":"Bash",)"
                                      << R"("tool_input":{"command":"rm -rf build"}})";
        return std::async(std::launch::async, [&, session, timeout] {
            return Shell::run("/bin/sh",
                              {"-c", "exec \"$0\" claude < \"$1\"", hook, (home / session).string()},
                              Shell::Environment{{"XDG_DATA_HOME", data}}, std::nullopt, timeout)
                .stdout;
        });
    };
    auto pendingTicket = [&]() -> std::optional<std::string> {
        for (int i = 0; i < 400; ++i) {
            auto pending = client.status().pendingApprovals;
            if (!pending.empty()) return pending.front().id;
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
        return std::nullopt;
    };
    auto answer = [&](const std::string& text) { client.send(DaemonRequest::remoteCommand(text), 5.0); };

    auto allowed = ask("s1", 30.0);
    auto id = pendingTicket();
    ASSERT_TRUE(id);
    answer("approve:" + *id);
    EXPECT_EQ(
        allowed.get(),
        R"({"hookSpecificOutput":{"hookEventName":"PermissionRequest","decision":{"behavior":"allow"}}})"
        "\n");

    auto denied = ask("s2", 30.0);
    id = pendingTicket();
    ASSERT_TRUE(id);
    answer("deny:" + *id);
    EXPECT_NE(denied.get().find(R"("behavior":"deny")"), std::string::npos);

    auto gone = ask("s3", 1.5);  // killed at its time-out, as an agent ends a hook
    ASSERT_TRUE(pendingTicket());
    EXPECT_EQ(gone.get(), "");
    bool withdrawn = false;
    for (int i = 0; i < 200 && !withdrawn; ++i) {
        withdrawn = client.status().pendingApprovals.empty();
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    EXPECT_TRUE(withdrawn);
    ::kill(daemon, SIGTERM);
    int status = 0;
    ::waitpid(daemon, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
}  // namespace tavra
