#pragma once

// Wording shared by the reply builders of status, report and questions.
// Private to TavraKit.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Effects.h"
#include "core/Models.h"
#include "kit/LocalMachine.h"

namespace tavra::RemoteReplyWords {

// Emoji with a variation selector are spelled out so that no editor drops it.
inline constexpr std::string_view kCoffee = "\u2615\uFE0F";     // ☕️
inline constexpr std::string_view kSun = "\u2600\uFE0F";        // ☀️
inline constexpr std::string_view kPlay = "\u25B6\uFE0F";       // ▶️
inline constexpr std::string_view kNoEntry = "\u26D4\uFE0F";    // ⛔️
inline constexpr std::string_view kHourglass = "\u231B\uFE0F";  // ⌛️
inline constexpr std::string_view kWriting = "\u270D\uFE0F";    // ✍️
inline constexpr std::string_view kChecked = "\u2611\uFE0F";    // ☑️
inline constexpr std::string_view kUnchecked = "\u25FB\uFE0F";  // ◻️

inline constexpr std::string_view kDot = " \u00b7 ";  // " · "
inline constexpr std::string_view kIndent = "     ";  // five blanks under a heading line

// "<b>Agent</b>", or "<b>Agent</b> · folder" with the last path component of
// `cwd`; both pieces escaped.
std::string name(const AgentKind& agent, const std::optional<std::string>& cwd);

// The agent's raw value with each word capitalised, escaped.
std::string agentName(const AgentKind& agent);

// "the computer" (or "the Mac"), and "The computer" to begin a sentence.
inline std::string theMachine() {
    return LocalMachine::word().the();
}
inline std::string theMachineAtStart() {
    return LocalMachine::word().theAtStart();
}

std::string joinLines(const std::vector<std::string>& lines);

inline AlertAction button(std::string label, std::string command) {
    return AlertAction{std::move(label), std::move(command)};
}

}  // namespace tavra::RemoteReplyWords
