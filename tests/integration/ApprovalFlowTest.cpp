// A permission request held by the real tavrad because a chat channel is
// configured (its service unreachable: a closed loopback port), answered
// through the daemon's socket as the phone or `tavra approve` would, and
// withdrawn when the waiting hook goes away.

#include <gtest/gtest.h>

#include <fstream>
#include <future>

#include "kit/Config.h"
#include "kit/DaemonClient.h"
#include "support/Children.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

using testing::eventually;

TEST(ApprovalFlow, AHeldRequestIsAnsweredFromElsewhereOrWithdrawnWithItsHook) {
    const auto build = testing::buildTree();
    const std::string tavrad = build / "src/daemon/tavrad", hook = build / "src/hook/tavra-hook";
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

    testing::Children children{
        home / "log", {{"HOME", home.path().string()}, {"XDG_DATA_HOME", data}, {"TAVRA_NO_HELPER", "1"}}};
    const pid_t daemon = children.start({tavrad});
    DaemonClient client{socket};
    ASSERT_TRUE(eventually([&] { return client.isRunning(); })) << children.output();

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
        std::optional<std::string> id;
        eventually([&] {
            auto pending = client.status().pendingApprovals;
            if (!pending.empty()) id = pending.front().id;
            return id.has_value();
        });
        return id;
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
    EXPECT_TRUE(eventually([&] { return client.status().pendingApprovals.empty(); }));
    ::kill(daemon, SIGTERM);
    EXPECT_EQ(children.exitCode(daemon), 0) << children.output();
}

}  // namespace
}  // namespace tavra
