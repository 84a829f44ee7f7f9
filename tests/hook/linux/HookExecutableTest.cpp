// The built tavra-hook, without a daemon and against a stand-in daemon socket.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "kit/DaemonProtocol.h"
#include "kit/UnixSocket.h"
#include "platform/Shell.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

TEST(HookExecutable, SilentWithoutADaemonAndPrintsItsDecision) {
    const char* build = std::getenv("TAVRA_BUILD_DIR");
    const std::string hook = std::string(build ? build : "") + "/src/hook/tavra-hook";
    if (!build || !std::filesystem::exists(hook)) GTEST_SKIP() << "no built tavra-hook (TAVRA_BUILD_DIR)";
    testing::TempDir dir;
    auto run = [&](const std::string& agent, const std::string& payload) {
        std::ofstream(dir / "in") << payload;
        auto result = Shell::run(
            "/bin/sh", {"-c", "exec \"$0\" \"$1\" < \"$2\"", hook, agent, (dir / "in").string()},
            Shell::Environment{{"HOME", dir.path().string()}, {"XDG_DATA_HOME", dir.path().string()}});
        EXPECT_EQ(result.status, 0);
        return result.stdout;
    };
    const std::string permission = R"({"session_id":"s1","cwd":"/p","hook_event_name":"PermissionRequest",
        "tool_name":"Bash","tool_input":{"command":"rm -rf build\nls"}})";
    EXPECT_EQ(run("claude", permission), "");

    std::vector<DaemonRequest> sent;  // read after the hook, which waited for the reply
    UnixSocketServer daemon(
        (dir / "tavra/tavrad.sock").string(), 0600,
        [&](std::string line, std::uint32_t, UnixSocketServer::Reply reply) {
            sent.push_back(TavraJSON::decode<DaemonRequest>(line));
            reply(TavraJSON::encode(Json(DaemonResponse::approval(ApprovalDecision::allow))));
        });
    daemon.start();
    EXPECT_EQ(
        run("claude", permission),
        R"({"hookSpecificOutput":{"hookEventName":"PermissionRequest","decision":{"behavior":"allow"}}})"
        "\n");

    ASSERT_EQ(sent.size(), 1u);
    const auto& ticket = *std::get<DaemonRequest::Hook>(sent[0].value).approval;
    EXPECT_EQ(ticket.summary, "rm -rf build");
    // Short enough for "approve {id}" on a phone's button; 128 random bits.
    EXPECT_EQ(ticket.id.size(), 22u);
    EXPECT_EQ(ticket.id.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"),
              std::string::npos);
}

}  // namespace
}  // namespace tavra
