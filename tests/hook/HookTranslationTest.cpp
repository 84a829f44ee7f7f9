// Recorded runs in data/ hold each hook's payload and its parent chain, nearest first.

#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <tuple>

#include "hook/AgentProcess.h"
#include "hook/HookReply.h"
#include "hook/ToolCalls.h"
#include "kit/DaemonProtocol.h"
#include "support/ErrorText.h"
#include "support/FakeProcessTable.h"

namespace tavra {
namespace {

using K = DaemonVerdict::Kind;

HookTranslation translate(const AgentKind& agent, const std::string& payload, std::optional<Pid> pid = {}) {
    return translatePayload(agent, payload,
                            {dateFromEpochSeconds(1.79e9), pid, [] { return std::string("T"); }});
}

std::vector<Json> recording(const std::string& file) {
    std::ifstream in(std::string(TAVRA_TEST_DATA_DIR) + "/" + file);
    std::vector<Json> hooks;
    for (std::string line; std::getline(in, line);) hooks.push_back(Json::parse(line));
    return hooks;
}

// A recorded session as one line: each hook's kinds, "*" where the agent
// waits on a ticket. Every event carries the session's fields and the pid
// that the walk finds in the recorded chain.
std::string session(const AgentKind& agent, const std::string& file, std::optional<Pid> agentPid) {
    std::string out;
    for (const auto& hook : recording(file)) {
        testing::FakeProcessTable table;
        const Json& chain = hook["chain"];
        for (std::size_t i = 0; i < chain.size(); ++i) {
            auto& p = table.add(chain[i]["pid"], i + 1 < chain.size() ? chain[i + 1]["pid"].get<Pid>() : 1,
                                chain[i]["name"], chain[i]["exe"]);
            if (chain[i].contains("argv")) p.arguments = chain[i]["argv"];
        }
        const Json& payload = hook["payload"];
        auto t = translate(agent, payload.dump(), AgentProcess::findAgentPid(table, agent, chain[0]["pid"]));
        for (const auto& e : t.events) {
            out += std::string(toString(e.kind)) + (t.ticket ? "* " : " ");
            EXPECT_EQ(e.runKey(), (RunKey{agent, payload["session_id"]}));
            EXPECT_EQ(e.pid, agentPid);
        }
    }
    return out;
}

TEST(HookPayload, RecordedSessions) {
    EXPECT_EQ(
        session(AgentKind::claude, "claude-2.1.330.jsonl", 17636),
        "sessionStarted promptSubmitted toolStarted permissionRequested* toolFinished toolStarted toolFailed "
        "toolStarted permissionRequested* toolFinished turnStopped sessionEnded ");
    // A failing command is an ordinary PostToolUse; model requests are signs of life.
    EXPECT_EQ(
        session(AgentKind::codex, "codex-0.169.0.jsonl", 11689),
        "sessionStarted promptSubmitted activity toolStarted toolFinished activity toolStarted toolFinished "
        "activity toolStarted toolFinished activity toolStarted permissionRequested* toolFinished activity "
        "turnStopped sessionEnded ");
    // Grok runs Claude's hooks with Claude's payloads: the command line says
    // who calls, a claude process is not its agent, and it never waits.
    EXPECT_EQ(
        session(AgentKind::grok, "claude-2.1.330.jsonl", std::nullopt),
        "sessionStarted promptSubmitted toolStarted permissionRequested toolFinished toolStarted toolFailed "
        "toolStarted permissionRequested toolFinished turnStopped sessionEnded ");

    auto claude = recording("claude-2.1.330.jsonl");
    auto at = [&](std::size_t i) { return translate(AgentKind::claude, claude[i]["payload"].dump()); };
    EXPECT_EQ(at(3).ticket->summary, "/home/dev/rig/run/home/dev/src");
    EXPECT_EQ(at(2).events[0].tool, at(4).events[0].tool);  // one call, one signature
    EXPECT_TRUE(at(4).events[0].tool->isFileWrite);
    EXPECT_EQ(at(10).events[0].message, "All done.");
    auto patch = translate(AgentKind::codex, recording("codex-0.169.0.jsonl")[10]["payload"].dump());
    EXPECT_EQ(patch.events[0].tool->summary, "a.txt");
    EXPECT_TRUE(patch.events[0].tool->isFileWrite);
}

TEST(HookPayload, EventsTheRecordingsLacked) {
    const std::vector<std::array<std::string, 3>> cases{
        // Fired on every turn: neither a tool's end nor a stop.
        {"claude", R"("hook_event_name":"PostToolBatch","tool_calls":[])", "activity"},
        {"claude", R"("hook_event_name":"StopFailure","error_details":"429")", "turnStopped 429"},
        {"claude", R"("hook_event_name":"Notification","notification_type":"idle_prompt","message":"Hi")",
         "needsAttention Hi"},
        {"codex", R"("hook_event_name":"Interrupt")", "turnStopped interrupted"},
        {"codex", R"("type":"agent-turn-complete","thread-id":"t","last-assistant-message":"Done.")",
         "turnStopped Done."},
        {"grok", R"("hookEventName":"PreToolUse","toolName":"bash","toolInput":{})", "toolStarted"},
    };
    for (const auto& [agent, fields, expected] : cases) {
        auto t = translate(AgentKind{agent}, R"({"session_id":"s",)" + fields + "}");
        ASSERT_EQ(t.events.size(), 1u) << fields;
        EXPECT_EQ(
            std::string(toString(t.events[0].kind)) + (t.events[0].message ? " " + *t.events[0].message : ""),
            expected);
    }
    for (std::string bad :
         {"[]", R"({"session_id":"s"})", "{\"hook_event_name\":\"Stop\",\"session_id\":\"\xff\"}"}) {
        EXPECT_NE(testing::errorText<PayloadError>([&] { translate(AgentKind::claude, bad); }), "no error")
            << bad;
    }
}

const std::string kPermission =
    R"({"session_id":"s","cwd":"/p","hook_event_name":"PermissionRequest","tool_name":"Bash",
        "tool_input":{"command":"rm -rf build"}})";
