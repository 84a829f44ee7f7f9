// The daemon exchange as the hook writes and reads it, and the exact bytes
// each agent gets back.

#include "hook/HookReply.h"

#include <gtest/gtest.h>

#include "kit/DaemonProtocol.h"

namespace tavra {
namespace {

const Date kNow = dateFromEpochSeconds(1'790'000'000);

HookTranslation translate(const AgentKind& agent, const std::string& payload) {
    return translatePayload(agent, payload, HookContext{kNow, 4242, [] { return std::string("TICKET"); }});
}

const std::string kClaudePermission =
    R"({"session_id":"s","cwd":"/p","hook_event_name":"PermissionRequest","tool_name":"Bash",
        "tool_input":{"command":"rm -rf build"}})";
const std::string kCodexPermission =
    R"({"session_id":"s","cwd":"/p","hook_event_name":"PermissionRequest","tool_name":"Bash",
        "tool_input":{"command":"touch x","description":"outside the sandbox?"}})";
const std::string kQuestion =
    R"({"session_id":"s","cwd":"/p","hook_event_name":"PreToolUse","tool_name":"AskUserQuestion",
        "tool_input":{"questions":[{"question":"Which framework?","header":"Framework","multiSelect":false,
          "options":[{"label":"React"},{"label":"Vue"}]},{"question":"Tests?","multiSelect":true,
          "options":[{"label":"Unit"},{"label":"E2E"}]}],"metadata":{"source":"x"}}})";

TEST(HookWire, TheRequestIsTheDaemonProtocolsHook) {
    for (const auto& payload :
         {kClaudePermission, kQuestion, std::string(R"({"session_id":"s","hook_event_name":"Stop"})")}) {
        auto t = translate(AgentKind::claude, payload);
        std::string line = HookReply::encodeRequest(t);
        EXPECT_EQ(line.find('\n'), std::string::npos);
        EXPECT_EQ(TavraJSON::decode<DaemonRequest>(line), DaemonRequest::hook(t.events, t.ticket)) << line;
        EXPECT_EQ(line.find("\"approval\"") != std::string::npos, t.ticket.has_value());
    }
}

TEST(HookWire, OnlyADecisionOrAnswersDecide) {
    using K = DaemonVerdict::Kind;
    auto wire = [](const DaemonResponse& r) { return TavraJSON::encode(Json(r)); };
    EXPECT_EQ(HookReply::readVerdict(wire(DaemonResponse::approval(ApprovalDecision::allow))).kind, K::allow);
    EXPECT_EQ(HookReply::readVerdict(wire(DaemonResponse::approval(ApprovalDecision::deny))).kind, K::deny);
    EXPECT_EQ(HookReply::readVerdict(wire(DaemonResponse::answers({{"Q?", "A"}}))),
              (DaemonVerdict{K::answers, {{"Q?", "A"}}}));
    for (const std::string& other :
         {wire(DaemonResponse::approval(ApprovalDecision::noDecision)), wire(DaemonResponse::ok()),
          wire(DaemonResponse::error("busy")), std::string(R"({"approval":{"_0":"maybe"}})"),
          std::string(R"({"answers":{"_0":{"Q?":1}}})"),
          std::string(R"({"approval":{"_0":"allow"},"ok":{}})"), std::string("{\"approval\":{\"_0\":\"al"),
          std::string("")}) {
        EXPECT_EQ(HookReply::readVerdict(other), DaemonVerdict{}) << other;
    }
}

TEST(HookOutputs, PermissionDecisionsInEachAgentsForm) {
    using K = DaemonVerdict::Kind;
    const std::string allow =
        R"({"hookSpecificOutput":{"hookEventName":"PermissionRequest","decision":{"behavior":"allow"}}})"
        "\n";
    const std::string deny =
        R"({"hookSpecificOutput":{"hookEventName":"PermissionRequest","decision":{"behavior":"deny","message":"The user denied this from their phone."}}})"
        "\n";
    struct Case {
        AgentKind agent;
        std::string payload;
        DaemonVerdict verdict;
        std::string output;
    };
    const std::vector<Case> cases{
        {AgentKind::claude, kClaudePermission, {K::allow, {}}, allow},
        {AgentKind::claude, kClaudePermission, {K::deny, {}}, deny},
        {AgentKind::claude, kClaudePermission, {K::none, {}}, ""},
        {AgentKind::claude, kClaudePermission, {K::answers, {{"x", "y"}}}, ""},
        // Codex fails closed on updatedInput or interrupt: the bare forms.
        {AgentKind::codex, kCodexPermission, {K::allow, {}}, allow},
        {AgentKind::codex, kCodexPermission, {K::deny, {}}, deny},
        {AgentKind::codex, kCodexPermission, {K::none, {}}, ""},
        // Nobody waits on these: whatever the daemon says, nothing is printed.
        {AgentKind::codex,
         R"({"session_id":"s","hook_event_name":"Stop","last_assistant_message":"x"})",
         {K::allow, {}},
         ""},
        {AgentKind::grok, kClaudePermission, {K::allow, {}}, ""},
        {AgentKind::claude,
         R"({"session_id":"s","hook_event_name":"PreToolUse","tool_name":"Bash"})",
         {K::deny, {}},
         ""},
    };
    for (const auto& c : cases) {
        auto out = HookReply::outputFor(translate(c.agent, c.payload), c.verdict);
        EXPECT_EQ(out.standardOutput, c.output) << c.agent.rawValue << " " << c.payload;
        EXPECT_EQ(out.exitStatus, 0);
    }
}

TEST(HookOutputs, AnswersGoBackAsTheWholeInputWithAnswersAndNeverAsABareAllow) {
    using K = DaemonVerdict::Kind;
    auto question = translate(AgentKind::claude, kQuestion);
    auto answered =
        HookReply::outputFor(question, {K::answers, {{"Which framework?", "Vue"}, {"Tests?", "Unit, E2E"}}});
    EXPECT_EQ(
        answered.standardOutput,
        R"({"hookSpecificOutput":{"hookEventName":"PreToolUse","permissionDecision":"allow","updatedInput":{)"
        R"("answers":{"Tests?":"Unit, E2E","Which framework?":"Vue"},"metadata":{"source":"x"},"questions":[)"
        R"({"header":"Framework","multiSelect":false,"options":[{"label":"React"},{"label":"Vue"}],"question":"Which framework?"},)"
        R"({"multiSelect":true,"options":[{"label":"Unit"},{"label":"E2E"}],"question":"Tests?"}]}}})"
        "\n");

    for (const DaemonVerdict& unanswered :
         {DaemonVerdict{K::allow, {}}, DaemonVerdict{K::answers, {}},
          DaemonVerdict{K::answers, {{"Which framework?", "Vue"}}}, DaemonVerdict{K::none, {}}}) {
        EXPECT_EQ(HookReply::outputFor(question, unanswered).standardOutput, "");
    }
    EXPECT_EQ(
        HookReply::outputFor(question, {K::deny, {}}).standardOutput,
        R"({"hookSpecificOutput":{"hookEventName":"PreToolUse","permissionDecision":"deny","permissionDecisionReason":"The user denied this from their phone."}})"
        "\n");
}

}  // namespace
}  // namespace tavra
