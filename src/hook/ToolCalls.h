#pragma once

// How the hook tool describes one tool call of an agent: the tool's name, a
// signature that is equal for calls that repeat each other, whether the call
// writes files, and one line for people. Pure; never throws for any input.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/ConfigCoding.h"
#include "core/Models.h"

namespace tavra::ToolCalls {

// The longest summary, in code points; a longer one is cut and ends in "…".
inline constexpr std::size_t kSummaryLength = 120;

// The input as compact JSON with every object's keys in byte order at every
// depth, so two documents that differ only in key order or spacing read the
// same. Invalid UTF-8 in strings is replaced, never thrown.
std::string canonicalJson(const Json& input);

// 64-bit FNV-1a over the name, one NUL byte and canonicalJson(input), written
// as 16 lower-case hex digits. FNV-1a is defined byte by byte, so the value is
// the same on every machine and in every run; it is not a cryptographic hash
// and needs not be one, since it only tells repeats apart.
std::string signature(std::string_view name, const Json& input);

// The 64-bit FNV-1a hash of `bytes` (offset basis 0xcbf29ce484222325, prime
// 0x100000001b3).
std::uint64_t fnv1a64(std::string_view bytes) noexcept;

// Whether the agent's tool of that name writes files: Claude's Write, Edit,
// MultiEdit and NotebookEdit; Codex's apply_patch; for Grok and unknown agents
// the Claude names in any case, plus the file tools of Grok's own CLIs.
bool isFileWrite(const AgentKind& agent, std::string_view name);

// One line for people: a command's first line, the file a tool edits, the
// files of a patch, a pattern, a URL or a question; absent when the input
// holds nothing to show. Cut to kSummaryLength code points.
std::optional<std::string> summary(std::string_view name, const Json& input);

// The first line of `text` without surrounding blanks, cut at `maxCodePoints`
// on a UTF-8 boundary with "…" appended when something was cut.
std::string oneLine(std::string_view text, std::size_t maxCodePoints = kSummaryLength);

// All of the above for one call.
ToolCall describe(const AgentKind& agent, std::string_view name, const Json& input);

}  // namespace tavra::ToolCalls
