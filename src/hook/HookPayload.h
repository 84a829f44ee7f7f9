#pragma once

// The translation of one hook call of an agent into what the daemon is told:
// AgentEvent records and, where the agent waits for the user, an
// ApprovalTicket. Pure: the time, the agent's pid and the ticket's id come in
// from the caller.
//
// Which agent sent the payload is the caller's word (the hook's command
// line), never guessed from the payload: Grok also runs the hooks written
// for Claude, in Claude's format.

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/ConfigCoding.h"
#include "core/Date.h"
#include "core/Error.h"
#include "core/Models.h"

namespace tavra {

// A payload that cannot be read: not JSON, not an object, or without the
// event's name or the session.
class PayloadError : public Error {
public:
    using Error::Error;
};

// How a decision goes back to an agent that waits on this hook.
enum class ReplyForm {
    none,              // nobody waits: print nothing
    claudePermission,  // Claude's PermissionRequest
    claudeQuestion,    // Claude's AskUserQuestion, answered from PreToolUse
    codexPermission,   // Codex's PermissionRequest
};

struct HookContext {
    Date now{};
    std::optional<std::int32_t> pid;  // the agent's process, when known
    // Called once when a ticket is made; returns a fresh unguessable id.
    std::function<std::string()> newTicketId;
};

struct HookTranslation {
    std::vector<AgentEvent> events;
    std::optional<ApprovalTicket> ticket;
    ReplyForm replyForm = ReplyForm::none;
    // The tool's input as the agent sent it: a question's answers go back
    // inside a copy of it, since the agent replaces the whole input.
    Json toolInput;
};

// Events per agent (Claude's names; Codex and Grok use the same):
//   SessionStart -> sessionStarted (also the one after a compaction)
//   UserPromptSubmit -> promptSubmitted
//   PreToolUse -> toolStarted; PostToolUse -> toolFinished;
//   PostToolUseFailure -> toolFailed (Codex has none: a failing command is
//     an ordinary PostToolUse)
//   PermissionRequest -> permissionRequested
//   Notification -> needsAttention for permission_prompt, idle_prompt,
//     elicitation_dialog (or no type); activity for the others
//   Stop, StopFailure, Interrupt -> turnStopped; SessionEnd -> sessionEnded
//   anything else (PreModelRequest, PostToolBatch, MessageDisplay,
//     compaction, subagents, ...) -> activity: a sign of life that is
//     neither a tool's end nor a stop.
// Tickets: a PermissionRequest of Claude or Codex, and Claude's
// AskUserQuestion at PreToolUse (then with toolStarted and needsAttention).
// Grok has no permission event; its hooks only ever report.
// Codex's older `notify` document ("type": "agent-turn-complete", keyed by
// "thread-id") is a turnStopped.
//
// Throws PayloadError.
HookTranslation translatePayload(const AgentKind& agent, std::string_view payload,
                                 const HookContext& context);

}  // namespace tavra
