#pragma once

// The hook's side of the daemon exchange and what it prints for the agent.
//
// The hook writes DaemonRequest.hook and reads the few replies it cares about
// by itself instead of through DaemonProtocol: that unit brings the daemon's
// status, reports and their time formatting (ICU) into a program that starts
// twice for every tool call. The wire form is the same; tests hold the two
// against each other.

#include <map>
#include <string>
#include <string_view>

#include "hook/HookPayload.h"

namespace tavra {

// What the daemon decided on a hook with a ticket.
struct DaemonVerdict {
    enum class Kind { none, allow, deny, answers };
    Kind kind = Kind::none;
    std::map<std::string, std::string> answers;  // question text -> answer, for `answers`

    bool operator==(const DaemonVerdict&) const = default;
};

struct HookOutput {
    std::string standardOutput;  // a decision document for the agent, or nothing
    int exitStatus = 0;          // always 0: any other status can block the agent

    bool operator==(const HookOutput&) const = default;
};

namespace HookReply {

// The compact request line {"hook":{"events":[...],"approval":{...}}}, without
// "approval" when there is no ticket.
std::string encodeRequest(const HookTranslation& translation);

// The daemon's reply line: `approval` allow or deny, or `answers`; every
// other reply, noDecision, and anything that does not decode is `none`.
DaemonVerdict readVerdict(std::string_view line) noexcept;

// The words the agent's model reads when the user said no.
inline constexpr std::string_view kDeniedMessage = "The user denied this from their phone.";

// What to print for the agent:
//   Claude permission: {"hookSpecificOutput":{"hookEventName":"PermissionRequest",
//     "decision":{"behavior":"allow"}}}, or "deny" with a "message";
//   Claude question: PreToolUse "allow" with "updatedInput" = the tool's input
//     plus "answers", only when every question has an answer; "deny" with a
//     "permissionDecisionReason";
//   Codex permission: as Claude's (Codex refuses any extra field on allow).
// Each document ends in a newline. Nothing for every other combination: no
// decision, a verdict that does not fit the ticket, an event nobody waits on.
HookOutput outputFor(const HookTranslation& translation, const DaemonVerdict& verdict);

}  // namespace HookReply

}  // namespace tavra
