// One request from the socket: who may ask, what the line says, and the one
// dispatch of every request the compiler checks.

#include <cmath>
#include <exception>
#include <type_traits>
#include <variant>

#include "core/Version.h"
#include "daemon/Daemon.h"
#include "daemon/ResumeCommand.h"
#include "kit/AtomicFile.h"

namespace tavra {

namespace {

std::string encode(const DaemonResponse& response) {
    try {
        return TavraJSON::encodeValue(response);
    } catch (const std::exception&) {
        return R"({"error":{"_0":"internal error"}})";
    }
}

// The settings beyond the engine's own bounds: durations must be numbers a
// timer can use.
std::optional<std::string> invalidRemoteSetting(const RemoteSettings& remote) {
    auto bad = [](double seconds) { return !std::isfinite(seconds) || seconds < 0 || seconds > 86400; };
    if (bad(remote.approvalTimeout)) return "approvalTimeout must be between 0 and 86400 seconds";
    if (bad(remote.deliverBeforeSleep)) return "deliverBeforeSleep must be between 0 and 86400 seconds";
    if (bad(remote.finishMinSeconds)) return "finishMinSeconds must be between 0 and 86400 seconds";
    return std::nullopt;
}

}  // namespace

void Daemon::receive(const std::string& line, std::uint32_t peerUid,
                     std::shared_ptr<DaemonConnection> connection) {
    if (stopped_) {
        connection->reply(encode(DaemonResponse::error("tavrad is stopping")));
        return;
    }
    wake();
    if (peerUid != environment_.ownerUid) {
        // Refused before the line is even looked at.
        connection->reply(encode(DaemonResponse::error("forbidden")));
        return;
    }
    std::optional<DaemonResponse> response;
    try {
        auto request = TavraJSON::decode<DaemonRequest>(line);
        response = handleRequest(request, connection);
    } catch (const DecodingError& error) {
        response = DaemonResponse::error("bad request: " + error.description());
    } catch (const Error& error) {
        response = DaemonResponse::error(error.description());
    } catch (const std::exception& error) {
        response = DaemonResponse::error(error.what());
    }
    if (response) connection->reply(encode(*response));
    armTimer();
}

std::optional<DaemonResponse> Daemon::handleRequest(const DaemonRequest& request,
                                                    const std::shared_ptr<DaemonConnection>& connection) {
    struct Dispatch {
        Daemon& daemon;
        const std::shared_ptr<DaemonConnection>& connection;

        std::optional<DaemonResponse> operator()(const DaemonRequest::Ping&) const {
            return DaemonResponse::ok();
        }
        std::optional<DaemonResponse> operator()(const DaemonRequest::Hook& hook) const {
            return daemon.hook(hook, connection);
        }
        std::optional<DaemonResponse> operator()(const DaemonRequest::Status&) const {
            return DaemonResponse::status(daemon.status());
        }
        std::optional<DaemonResponse> operator()(const DaemonRequest::Command& c) const {
            daemon.feed(PolicyInput::command(c.command));
            return DaemonResponse::ok();
        }
        std::optional<DaemonResponse> operator()(const DaemonRequest::RemoteCommand& c) const {
            auto reply =
                daemon.desk_->execute(IncomingCommand{c.text, ChannelOrigin{"cli", {}, {}}}, daemon.now_);
            return DaemonResponse::text(reply.plain());
        }
        std::optional<DaemonResponse> operator()(const DaemonRequest::GetConfig&) const {
            return DaemonResponse::config(daemon.config_);
        }
        std::optional<DaemonResponse> operator()(const DaemonRequest::SetConfig& c) const {
            return daemon.setConfig(c.config);
        }
        std::optional<DaemonResponse> operator()(const DaemonRequest::Report& r) const {
            return DaemonResponse::report(daemon.report(r.since));
        }
        std::optional<DaemonResponse> operator()(const DaemonRequest::TestNotification&) const {
            daemon.desk_->testNotification(daemon.now_);
            return DaemonResponse::ok();
        }
    };
    return std::visit(Dispatch{*this, connection}, request.value);
}

// The ticket is opened before the events are carried out: while it is held,
// its own message on the phone stands for the engine's permission alert.
// The desk may answer it at once (nobody could answer from elsewhere).
std::optional<DaemonResponse> Daemon::hook(const DaemonRequest::Hook& hook,
                                           const std::shared_ptr<DaemonConnection>& connection) {
    if (hook.approval) {
        const ApprovalTicket ticket = *hook.approval;
        struct Held {
            bool opening = true;  // an answer now means the ticket was never held
            bool answered = false;
            bool withdrawn = false;
        };
        auto held = std::make_shared<Held>();
        connection->onClosed([weak = weak_from_this(), id = ticket.id, held] {
            auto self = weak.lock();
            if (!self || held->answered || self->stopped_) return;
            self->wake();
            held->withdrawn = true;
            self->desk_->withdraw(id, self->now_);
            self->armTimer();
        });
        desk_->open(
            ticket,
            [weak = weak_from_this(), connection, ticket, held](DaemonResponse response) {
                if (held->answered) return;
                held->answered = true;
                if (!held->withdrawn) connection->reply(encode(response));
                auto self = weak.lock();
                if (!self || held->opening) return;
                std::string outcome = "answers";
                if (held->withdrawn) {
                    outcome = "withdrawn";
                } else if (const auto* approval = std::get_if<DaemonResponse::Approval>(&response.value)) {
                    outcome = std::string(toString(approval->decision));
                }
                self->log("approval " + ticket.id + ": " + outcome);
                self->journal_.append(JournalEntry{self->now_, JournalEntry::Kind::approval, ticket.run,
                                                   ticket.cwd, outcome, ticket.toolName, std::nullopt});
            },
            now_);
        held->opening = false;
        if (!held->answered) log("approval " + ticket.id + " held for " + ticket.run.description());
    }
    for (const auto& event : hook.events) {
        feed(PolicyInput::agent(event));
        desk_->observe(event, now_);
    }
    if (hook.approval) return std::nullopt;
    return DaemonResponse::ok();
}

DaemonResponse Daemon::setConfig(const TavraConfig& requested) {
    if (auto problem = invalidRemoteSetting(requested.remote)) return DaemonResponse::error(*problem);
    TavraConfig config = requested;
    config.policy = config.policy.sanitized();
    ConfigStore::save(config, environment_.configFile);
    const bool channelsChanged =
        config.remote.telegram != config_.remote.telegram || config.remote.ntfy != config_.remote.ntfy;
    config_ = config;
    log("configuration changed");
    desk_->configure(config_.remote);
    feed(PolicyInput::settings(config_.policy));
    if (channelsChanged) {
        stopChannels();
        startChannels();
    }
    return DaemonResponse::ok();
}

Report Daemon::report(Date since) {
    return Report::build(journal_.read(), since, now_, engine_->sortedRuns());
}

DaemonStatus Daemon::status() {
    DaemonStatus status;
    status.version = std::string(TavraVersion::current);
    const auto runs = engine_->sortedRuns();
    status.enabled = engine_->settings().enabled;
    status.headline = StatusLine::render(runs, engine_->system(), engine_->plan(), status.enabled);
    for (const auto& run : runs) status.runs.push_back({run, resumeCommand(run)});
    status.system = engine_->system();
    status.plan = engine_->plan();
    // Only a stay-awake still in force; a past one is history.
    if (auto until = engine_->stayAwakeUntil(); until && *until > now_) status.stayAwakeUntil = until;
    status.helperInstalled = environment_.helperInstalled ? environment_.helperInstalled() : false;
    for (const auto& channel : channels_) status.remoteChannels.emplace_back(channel->name());
    status.pendingApprovals = desk_->pending();
    return status;
}

}  // namespace tavra
