#pragma once

// Small builders of runs, tickets, daemon status and expected replies, and
// the wire check, for reply and protocol tests. Fixed moments keep every rendered time
// deterministic once the test pins ICU's zone and locale.

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Models.h"
#include "core/Run.h"
#include "kit/DaemonProtocol.h"
#include "kit/RemoteReplies.h"

namespace tavra::testing {

// 2025-03-01T09:30:00Z.
inline Date sampleNow() {
    return *TavraJSON::parseDate("2025-03-01T09:30:00Z");
}

inline Date minutesFrom(Date date, double minutes) {
    return date + std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(minutes * 60));
}

inline Run sampleRun(std::string agent, std::string session, RunStatus status,
                     std::optional<std::string> cwd = std::nullopt, double workingSeconds = 0) {
    Run run(RunKey{AgentKind{std::move(agent)}, std::move(session)}, minutesFrom(sampleNow(), -60));
    run.status = status;
    run.cwd = std::move(cwd);
    run.workingSeconds = workingSeconds;
    return run;
}

inline DaemonStatus sampleStatus(std::vector<Run> runs = {}) {
    DaemonStatus status;
    status.enabled = true;
    for (auto& run : runs) status.runs.push_back({std::move(run), std::nullopt});
    status.system.powerSource = PowerSource::ac;
    status.system.batteryPercent = 80;
    status.system.networkReachable = true;
    return status;
}

inline ApprovalTicket sampleTicket(std::string id, std::string agent,
                                   std::vector<AgentQuestion> questions = {}) {
    ApprovalTicket ticket;
    ticket.id = std::move(id);
    ticket.run = RunKey{AgentKind{std::move(agent)}, "s1"};
    ticket.toolName = "Bash";
    ticket.summary = "ls";
    if (!questions.empty()) ticket.questions = std::move(questions);
    return ticket;
}

// `piece` `n` times over.
inline std::string repeat(std::string_view piece, int n) {
    std::string text;
    for (int i = 0; i < n; ++i) text += piece;
    return text;
}

// Encodes on one line, to `line` when given (key order is free), and decodes
// back to the same value.
template <class T>
void expectWire(const T& value, const std::string& line = {}) {
    std::string encoded = TavraJSON::encodeValue(value);
    EXPECT_EQ(encoded.find('\n'), std::string::npos) << encoded;
    EXPECT_EQ(TavraJSON::parse(encoded), TavraJSON::parse(line.empty() ? encoded : line)) << encoded;
    EXPECT_EQ(TavraJSON::decode<T>(encoded), value) << encoded;
}

inline RemoteReply replyOf(std::string html, std::vector<std::vector<AlertAction>> buttons,
                           RemoteReply::Placement placement = RemoteReply::Placement::replace(),
                           std::optional<std::string> toast = std::nullopt, bool forceReply = false) {
    return RemoteReply{std::move(html), std::move(buttons), std::move(placement), std::move(toast),
                       forceReply};
}

}  // namespace tavra::testing
