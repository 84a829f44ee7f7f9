#include "kit/DaemonProtocol.h"

#include "core/Text.h"
#include "core/TimeFormatter.h"

namespace tavra {

using TavraJSON::optional;
using TavraJSON::required;

// ---- DaemonRequest -----------------------------------------------------------

namespace {
constexpr auto kRequestNames =
    TavraJSON::unionNames<DaemonRequest::Case>("ping", "hook", "status", "command", "remoteCommand",
                                               "getConfig", "setConfig", "report", "testNotification");
constexpr auto kResponseNames = TavraJSON::unionNames<DaemonResponse::Case>(
    "ok", "approval", "answers", "status", "config", "report", "text", "error");
}  // namespace

void to_json(Json& j, const DaemonRequest::Hook& c) {
    j = Json::object();
    j["events"] = c.events;
    TavraJSON::setOptional(j, "approval", c.approval);
}
void from_json(const Json& j, DaemonRequest::Hook& c) {
    c.events = required<std::vector<AgentEvent>>(j, "events");
    c.approval = optional<ApprovalTicket>(j, "approval");
}
void to_json(Json& j, const DaemonRequest::Command& c) {
    j = TavraJSON::unlabelled(c.command);
}
void from_json(const Json& j, DaemonRequest::Command& c) {
    c.command = required<UserCommand>(j, "_0");
}
void to_json(Json& j, const DaemonRequest::RemoteText& c) {
    j = TavraJSON::unlabelled(c.text);
}
void from_json(const Json& j, DaemonRequest::RemoteText& c) {
    c.text = required<std::string>(j, "_0");
}
void to_json(Json& j, const DaemonRequest::SetConfig& c) {
    j = TavraJSON::unlabelled(c.config);
}
void from_json(const Json& j, DaemonRequest::SetConfig& c) {
    c.config = required<TavraConfig>(j, "_0");
}
void to_json(Json& j, const DaemonRequest::ReportSince& c) {
    j = Json::object();
    j["since"] = c.since;
}
void from_json(const Json& j, DaemonRequest::ReportSince& c) {
    c.since = required<Date>(j, "since");
}

void to_json(Json& j, const DaemonRequest& request) {
    j = TavraJSON::encodeUnion(request.value, kRequestNames);
}

void from_json(const Json& j, DaemonRequest& request) {
    request.value = TavraJSON::decodeUnion(j, kRequestNames);
}

// ---- DaemonStatus ------------------------------------------------------------

void to_json(Json& j, const DaemonStatus::RunView& view) {
    j = Json::object();
    j["run"] = view.run;
    TavraJSON::setOptional(j, "resumeCommand", view.resumeCommand);
}

void from_json(const Json& j, DaemonStatus::RunView& view) {
    TavraJSON::requireObject(j, "RunView");
    view.run = required<Run>(j, "run");
    view.resumeCommand = optional<std::string>(j, "resumeCommand");
}

void to_json(Json& j, const DaemonStatus& status) {
    j = Json::object();
    j["version"] = status.version;
    j["headline"] = status.headline;
    j["enabled"] = status.enabled;
    j["runs"] = status.runs;
    j["system"] = status.system;
    j["plan"] = status.plan;
    TavraJSON::setOptional(j, "stayAwakeUntil", status.stayAwakeUntil);
    j["helperInstalled"] = status.helperInstalled;
    j["remoteChannels"] = status.remoteChannels;
    j["pendingApprovals"] = status.pendingApprovals;
}

void from_json(const Json& j, DaemonStatus& status) {
    TavraJSON::requireObject(j, "DaemonStatus");
    status.version = required<std::string>(j, "version");
    status.headline = required<std::string>(j, "headline");
    status.enabled = required<bool>(j, "enabled");
    status.runs = required<std::vector<DaemonStatus::RunView>>(j, "runs");
    status.system = required<SystemSnapshot>(j, "system");
    status.plan = required<PowerPlan>(j, "plan");
    status.stayAwakeUntil = optional<Date>(j, "stayAwakeUntil");
    status.helperInstalled = required<bool>(j, "helperInstalled");
    status.remoteChannels = required<std::vector<std::string>>(j, "remoteChannels");
    status.pendingApprovals = required<std::vector<ApprovalTicket>>(j, "pendingApprovals");
}

RemoteCommand::Resolution DaemonStatus::resolve(const std::optional<std::string>& target) const {
    std::vector<Run> list;
    list.reserve(runs.size());
    for (const auto& view : runs) list.push_back(view.run);
    return RemoteCommand::resolve(target, list);
}

std::string DaemonStatus::renderText() const {
    static constexpr std::string_view kDot = " \u00b7 ";
    std::vector<std::string> lines;
    lines.push_back(headline);
    int number = 0;
    for (const auto& view : runs) {
        const Run& run = view.run;
        std::string line = std::to_string(++number) + ". " + Text::capitalizedWords(run.key.agent.rawValue);
        if (run.cwd) line.append(kDot).append(Text::lastPathComponent(*run.cwd));
        line.append(kDot).append(toString(run.status));
        if (run.pauseReason) line.append(" (").append(toString(*run.pauseReason)).append(")");
        line.append(kDot).append(Report::duration(run.workingSeconds));
        lines.push_back(std::move(line));
    }
    if (!plan.reasons.empty()) {
        std::string line = "Holding awake: ";
        for (std::size_t i = 0; i < plan.reasons.size(); ++i) {
            if (i > 0) line += "; ";
            line += plan.reasons[i];
        }
        lines.push_back(std::move(line));
    }
    if (stayAwakeUntil) lines.push_back("Stay-awake until " + TimeFormatter::shortTime(*stayAwakeUntil));

    std::string out;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (i > 0) out += '\n';
        out += lines[i];
    }
    return out;
}

