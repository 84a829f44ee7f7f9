// The real tavra-hook: silent without a daemon; the exact decision document
// and a phone-sized ticket against a stand-in daemon socket; against the real
// tavrad, a session's hooks make a run and a permission request that nobody
// could answer from a phone (no chat channel) comes back at once, silently.

#include <gtest/gtest.h>

#include <fstream>

#include "kit/DaemonClient.h"
#include "kit/UnixSocket.h"
#include "support/Children.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

TEST(HookExecutable, SilentAloneDecidesWithADaemonAndFeedsTheRealOne) {
    const std::string build = testing::buildTree();
    const std::string tavrad = build + "/src/daemon/tavrad", hook = build + "/src/hook/tavra-hook";
    if (!std::filesystem::exists(tavrad) || !std::filesystem::exists(hook))
        GTEST_SKIP() << "no tavrad, tavra-hook";
    testing::TempDir home;
    const std::string data = (home / "data").string(), socket = data + "/tavra/tavrad.sock";
    auto run = [&](const std::string& event, const std::string& extra = "") {
        std::ofstream(home / "in") << R"({"session_id":"e2e","hook_event_name":")" << event << '"' << extra
                                   << "}";
        auto result =
            Shell::run("/bin/sh", {"-c", "exec \"$0\" claude < \"$1\"", hook, (home / "in").string()},
                       Shell::Environment{{"XDG_DATA_HOME", data}}, std::nullopt, 20.0);
        EXPECT_EQ(result.status, 0) << event;
        return result.stdout;
    };
    const std::string bash = R"(,"tool_name":"Bash","tool_input":{"command":"make\nls"})";
    EXPECT_EQ(run("PermissionRequest", bash), "");  // no daemon yet

    std::vector<DaemonRequest> sent;  // read after the hook, which waited for the reply
    auto standIn = std::make_unique<UnixSocketServer>(
        socket, 0600, [&](std::string line, std::uint32_t, UnixSocketServer::Reply reply) {
            sent.push_back(TavraJSON::decode<DaemonRequest>(line));
            reply(TavraJSON::encode(Json(DaemonResponse::approval(ApprovalDecision::allow))));
        });
    standIn->start();
    EXPECT_EQ(
        run("PermissionRequest", bash),
        R"({"hookSpecificOutput":{"hookEventName":"PermissionRequest","decision":{"behavior":"allow"}}})"
        "\n");
    standIn.reset();
    ASSERT_EQ(sent.size(), 1u);
    const auto& ticket = *std::get<DaemonRequest::Hook>(sent[0].value).approval;
    EXPECT_EQ(ticket.summary, "make");
    // Short enough for "approve {id}" on a phone's button; 128 random bits.
    EXPECT_EQ(ticket.id.size(), 22u);
    EXPECT_EQ(ticket.id.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"),
              std::string::npos);

    testing::Children children{home / "log",
                               {{"HOME", home.path()}, {"XDG_DATA_HOME", data}, {"TAVRA_NO_HELPER", "1"}}};
    const pid_t daemon = children.start({tavrad});
    DaemonClient client{socket};
    ASSERT_TRUE(testing::eventually([&] { return client.isRunning(); })) << children.output();
    EXPECT_EQ(run("SessionStart") + run("UserPromptSubmit", R"(,"prompt":"go")") + run("PreToolUse", bash),
              "");
    EXPECT_EQ(client.status().runs.at(0).run.status, RunStatus::working);
    EXPECT_EQ(run("PermissionRequest", bash), "");
    EXPECT_EQ(client.status().runs.at(0).run.status, RunStatus::waiting);
    ::kill(daemon, SIGTERM);
    EXPECT_EQ(children.exitCode(daemon), 0) << children.output();
}

}  // namespace
}  // namespace tavra
