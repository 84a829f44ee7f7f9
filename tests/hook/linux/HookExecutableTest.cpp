// The real tavra-hook program, with no daemon and against a stand-in daemon
// socket run by the test.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <mutex>

#include "kit/DaemonProtocol.h"
#include "kit/UnixSocket.h"
#include "platform/Shell.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;

const std::string kPermission =
    R"({"session_id":"s1","cwd":"/work/p","hook_event_name":"PermissionRequest","tool_name":"Bash",
        "tool_input":{"command":"rm -rf build\nls"}})";

class HookExecutable : public ::testing::Test {
protected:
    void SetUp() override {
        const char* build = std::getenv("TAVRA_BUILD_DIR");
        hook_ = fs::path(build ? build : "") / "src/hook/tavra-hook";
        if (!build || !fs::exists(hook_)) GTEST_SKIP() << "no built tavra-hook found (TAVRA_BUILD_DIR)";
        fs::create_directories(dir_ / "data/tavra");
        socket_ = (dir_ / "data/tavra/tavrad.sock").string();
    }

    // Runs the hook with `payload` on standard input, its data under the
    // test's directory.
    ShellResult hook(const std::string& agent, const std::string& payload) {
        const fs::path input = dir_ / "payload.json";
        std::ofstream(input) << payload;
        return Shell::run(
            "/bin/sh", {"-c", "exec \"$0\" \"$1\" < \"$2\"", hook_.string(), agent, input.string()},
            Shell::Environment{{"HOME", dir_.path().string()}, {"XDG_DATA_HOME", (dir_ / "data").string()}},
            std::nullopt, 30.0);
    }

    // A stand-in daemon answering every request with `reply`.
    std::unique_ptr<UnixSocketServer> daemon(std::string reply) {
        auto server = std::make_unique<UnixSocketServer>(
            socket_, 0600, [this, reply](std::string line, std::uint32_t, UnixSocketServer::Reply answer) {
                {
                    std::lock_guard lock(mutex_);
                    requests_.push_back(TavraJSON::decode<DaemonRequest>(line));
                }
                answer(reply);
            });
        server->start();
        return server;
    }

    std::vector<DaemonRequest> requests() {
        std::lock_guard lock(mutex_);
        return requests_;
    }

    testing::TempDir dir_;
    fs::path hook_;
    std::string socket_;
    std::mutex mutex_;
    std::vector<DaemonRequest> requests_;
};

std::string wire(const DaemonResponse& response) {
    return TavraJSON::encode(Json(response));
}

TEST_F(HookExecutable, WithoutADaemonExitsZeroAndPrintsNothing) {
    for (const auto& payload : {kPermission, std::string("not json"), std::string()}) {
        auto result = hook("claude", payload);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.stdout, "");
    }
}

TEST_F(HookExecutable, PrintsTheDaemonsDecisionInTheAgentsForm) {
    const std::string allow =
        R"({"hookSpecificOutput":{"hookEventName":"PermissionRequest","decision":{"behavior":"allow"}}})"
        "\n";
    struct Case {
        std::string agent;
        std::string payload;
        DaemonResponse reply;
        std::string output;
    };
    const std::vector<Case> cases{
        {"claude", kPermission, DaemonResponse::approval(ApprovalDecision::allow), allow},
        {"codex", kPermission, DaemonResponse::approval(ApprovalDecision::allow), allow},
        {"claude", kPermission, DaemonResponse::approval(ApprovalDecision::noDecision), ""},
        {"claude", kPermission, DaemonResponse::error("no such run"), ""},
        {"codex", R"({"session_id":"s1","hook_event_name":"Stop","last_assistant_message":"Done."})",
         DaemonResponse::approval(ApprovalDecision::allow), ""},
        {"claude",
         R"({"session_id":"s1","hook_event_name":"PreToolUse","tool_name":"AskUserQuestion",
             "tool_input":{"questions":[{"question":"Go?","options":[{"label":"Yes"},{"label":"No"}]}]}})",
         DaemonResponse::answers({{"Go?", "Yes"}}),
         R"({"hookSpecificOutput":{"hookEventName":"PreToolUse","permissionDecision":"allow","updatedInput":{"answers":{"Go?":"Yes"},"questions":[{"options":[{"label":"Yes"},{"label":"No"}],"question":"Go?"}]}}})"
         "\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.agent + " " + c.payload);
        auto server = daemon(wire(c.reply));
        auto result = hook(c.agent, c.payload);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.stdout, c.output);
    }

    // What the daemon was told by the first of them: the permission's event
    // and a ticket the phone can answer with "approve {id}".
    const auto sent = requests();
    ASSERT_EQ(sent.size(), cases.size());
    const auto& first = std::get<DaemonRequest::Hook>(sent[0].value);
    ASSERT_EQ(first.events.size(), 1u);
    EXPECT_EQ(first.events[0].kind, AgentEvent::Kind::permissionRequested);
    ASSERT_TRUE(first.approval.has_value());
    const ApprovalTicket& ticket = *first.approval;
    EXPECT_EQ(ticket.id.size(), 22u);
    EXPECT_EQ(ticket.id.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"),
              std::string::npos);
    EXPECT_NE(ticket.id, std::get<DaemonRequest::Hook>(sent[1].value).approval->id);
    EXPECT_EQ(ticket.run, (RunKey{AgentKind::claude, "s1"}));
    EXPECT_EQ(ticket.summary, "rm -rf build");
    EXPECT_EQ(ticket.cwd, "/work/p");
    EXPECT_FALSE(std::get<DaemonRequest::Hook>(sent[4].value).approval.has_value());
}

}  // namespace
}  // namespace tavra
