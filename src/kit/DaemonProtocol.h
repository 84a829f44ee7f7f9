#pragma once

// The protocol on which local clients (the hook tool, the command line, the
// user interface) talk to the resident daemon: one compact JSON request line
// and one reply line per connection, tagged unions as everywhere else.
// Client and daemon are of the same version, so these records have no
// defaults and no merge: every non-optional field is required on reading.

#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "core/ConfigCoding.h"
#include "core/Date.h"
#include "core/Effects.h"
#include "core/Models.h"
#include "core/RemoteCommand.h"
#include "core/Report.h"
#include "core/Run.h"
#include "kit/Config.h"

namespace tavra {

// A request to the daemon; a tagged union, cases in wire order.
struct DaemonRequest {
    struct Ping {
        bool operator==(const Ping&) const = default;
    };
    // What the hook tool saw of an agent, with the permission request or
    // question where the agent waits for one.
    struct Hook {
        std::vector<AgentEvent> events;
        std::optional<ApprovalTicket> approval;
        bool operator==(const Hook&) const = default;
    };
    struct Status {
        bool operator==(const Status&) const = default;
    };
    struct Command {
        UserCommand command;
        bool operator==(const Command&) const = default;
    };
    // Text in the remote command language.
    struct RemoteText {
        std::string text;
        bool operator==(const RemoteText&) const = default;
    };
    struct GetConfig {
        bool operator==(const GetConfig&) const = default;
    };
    struct SetConfig {
        TavraConfig config;
        bool operator==(const SetConfig&) const = default;
    };
    struct ReportSince {
        Date since{};
        bool operator==(const ReportSince&) const = default;
    };
    struct TestNotification {
        bool operator==(const TestNotification&) const = default;
    };
    using Case = std::variant<Ping, Hook, Status, Command, RemoteText, GetConfig, SetConfig, ReportSince,
                              TestNotification>;

    Case value;

    static DaemonRequest ping() { return {Ping{}}; }
    static DaemonRequest hook(std::vector<AgentEvent> events,
                              std::optional<ApprovalTicket> approval = std::nullopt) {
        return {Hook{std::move(events), std::move(approval)}};
    }
    static DaemonRequest status() { return {Status{}}; }
    static DaemonRequest command(UserCommand command) { return {Command{std::move(command)}}; }
    static DaemonRequest remoteCommand(std::string text) { return {RemoteText{std::move(text)}}; }
    static DaemonRequest getConfig() { return {GetConfig{}}; }
    static DaemonRequest setConfig(TavraConfig config) { return {SetConfig{std::move(config)}}; }
    static DaemonRequest report(Date since) { return {ReportSince{since}}; }
    static DaemonRequest testNotification() { return {TestNotification{}}; }

    bool operator==(const DaemonRequest&) const = default;
};

void to_json(Json& j, const DaemonRequest& request);
void from_json(const Json& j, DaemonRequest& request);

// The daemon's view of everything, for the status request.
struct DaemonStatus {
    // One run as a client shows it. Its list identity is `id()`, the run key's
    // description; the id is not part of the JSON form.
    struct RunView {
        Run run;
        std::optional<std::string> resumeCommand;  // how to pick the run up again

        std::string id() const { return run.key.description(); }

        bool operator==(const RunView&) const = default;
    };

    std::string version;                           // the daemon's TavraVersion::current
    std::string headline;                          // one line from StatusLine
    bool enabled = false;                          // the system is switched on
    std::vector<RunView> runs;                     // in display order
    SystemSnapshot system;                         // the latest sample of the machine
    PowerPlan plan;                                // what is held now
    std::optional<Date> stayAwakeUntil;            // a manual stay-awake in force
    bool helperInstalled = false;                  // HelperClient::isInstalled()
    std::vector<std::string> remoteChannels;       // names of the configured channels
    std::vector<ApprovalTicket> pendingApprovals;  // tickets that wait for a decision

    // Plain text for a terminal, lines joined by "\n" without a final one:
    // the headline, one numbered line per run, what holds the machine awake
    // and a stay-awake, if any. Times of day in ICU's default zone and
    // locale, short style. Never throws for any value.
    std::string renderText() const;

    // A pause or resume target of the remote language resolved against the
    // runs as they are numbered here, so the phone and the command line agree.
    RemoteCommand::Resolution resolve(const std::optional<std::string>& target) const;

    bool operator==(const DaemonStatus&) const = default;
};

void to_json(Json& j, const DaemonStatus::RunView& view);
void from_json(const Json& j, DaemonStatus::RunView& view);
void to_json(Json& j, const DaemonStatus& status);
void from_json(const Json& j, DaemonStatus& status);

// The daemon's reply; a tagged union, cases in wire order.
struct DaemonResponse {
    struct Ok {
        bool operator==(const Ok&) const = default;
    };
    struct Approval {
        ApprovalDecision decision = ApprovalDecision::noDecision;
        bool operator==(const Approval&) const = default;
    };
    // Answers to an agent's questions, keyed by the full question text.
    struct Answers {
        std::map<std::string, std::string> answers;
        bool operator==(const Answers&) const = default;
    };
    struct Status {
        DaemonStatus status;
        bool operator==(const Status&) const = default;
    };
    struct Config {
        TavraConfig config;
        bool operator==(const Config&) const = default;
    };
    struct ReportReply {
        Report report;
        bool operator==(const ReportReply&) const = default;
    };
    struct Text {
        std::string text;
        bool operator==(const Text&) const = default;
    };
    struct Failure {
        std::string message;
        bool operator==(const Failure&) const = default;
    };
    using Case = std::variant<Ok, Approval, Answers, Status, Config, ReportReply, Text, Failure>;

    Case value;

    static DaemonResponse ok() { return {Ok{}}; }
    static DaemonResponse approval(ApprovalDecision decision) { return {Approval{decision}}; }
    static DaemonResponse answers(std::map<std::string, std::string> answers) {
        return {Answers{std::move(answers)}};
    }
    static DaemonResponse status(DaemonStatus status) { return {Status{std::move(status)}}; }
    static DaemonResponse config(TavraConfig config) { return {Config{std::move(config)}}; }
    static DaemonResponse report(Report report) { return {ReportReply{std::move(report)}}; }
    static DaemonResponse text(std::string text) { return {Text{std::move(text)}}; }
    static DaemonResponse error(std::string message) { return {Failure{std::move(message)}}; }

    bool operator==(const DaemonResponse&) const = default;
};

void to_json(Json& j, const DaemonResponse& response);
void from_json(const Json& j, DaemonResponse& response);

}  // namespace tavra
