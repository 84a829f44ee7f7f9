#include "hook/HookPayload.h"

#include <array>
#include <utility>

#include "hook/ToolCalls.h"

namespace tavra {

namespace {

using Kind = AgentEvent::Kind;

// The documented payloads are snake_case; Grok documents camelCase for its
// own hooks and has not said which it sends to Claude-format ones, so every
// field is looked up both ways.
const Json* field(const Json& payload, std::string_view snake, std::string_view camel) {
    auto it = payload.find(snake);
    if (it == payload.end() || it->is_null()) it = payload.find(camel);
    if (it == payload.end() || it->is_null()) return nullptr;
    return &*it;
}

std::optional<std::string> text(const Json& payload, std::string_view snake, std::string_view camel) {
    const Json* value = field(payload, snake, camel);
    if (value == nullptr || !value->is_string()) return std::nullopt;
    return value->get<std::string>();
}

std::optional<std::string> nonEmpty(std::optional<std::string> value) {
    if (value && value->empty()) return std::nullopt;
    return value;
}

bool needsUser(const std::optional<std::string>& notificationType) {
    // Older clients sent no type, and then only notified when they waited.
    if (!notificationType) return true;
    return *notificationType == "permission_prompt" || *notificationType == "idle_prompt" ||
           *notificationType == "elicitation_dialog";
}

Kind kindOf(std::string_view event, const Json& payload) {
    static constexpr std::array<std::pair<std::string_view, Kind>, 11> kKinds{{
        {"SessionStart", Kind::sessionStarted},
        {"UserPromptSubmit", Kind::promptSubmitted},
        {"PreToolUse", Kind::toolStarted},
        {"PostToolUse", Kind::toolFinished},
        {"PostToolUseFailure", Kind::toolFailed},
        {"PermissionRequest", Kind::permissionRequested},
        {"Stop", Kind::turnStopped},
        {"StopFailure", Kind::turnStopped},
        {"Interrupt", Kind::turnStopped},
        {"SessionEnd", Kind::sessionEnded},
        {"Notification", Kind::needsAttention},
    }};
    for (const auto& [name, kind] : kKinds) {
        if (name != event) continue;
        if (kind == Kind::needsAttention &&
            !needsUser(text(payload, "notification_type", "notificationType"))) {
            return Kind::activity;
        }
        return kind;
    }
    return Kind::activity;
}

// Why a session ended, in words for the alert "Reason: {reason}.". "other"
// says nothing, so the engine's own "session ended" stands instead.
std::optional<std::string> endReason(const std::optional<std::string>& reason) {
    if (!reason || reason->empty() || *reason == "other") return std::nullopt;
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 5> kWords{{
        {"clear", "session cleared"},
        {"resume", "session resumed elsewhere"},
        {"logout", "logged out"},
        {"prompt_input_exit", "user exited"},
        {"bypass_permissions_disabled", "bypass permissions disabled"},
    }};
    for (const auto& [raw, words] : kWords) {
        if (raw == *reason) return std::string(words);
    }
    return reason;
}

// Free text of the agent for the events that carry some: what it said last,
// what it wants, why it ended. Tool events carry none, so an error text never
// stands in for the agent's last words.
std::optional<std::string> messageOf(std::string_view event, Kind kind, const Json& payload) {
    if (event == "Stop") return nonEmpty(text(payload, "last_assistant_message", "lastAssistantMessage"));
    if (event == "StopFailure") {
        if (auto said = nonEmpty(text(payload, "last_assistant_message", "lastAssistantMessage")))
            return said;
        if (auto details = nonEmpty(text(payload, "error_details", "errorDetails"))) return details;
        return nonEmpty(text(payload, "error", "error"));
    }
    if (event == "Interrupt") return std::string("interrupted");
    if (kind == Kind::needsAttention) return nonEmpty(text(payload, "message", "message"));
    if (kind == Kind::sessionEnded) return endReason(text(payload, "reason", "reason"));
    return std::nullopt;
}

std::vector<AgentQuestion> questionsOf(const Json& input) {
    std::vector<AgentQuestion> questions;
    auto list = input.find("questions");
    if (list == input.end() || !list->is_array()) return questions;
    for (const auto& item : *list) {
        if (!item.is_object()) continue;
        auto question = text(item, "question", "question");
        if (!question) continue;
        AgentQuestion q;
        q.question = *question;
        q.header = text(item, "header", "header");
        if (auto multi = item.find("multiSelect"); multi != item.end() && multi->is_boolean()) {
            q.multiSelect = multi->get<bool>();
        }
        if (auto options = item.find("options"); options != item.end() && options->is_array()) {
            for (const auto& option : *options) {
                if (!option.is_object()) continue;
                auto label = text(option, "label", "label");
                if (!label) continue;
                q.options.push_back({*label, text(option, "description", "description")});
            }
        }
        questions.push_back(std::move(q));
    }
    return questions;
}

ReplyForm permissionForm(const AgentKind& agent) {
    if (agent == AgentKind::claude) return ReplyForm::claudePermission;
    if (agent == AgentKind::codex) return ReplyForm::codexPermission;
    return ReplyForm::none;
}

// Codex's older `notify` program gets one kebab-case document as its last
// argument when a turn completes, and nothing else: it cannot answer.
HookTranslation translateTurnNotice(const AgentKind& agent, const Json& notice, const HookContext& context) {
    auto thread = text(notice, "thread-id", "thread-id");
    if (!thread || thread->empty()) throw PayloadError("the notice names no thread");
    AgentEvent event;
    event.agent = agent;
    event.sessionID = *thread;
    event.kind = Kind::turnStopped;
    event.timestamp = context.now;
    event.cwd = text(notice, "cwd", "cwd");
    event.pid = context.pid;
    event.message = nonEmpty(text(notice, "last-assistant-message", "last-assistant-message"));
    HookTranslation out;
    out.events.push_back(std::move(event));
    return out;
}

}  // namespace

HookTranslation translatePayload(const AgentKind& agent, std::string_view payloadText,
                                 const HookContext& context) {
    Json payload = Json::parse(payloadText, nullptr, false);
    if (payload.is_discarded() || !payload.is_object())
        throw PayloadError("the payload is not a JSON object");
    if (text(payload, "type", "type") == "agent-turn-complete")
        return translateTurnNotice(agent, payload, context);
    auto event = text(payload, "hook_event_name", "hookEventName");
    if (!event || event->empty()) throw PayloadError("the payload names no event");
    auto session = text(payload, "session_id", "sessionId");
    if (!session || session->empty()) throw PayloadError("the payload names no session");

    HookTranslation out;
    AgentEvent base;
    base.agent = agent;
    base.sessionID = *session;
    base.timestamp = context.now;
    base.cwd = text(payload, "cwd", "cwd");
    if (!base.cwd) base.cwd = text(payload, "workspace_root", "workspaceRoot");
    base.pid = context.pid;
    base.transcriptPath = text(payload, "transcript_path", "transcriptPath");

    auto toolName = text(payload, "tool_name", "toolName");
    if (toolName) {
        const Json* input = field(payload, "tool_input", "toolInput");
        out.toolInput = input != nullptr ? *input : Json::object();
        base.tool = ToolCalls::describe(agent, *toolName, out.toolInput);
    }

    AgentEvent main = base;
    main.kind = kindOf(*event, payload);
    main.message = messageOf(*event, main.kind, payload);

    auto ticketFor = [&](std::optional<std::vector<AgentQuestion>> questions) {
        ApprovalTicket ticket;
        ticket.id = context.newTicketId ? context.newTicketId() : std::string();
        ticket.run = RunKey{agent, *session};
        ticket.toolName = *toolName;
        ticket.summary = base.tool->summary.value_or(*toolName);
        ticket.cwd = base.cwd;
        ticket.questions = std::move(questions);
        return ticket;
    };

    if (toolName && main.kind == Kind::permissionRequested && *toolName != "AskUserQuestion" &&
        permissionForm(agent) != ReplyForm::none) {
        out.ticket = ticketFor(std::nullopt);
        out.replyForm = permissionForm(agent);
    } else if (toolName && agent == AgentKind::claude && main.kind == Kind::toolStarted &&
               *toolName == "AskUserQuestion") {
        // Answered where the documentation says: at PreToolUse. In the
        // default mode a PermissionRequest for it follows a silent
        // PreToolUse; that one only reports, so the user is asked once.
        auto questions = questionsOf(out.toolInput);
        if (!questions.empty()) {
            AgentEvent asking = base;
            asking.kind = Kind::needsAttention;
            asking.message = questions.front().question;
            out.events.push_back(std::move(main));
            out.events.push_back(std::move(asking));
            out.ticket = ticketFor(std::move(questions));
            out.replyForm = ReplyForm::claudeQuestion;
            return out;
        }
    }
    out.events.push_back(std::move(main));
    return out;
}

}  // namespace tavra