// ---- DaemonResponse ----------------------------------------------------------

void to_json(Json& j, const DaemonResponse::Approval& c) {
    j = TavraJSON::unlabelled(c.decision);
}
void from_json(const Json& j, DaemonResponse::Approval& c) {
    c.decision = required<ApprovalDecision>(j, "_0");
}
void to_json(Json& j, const DaemonResponse::Answers& c) {
    j = TavraJSON::unlabelled(c.answers);
}
void from_json(const Json& j, DaemonResponse::Answers& c) {
    c.answers = required<std::map<std::string, std::string>>(j, "_0");
}
void to_json(Json& j, const DaemonResponse::Status& c) {
    j = TavraJSON::unlabelled(c.status);
}
void from_json(const Json& j, DaemonResponse::Status& c) {
    c.status = required<DaemonStatus>(j, "_0");
}
void to_json(Json& j, const DaemonResponse::Config& c) {
    j = TavraJSON::unlabelled(c.config);
}
void from_json(const Json& j, DaemonResponse::Config& c) {
    c.config = required<TavraConfig>(j, "_0");
}
void to_json(Json& j, const DaemonResponse::ReportReply& c) {
    j = TavraJSON::unlabelled(c.report);
}
void from_json(const Json& j, DaemonResponse::ReportReply& c) {
    c.report = required<Report>(j, "_0");
}
void to_json(Json& j, const DaemonResponse::Text& c) {
    j = TavraJSON::unlabelled(c.text);
}
void from_json(const Json& j, DaemonResponse::Text& c) {
    c.text = required<std::string>(j, "_0");
}
void to_json(Json& j, const DaemonResponse::Failure& c) {
    j = TavraJSON::unlabelled(c.message);
}
void from_json(const Json& j, DaemonResponse::Failure& c) {
    c.message = required<std::string>(j, "_0");
}

void to_json(Json& j, const DaemonResponse& response) {
    j = TavraJSON::encodeUnion(response.value, kResponseNames);
}

void from_json(const Json& j, DaemonResponse& response) {
    response.value = TavraJSON::decodeUnion(j, kResponseNames);
}

}  // namespace tavra
