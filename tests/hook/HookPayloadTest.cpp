// The translation of real agents' payloads (recorded runs) and of the events
// those runs did not show.

#include <gtest/gtest.h>

#include <map>

#include "hook/AgentProcess.h"
#include "hook/HookPayload.h"
#include "hook/Recordings.h"
#include "support/ErrorText.h"

namespace tavra {
namespace {

using Kind = AgentEvent::Kind;
using testing::RecordedHook;

const Date kNow = dateFromEpochSeconds(1'790'000'000);

HookTranslation translate(const AgentKind& agent, const RecordedHook& hook) {
    auto table = hook.table();
    HookContext context{kNow, AgentProcess::findAgentPid(table, agent),
                        [] { return std::string("ticket-1"); }};
    return translatePayload(agent, hook.payload.dump(), context);
}

HookTranslation translate(const AgentKind& agent, const std::string& payload) {
    return translatePayload(agent, payload, HookContext{kNow, std::nullopt, [] { return std::string("t"); }});
}

std::vector<Kind> kinds(const HookTranslation& t) {
    std::vector<Kind> out;
    for (const auto& e : t.events) out.push_back(e.kind);
    return out;
}

// Every hook of a recorded session, in order: the kinds it becomes, whether
// the agent waits on it, and the fields each event carries.
void checkSession(const AgentKind& agent, const std::string& file, Pid agentPid,
                  const std::vector<std::pair<Kind, ReplyForm>>& expected) {
    auto hooks = testing::recording(file);
    ASSERT_EQ(hooks.size(), expected.size());
    for (std::size_t i = 0; i < hooks.size(); ++i) {
        SCOPED_TRACE(std::to_string(i) + " " + hooks[i].event());
        auto t = translate(agent, hooks[i]);
        EXPECT_EQ(kinds(t), std::vector<Kind>{expected[i].first});
        EXPECT_EQ(t.replyForm, expected[i].second);
        EXPECT_EQ(t.ticket.has_value(), expected[i].second != ReplyForm::none);
        const AgentEvent& e = t.events.at(0);
        EXPECT_EQ(e.agent, agent);
        EXPECT_EQ(e.sessionID, hooks[i].payload.at("session_id").get<std::string>());
        EXPECT_EQ(e.cwd, "/home/dev/rig/run/work");
        EXPECT_EQ(e.pid, agentPid);
        EXPECT_TRUE(e.transcriptPath.has_value());
        EXPECT_EQ(e.tool.has_value(), hooks[i].payload.contains("tool_name"));
    }
}

TEST(ClaudeRecording, EachHookBecomesItsEventAndPermissionsBecomeTickets) {
    checkSession(AgentKind::claude, "claude-2.1.330.jsonl", 17636,
                 {{Kind::sessionStarted, ReplyForm::none},
                  {Kind::promptSubmitted, ReplyForm::none},
                  {Kind::toolStarted, ReplyForm::none},
                  {Kind::permissionRequested, ReplyForm::claudePermission},
                  {Kind::toolFinished, ReplyForm::none},
                  {Kind::toolStarted, ReplyForm::none},
                  {Kind::toolFailed, ReplyForm::none},
                  {Kind::toolStarted, ReplyForm::none},
                  {Kind::permissionRequested, ReplyForm::claudePermission},
                  {Kind::toolFinished, ReplyForm::none},
                  {Kind::turnStopped, ReplyForm::none},
                  {Kind::sessionEnded, ReplyForm::none}});

    auto hooks = testing::recording("claude-2.1.330.jsonl");
    auto ticket = *translate(AgentKind::claude, hooks[3]).ticket;
    EXPECT_EQ(ticket, (ApprovalTicket{"ticket-1",
                                      {AgentKind::claude, "714f9ffc-f770-430a-ba37-d59d4a357586"},
                                      "Write",
                                      "/home/dev/rig/run/home/dev/src",
                                      "/home/dev/rig/run/work",
                                      std::nullopt}));
    // The write counts when it ends, and the same call is one signature
    // from start to end, so the stuck detector sees repeats.
    auto started = *translate(AgentKind::claude, hooks[2]).events[0].tool;
    auto finished = *translate(AgentKind::claude, hooks[4]).events[0].tool;
    EXPECT_EQ(started, finished);
    EXPECT_TRUE(finished.isFileWrite);
    EXPECT_FALSE(translate(AgentKind::claude, hooks[6]).events[0].tool->isFileWrite);
    EXPECT_EQ(translate(AgentKind::claude, hooks[10]).events[0].message, "All done.");
    // "other" says nothing; the engine's own "session ended" stands.
    EXPECT_EQ(translate(AgentKind::claude, hooks[11]).events[0].message, std::nullopt);
}

TEST(CodexRecording, FailuresArriveAsFinishedCallsAndModelRequestsAsActivity) {
    const auto none = ReplyForm::none;
    checkSession(AgentKind::codex, "codex-0.169.0.jsonl", 11689,
                 {{Kind::sessionStarted, none},
                  {Kind::promptSubmitted, none},
                  {Kind::activity, none},
                  {Kind::toolStarted, none},
                  {Kind::toolFinished, none},
                  {Kind::activity, none},
                  {Kind::toolStarted, none},
                  {Kind::toolFinished, none},
                  {Kind::activity, none},
                  {Kind::toolStarted, none},
                  {Kind::toolFinished, none},
                  {Kind::activity, none},
                  {Kind::toolStarted, none},
                  {Kind::permissionRequested, ReplyForm::codexPermission},
                  {Kind::toolFinished, none},
                  {Kind::activity, none},
                  {Kind::turnStopped, none},
                  {Kind::sessionEnded, none}});

    auto hooks = testing::recording("codex-0.169.0.jsonl");
    auto patch = *translate(AgentKind::codex, hooks[10]).events[0].tool;
    EXPECT_TRUE(patch.isFileWrite);
    EXPECT_EQ(patch.summary, "a.txt");
    auto ticket = *translate(AgentKind::codex, hooks[13]).ticket;
    EXPECT_EQ(ticket.toolName, "Bash");
    EXPECT_EQ(ticket.summary, "touch escalated.txt && echo escalated-ok");
}

TEST(GrokRecording, ClaudeFormatHooksReportAsGrokAndNeverHoldTheAgent) {
    // Grok runs the hooks in Claude's settings with Claude's payloads; the
    // command line, not the payload, says who is calling.
    for (const auto& hook : testing::recording("claude-2.1.330.jsonl")) {
        auto t = translate(AgentKind::grok, hook);
        EXPECT_EQ(t.events.at(0).agent, AgentKind::grok) << hook.event();
        EXPECT_EQ(t.events.at(0).pid, std::nullopt) << "a claude process is not the grok agent";
        EXPECT_FALSE(t.ticket.has_value()) << hook.event();
        EXPECT_EQ(t.replyForm, ReplyForm::none);
    }
    auto camel = translate(AgentKind::grok,
                           R"({"hookEventName":"PreToolUse","sessionId":"g1","cwd":"/p","workspaceRoot":"/p",
                               "toolName":"bash","toolInput":{"command":"rm -rf x"}})");
    EXPECT_EQ(camel.events.at(0).kind, Kind::toolStarted);
    EXPECT_EQ(camel.events.at(0).sessionID, "g1");
    EXPECT_EQ(camel.events.at(0).tool->summary, "rm -rf x");
}

TEST(HookPayload, EventsTheRecordingsDidNotShow) {
    struct Case {
        AgentKind agent;
        std::string payload;  // the fields behind the session
        Kind kind;
        std::optional<std::string> message;
    };
    const std::vector<Case> cases{
        // Fired on every turn; neither a tool's end nor a stop.
        {AgentKind::claude, R"("hook_event_name":"PostToolBatch","tool_calls":[])", Kind::activity, {}},
        {AgentKind::claude, R"("hook_event_name":"MessageDisplay","message":"Done")", Kind::activity, {}},
        {AgentKind::claude,
         R"("hook_event_name":"StopFailure","error":"rate_limit","error_details":"429 Too Many Requests")",
         Kind::turnStopped, "429 Too Many Requests"},
        {AgentKind::claude,
         R"("hook_event_name":"Notification","notification_type":"idle_prompt","message":"Claude is waiting")",
         Kind::needsAttention, "Claude is waiting"},
        {AgentKind::claude,
         R"("hook_event_name":"Notification","notification_type":"auth_success","message":"ok")",
         Kind::activity,
         {}},
        {AgentKind::claude,
         R"("hook_event_name":"SubagentStop","last_assistant_message":"sub")",
         Kind::activity,
         {}},
        {AgentKind::claude, R"("hook_event_name":"SessionEnd","reason":"prompt_input_exit")",
         Kind::sessionEnded, "user exited"},
        // A compaction's second SessionStart is a start like any other.
        {AgentKind::codex,
         R"("hook_event_name":"SessionStart","source":"compact")",
         Kind::sessionStarted,
         {}},
        {AgentKind::codex, R"("hook_event_name":"PostCompact","trigger":"auto")", Kind::activity, {}},
        {AgentKind::codex, R"("hook_event_name":"Interrupt")", Kind::turnStopped, "interrupted"},
        {AgentKind{"aider"}, R"("hook_event_name":"Stop")", Kind::turnStopped, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.payload);
        auto t = translate(c.agent, R"({"session_id":"s",)" + c.payload + "}");
        ASSERT_EQ(t.events.size(), 1u);
        EXPECT_EQ(t.events[0].kind, c.kind);
        EXPECT_EQ(t.events[0].message, c.message);
        EXPECT_FALSE(t.ticket.has_value());
    }
}

constexpr const char* kQuestionInput =
    R"({"questions":[{"question":"Which framework?","header":"Framework","multiSelect":false,
        "options":[{"label":"React","description":"UI"},{"label":"Vue"}]}]})";