const std::string kQuestion =
    R"({"session_id":"s","hook_event_name":"PreToolUse","tool_name":"AskUserQuestion","tool_input":{"questions":
        [{"question":"A?","header":"H","multiSelect":true,"options":[{"label":"x","description":"d"}]},
        {"question":"B?","options":[]}],"meta":1}})";

TEST(HookReply, ReadsAnswersWithTheirQuestions) {
    EXPECT_EQ(HookReply::readVerdict(TavraJSON::encode(Json(DaemonResponse::answers({{"Q?", "A"}})))),
              (DaemonVerdict{K::answers, {{"Q?", "A"}}}));
}

TEST(HookReply, PermissionDecisionsInEachAgentsFormAndNothingWhereNobodyWaits) {
    const std::string deny =
        R"({"hookSpecificOutput":{"hookEventName":"PermissionRequest","decision":{"behavior":"deny",)"
        R"("message":"The user denied this from their phone."}}})"
        "\n";
    std::string askAsPermission = kQuestion;
    askAsPermission.replace(askAsPermission.find("PreToolUse"), 10, "PermissionRequest");
    const std::string stop = R"({"session_id":"s","hook_event_name":"Stop","last_assistant_message":"x"})";
    const std::vector<std::tuple<std::string, std::string, K, std::string>> cases{
        {"codex", kPermission, K::deny, deny},
        {"codex", stop, K::allow, ""},
        // The dialog that follows a silent PreToolUse question only reports.
        {"claude", askAsPermission, K::allow, ""}};
    for (const auto& [agent, payload, verdict, output] : cases) {
        EXPECT_EQ(HookReply::outputFor(translate(AgentKind{agent}, payload), {verdict, {}}),
                  (HookOutput{output, 0}))
            << agent << " " << payload;
    }
}

TEST(HookReply, AnswersGoBackInTheWholeInputAndNeverAsABareAllow) {
    auto question = translate(AgentKind::claude, kQuestion);
    EXPECT_EQ(question.events.at(1).kind, AgentEvent::Kind::needsAttention);
    EXPECT_EQ(question.ticket->questions->at(0), (AgentQuestion{"A?", "H", {{"x", "d"}}, true}));
    EXPECT_EQ(
        HookReply::outputFor(question, {K::answers, {{"A?", "x"}, {"B?", "typed"}, {"C?", "-"}}})
            .standardOutput,
        R"({"hookSpecificOutput":{"hookEventName":"PreToolUse","permissionDecision":"allow","updatedInput":{)"
        R"("answers":{"A?":"x","B?":"typed"},"meta":1,"questions":[{"header":"H","multiSelect":true,"options":)"
        R"([{"description":"d","label":"x"}],"question":"A?"},)"
        R"({"options":[],"question":"B?"}]}}})"
        "\n");
    for (const DaemonVerdict& unanswered :
         {DaemonVerdict{K::allow, {}}, DaemonVerdict{K::answers, {{"A?", "x"}}}}) {
        EXPECT_EQ(HookReply::outputFor(question, unanswered).standardOutput, "");
    }
}

TEST(ToolCalls, SignatureIsStableAndBlindToKeyOrderAndSpacing) {
    auto a = Json::parse(R"({"command":"ls","opts":{"b":1,"a":[1,2]}})");
    EXPECT_EQ(ToolCalls::signature("Bash", a), ToolCalls::signature("Bash", Json::parse(R"({ "opts" : { "a" :
        [1, 2], "b" : 1 }, "command" : "ls" })")));
    EXPECT_NE(ToolCalls::signature("ab", "c"), ToolCalls::signature("a", "bc"));
    // Computed apart from this code: a change of hash or canonical form
    // shows here, not as loops the stuck detector silently stops seeing.
    EXPECT_EQ(ToolCalls::signature("Bash", Json::parse(R"({"command":"npm test"})")), "174c9fe86d36f737");
}

TEST(AgentProcess, TheFirstAncestorThatIsNoWrapperDecides) {
    for (const auto& [argv, isAgent] : std::vector<std::pair<std::vector<std::string>, bool>>{
             {{"node", "/usr/lib/node_modules/@anthropic-ai/claude-code/cli.js"}, true},
             {{"claude", "--resume"}, true},  // a process title
             // Someone else in between: guessing further up could freeze a
             // process that is not the agent.
             {{"node", "/srv/claude-notes/server.js"}, false}}) {
        // hook <- timeout <- bash <- candidate <- claude
        testing::FakeProcessTable table;
        table.add(100, 102, "timeout", "/usr/bin/timeout");
        table.add(102, 103, "bash", "/usr/bin/bash");
        table.add(103, 104, "node", "/usr/bin/node").arguments = argv;
        table.add(104, 1, "claude", "/opt/claude");
        EXPECT_EQ(AgentProcess::findAgentPid(table, AgentKind::claude, 100),
                  isAgent ? std::optional<Pid>(103) : std::nullopt)
            << argv[1];
    }
}

}  // namespace
}  // namespace tavra
