#pragma once

// One run of `tavra-hook AGENT`: read the agent's payload, tell the daemon,
// wait for a decision where the agent waits for one, print it in the agent's
// form. Built so that it cannot hurt the agent: whatever fails, the output is
// empty and the exit status 0, and standard output carries nothing but a
// decision document.

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "hook/HookReply.h"

namespace tavra::HookTool {

// How long a plain event waits for the daemon.
inline constexpr double kEventTimeout = 1.0;
// Added to the configured approval time-out, so that the daemon's own
// expiry, not ours, ends a held approval.
inline constexpr double kApprovalMargin = 5.0;
// Used when config.json has no usable remote.approvalTimeout.
inline constexpr double kDefaultApprovalTimeout = 600.0;

// remote.approvalTimeout from config.json, read alone and without the
// configuration store's merging (which the hook does not need): the default
// for a missing, unreadable or damaged file, or a value that is not a
// positive number. Never throws.
double approvalTimeout(const std::filesystem::path& configFile) noexcept;

// A fresh ticket id: 16 bytes from the OS's random source, base64url
// without padding (22 characters). Throws Error when the OS gives none.
std::string newTicketId();

// Sends one line to the daemon and returns its reply line; throws on any
// failure (SocketError for a daemon that is not there).
using Exchange = std::function<std::string(const std::string& line, double timeoutSeconds)>;

struct Inputs {
    AgentKind agent;
    std::string payload;
    HookContext context;
    double approvalTimeout = kDefaultApprovalTimeout;
};

// Translates, exchanges and decides. Never throws.
HookOutput run(const Inputs& inputs, const Exchange& exchange) noexcept;

// The program: argv[1] names the agent; the payload is standard input, or,
// when Codex runs it as its `notify` program, the last argument.
// Writes the decision, if any, to standard output. Returns the exit status.
int main(int argc, char** argv) noexcept;

}  // namespace tavra::HookTool