std::string askPayload(const std::string& event) {
    return R"({"session_id":"s","cwd":"/p","hook_event_name":")" + event +
           R"(","tool_name":"AskUserQuestion","tool_input":)" + kQuestionInput + "}";
}

TEST(ClaudeQuestion, AskedAtPreToolUseAsATicketWithItsQuestions) {
    auto t = translate(AgentKind::claude, askPayload("PreToolUse"));
    EXPECT_EQ(kinds(t), (std::vector<Kind>{Kind::toolStarted, Kind::needsAttention}));
    EXPECT_EQ(t.events[1].message, "Which framework?");
    EXPECT_EQ(t.replyForm, ReplyForm::claudeQuestion);
    ASSERT_TRUE(t.ticket.has_value());
    EXPECT_TRUE(t.ticket->isQuestion());
    EXPECT_EQ(*t.ticket->questions,
              (std::vector<AgentQuestion>{
                  {"Which framework?", "Framework", {{"React", "UI"}, {"Vue", {}}}, false}}));
    EXPECT_EQ(t.toolInput, Json::parse(kQuestionInput));

    // The permission dialog that follows a silent PreToolUse only reports:
    // the user is asked once.
    auto permission = translate(AgentKind::claude, askPayload("PermissionRequest"));
    EXPECT_EQ(kinds(permission), std::vector<Kind>{Kind::permissionRequested});
    EXPECT_FALSE(permission.ticket.has_value());
    EXPECT_FALSE(translate(AgentKind::grok, askPayload("PreToolUse")).ticket.has_value());
}

TEST(HookPayload, UnreadablePayloadsAreRefused) {
    for (std::string bad : {"", "not json", "[]", R"({"session_id":"s"})", R"({"hook_event_name":"Stop"})",
                            R"({"hook_event_name":"Stop","session_id":""})", "{\"session_id\":\"\xff\"}"}) {
        EXPECT_NE(testing::errorText<PayloadError>([&] { translate(AgentKind::claude, bad); }), "no error")
            << bad;
    }
}

}  // namespace
}  // namespace tavra
