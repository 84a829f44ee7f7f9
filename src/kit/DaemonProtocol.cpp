#include "kit/DaemonProtocol.h"

#include "core/Text.h"
#include "core/TimeFormatter.h"

namespace tavra {

using TavraJSON::optional;
using TavraJSON::required;

// ---- DaemonRequest -----------------------------------------------------------

void to_json(Json& j, const DaemonRequest& request) {
    struct Write {
        Json operator()(const DaemonRequest::Ping&) const { return TavraJSON::writeUnion("ping"); }
        Json operator()(const DaemonRequest::Hook& c) const {
            Json payload = Json::object();
            payload["events"] = c.events;
            TavraJSON::setOptional(payload, "approval", c.approval);
            return TavraJSON::writeUnion("hook", std::move(payload));
        }
        Json operator()(const DaemonRequest::Status&) const { return TavraJSON::writeUnion("status"); }
        Json operator()(const DaemonRequest::Command& c) const {
            return TavraJSON::writeUnion0("command", c.command);
        }
        Json operator()(const DaemonRequest::RemoteText& c) const {
            return TavraJSON::writeUnion0("remoteCommand", c.text);
        }
        Json operator()(const DaemonRequest::GetConfig&) const { return TavraJSON::writeUnion("getConfig"); }
        Json operator()(const DaemonRequest::SetConfig& c) const {
            return TavraJSON::writeUnion0("setConfig", c.config);
        }
        Json operator()(const DaemonRequest::ReportSince& c) const {
            Json payload = Json::object();
            payload["since"] = c.since;
            return TavraJSON::writeUnion("report", std::move(payload));
        }
        Json operator()(const DaemonRequest::TestNotification&) const {
            return TavraJSON::writeUnion("testNotification");
        }
    };
    j = std::visit(Write{}, request.value);
}

void from_json(const Json& j, DaemonRequest& request) {
    auto found = TavraJSON::readUnion(j, {"ping", "hook", "status", "command", "remoteCommand", "getConfig",
                                          "setConfig", "report", "testNotification"});
    const Json& p = found.payload;
    switch (found.index) {
        case 0:
            request = DaemonRequest::ping();
            break;
        case 1:
            request = DaemonRequest::hook(required<std::vector<AgentEvent>>(p, "events"),
                                          optional<ApprovalTicket>(p, "approval"));
            break;
        case 2:
            request = DaemonRequest::status();
            break;
        case 3:
            request = DaemonRequest::command(required<UserCommand>(p, "_0"));
            break;
        case 4:
            request = DaemonRequest::remoteCommand(required<std::string>(p, "_0"));
            break;
        case 5:
            request = DaemonRequest::getConfig();
            break;
        case 6:
            request = DaemonRequest::setConfig(required<TavraConfig>(p, "_0"));
            break;
        case 7:
            request = DaemonRequest::report(required<Date>(p, "since"));
            break;
        default:
            request = DaemonRequest::testNotification();
            break;
    }
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

void to_json(Json& j, const DaemonResponse& response) {
    struct Write {
        Json operator()(const DaemonResponse::Ok&) const { return TavraJSON::writeUnion("ok"); }
        Json operator()(const DaemonResponse::Approval& c) const {
            return TavraJSON::writeUnion0("approval", c.decision);
        }
        Json operator()(const DaemonResponse::Answers& c) const {
            return TavraJSON::writeUnion0("answers", c.answers);
        }
        Json operator()(const DaemonResponse::Status& c) const {
            return TavraJSON::writeUnion0("status", c.status);
        }
        Json operator()(const DaemonResponse::Config& c) const {
            return TavraJSON::writeUnion0("config", c.config);
        }
        Json operator()(const DaemonResponse::ReportReply& c) const {
            return TavraJSON::writeUnion0("report", c.report);
        }
        Json operator()(const DaemonResponse::Text& c) const {
            return TavraJSON::writeUnion0("text", c.text);
        }
        Json operator()(const DaemonResponse::Failure& c) const {
            return TavraJSON::writeUnion0("error", c.message);
        }
    };
    j = std::visit(Write{}, response.value);
}

void from_json(const Json& j, DaemonResponse& response) {
    auto found =
        TavraJSON::readUnion(j, {"ok", "approval", "answers", "status", "config", "report", "text", "error"});
    const Json& p = found.payload;
    switch (found.index) {
        case 0:
            response = DaemonResponse::ok();
            break;
        case 1:
            response = DaemonResponse::approval(required<ApprovalDecision>(p, "_0"));
            break;
        case 2:
            response = DaemonResponse::answers(required<std::map<std::string, std::string>>(p, "_0"));
            break;
        case 3:
            response = DaemonResponse::status(required<DaemonStatus>(p, "_0"));
            break;
        case 4:
            response = DaemonResponse::config(required<TavraConfig>(p, "_0"));
            break;
        case 5:
            response = DaemonResponse::report(required<Report>(p, "_0"));
            break;
        case 6:
            response = DaemonResponse::text(required<std::string>(p, "_0"));
            break;
        default:
            response = DaemonResponse::error(required<std::string>(p, "_0"));
            break;
    }
}

}  // namespace tavra
