// The daemon-facing commands of `tavra`: status, report, steering, approvals
// and settings.

#include "cli/Cli.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "cli/Commands.h"
#include "core/RemoteCommand.h"
#include "core/TimeFormatter.h"
#include "core/Version.h"
#include "kit/Config.h"
#include "kit/HelperProtocol.h"
#include "kit/UnixSocket.h"

namespace tavra::cli {

namespace {

constexpr double kTimeout = 10.0;

DaemonResponse exchange(Services& services, const DaemonRequest& request) {
    DaemonResponse response = services.send(request, kTimeout);
    if (auto* error = std::get_if<DaemonResponse::Failure>(&response.value)) throw Failure(error->message);
    return response;
}

DaemonStatus fetchStatus(Services& services) {
    DaemonResponse response = exchange(services, DaemonRequest::status());
    if (auto* status = std::get_if<DaemonResponse::Status>(&response.value)) return status->status;
    throw Failure("The daemon gave an unexpected reply.");
}

// The daemon's plain answer, or the words of our own for a bare "ok".
void reportOutcome(Services& services, const DaemonResponse& response, const std::string& done) {
    if (auto* text = std::get_if<DaemonResponse::Text>(&response.value))
        *services.out << text->text << "\n";
    else
        *services.out << done << "\n";
}

// A target resolved exactly as the phone resolves it, against the runs in
// the order `tavra status` numbers them.
std::optional<RunKey> resolveTarget(const DaemonStatus& status, const std::optional<std::string>& target) {
    auto resolved = status.resolve(target);
    if (std::holds_alternative<RemoteCommand::NoRun>(resolved))
        throw Failure("No run matches \"" + target.value_or("") + "\". See `tavra status`.");
    if (const auto* one = std::get_if<RunKey>(&resolved)) return *one;
    return std::nullopt;  // every run
}

const DaemonStatus::RunView& viewOf(const DaemonStatus& status, const RunKey& key) {
    for (const auto& view : status.runs)
        if (view.run.key == key) return view;
    throw Failure("That run is gone.");
}

std::string formatLocal(Date date) {
    return TimeFormatter("EEE HH:mm").format(date);
}

int status(const Request& request, Services& services) {
    DaemonStatus status = fetchStatus(services);
    if (request.json) {
        Json json = status;
        *services.out << json.dump(2) << "\n";
        return 0;
    }
    *services.out << status.renderText() << "\n";
    for (const auto& ticket : status.pendingApprovals) {
        *services.out << "Waiting for you: " << ticket.id << " · " << ticket.toolName;
        if (!ticket.summary.empty()) *services.out << ": " << ticket.summary;
        *services.out << "\n";
    }
    if (!status.pendingApprovals.empty())
        *services.out << "Answer with `tavra approve <ticket>` or `tavra deny <ticket>`.\n";
    return 0;
}

int report(const Request& request, Services& services) {
    Date now = services.now();
    Date since = request.time ? resolveSince(*request.time, now) : addSeconds(now, -12 * 3600.0);
    DaemonResponse response = exchange(services, DaemonRequest::report(since));
    auto* report = std::get_if<DaemonResponse::ReportReply>(&response.value);
    if (report == nullptr) throw Failure("The daemon gave an unexpected reply.");
    *services.out << report->report.renderText() << "\n";
    return 0;
}

int pauseOrResume(const Request& request, Services& services, bool pause) {
    DaemonStatus status = fetchStatus(services);
    std::optional<RunKey> key = resolveTarget(status, request.target);
    if (!pause && key) {
        // A paused run is thawed; one whose agent has stopped is picked up
        // again in a new terminal window, where the user can talk to it.
        const auto& view = viewOf(status, *key);
        const bool paused = view.run.status == RunStatus::paused;
        if (request.terminal || view.run.status == RunStatus::idle) {
            if (!view.resumeCommand) throw Failure(key->description() + " has no session to open again.");
            services.openTerminal(*view.resumeCommand, key->description());
            *services.out << "Opened " << key->description() << " in a new terminal window.\n";
            return 0;
        }
        if (!paused) throw Failure(key->description() + " is not paused.");
    }
    UserCommand command = pause ? UserCommand::pause(key) : UserCommand::resume(key);
    std::string what = key ? key->description() : "every agent";
    reportOutcome(services, exchange(services, DaemonRequest::command(command)),
                  (pause ? "Paused " : "Resumed ") + what + ".");
    return 0;
}

int forget(const Request& request, Services& services) {
    DaemonStatus status = fetchStatus(services);
    std::optional<RunKey> key = resolveTarget(status, request.target);
    if (!key) throw Failure("Name the run to forget.");
    reportOutcome(services, exchange(services, DaemonRequest::command(UserCommand::forget(*key))),
                  "Forgot " + key->description() + ".");
    return 0;
}

int stayAwake(const Request& request, Services& services) {
    std::optional<Date> until = resolveForward(*request.time, services.now());
    reportOutcome(services, exchange(services, DaemonRequest::command(UserCommand::stayAwake(until))),
                  until ? "Staying awake until " + formatLocal(*until) + "." : "Stay-awake ended.");
    return 0;
}

constexpr std::string_view kDefaultHoldName = "hold";

int hold(const Request& request, Services& services) {
    std::string name = request.target.value_or(std::string(kDefaultHoldName));
    std::optional<Date> until = resolveForward(*request.time, services.now());
    reportOutcome(services, exchange(services, DaemonRequest::command(UserCommand::hold(name, until))),
                  "Holding awake as \"" + name + "\" until " + formatLocal(*until) + ".");
    return 0;
}

// Without a name: the stay-awake and the unnamed hold, which is what "let
// the machine sleep again" means to someone who typed `tavra hold`.
int release(const Request& request, Services& services) {
    if (request.target) {
        reportOutcome(
            services,
            exchange(services, DaemonRequest::command(UserCommand::hold(*request.target, std::nullopt))),
            "Released \"" + *request.target + "\".");
        return 0;
    }
    exchange(services, DaemonRequest::command(UserCommand::stayAwake(std::nullopt)));
    exchange(services,
             DaemonRequest::command(UserCommand::hold(std::string(kDefaultHoldName), std::nullopt)));
    *services.out << "Released.\n";
    return 0;
}

int enable(const Request& request, Services& services) {
    reportOutcome(services, exchange(services, DaemonRequest::command(UserCommand::setEnabled(request.on))),
                  request.on ? "Tavra is on." : "Tavra is off.");
    return 0;
}

int decide(const Request& request, Services& services, bool approve) {
    std::string text = std::string(approve ? "approve:" : "deny:") + *request.target;
    reportOutcome(services, exchange(services, DaemonRequest::remoteCommand(text)),
                  approve ? "Approved." : "Denied.");
    return 0;
}

int testNotification(Services& services) {
    reportOutcome(services, exchange(services, DaemonRequest::testNotification()), "Test notification sent.");
    return 0;
}

int logs(const Request& request, Services& services) {
    if (request.follow) {
        // tail follows renames and truncation better than we would.
        std::vector<std::string> words = {"tail", "-n", "50", "-F", services.logFile.string()};
        std::vector<char*> argv;
        for (auto& word : words) argv.push_back(word.data());
        argv.push_back(nullptr);
        ::execvp("tail", argv.data());
        throw Failure("cannot run tail: " + std::string(std::strerror(errno)));
    }
    std::ifstream in(services.logFile);
    if (!in) throw Failure("No log yet at " + services.logFile.string() + ".");
    *services.out << in.rdbuf();
    return 0;
}

}  // namespace

std::string notRunningSentence(const Services& services) {
    return "Tavra's daemon is not running. Start it with `" + services.daemonStartCommand +
           "` or run `tavra setup`.";
}

int execute(const Request& request, Services& services) {
    using C = Request::Command;
    try {
        switch (request.command) {
            case C::help:
                return 0;
            case C::status:
                return status(request, services);
            case C::report:
                return report(request, services);
            case C::pause:
                return pauseOrResume(request, services, true);
            case C::resume:
                return pauseOrResume(request, services, false);
            case C::forget:
                return forget(request, services);
            case C::stayAwake:
                return stayAwake(request, services);
            case C::hold:
                return hold(request, services);
            case C::release:
                return release(request, services);
            case C::enable:
                return enable(request, services);
            case C::approve:
                return decide(request, services, true);
            case C::deny:
                return decide(request, services, false);
            case C::configShow:
                return configShow(request, services);
            case C::configGet:
                return configGet(request, services);
            case C::configSet:
                return configSet(request, services);
            case C::testNotification:
                return testNotification(services);
            case C::logs:
                return logs(request, services);
            case C::version:
                *services.out << "tavra " << TavraVersion::current << "\n";
                return 0;
            case C::run:
                return runHolding(request, services);
            case C::setup:
                return setup(request, services);
            case C::uninstall:
                return uninstall(services);
            case C::doctor:
                return doctor(services);
            case C::phoneTelegram:
            case C::phoneNtfy:
                return pairPhone(request, services);
        }
    } catch (const SocketError&) {
        *services.err << notRunningSentence(services) << "\n";
    } catch (const Failure& failure) {
        *services.err << failure.what() << "\n";
        return failure.exitStatus();
    } catch (const Error& error) {
        *services.err << error.description() << "\n";
    } catch (const std::exception& error) {
        *services.err << error.what() << "\n";
    }
    return 1;
}

}  // namespace tavra::cli
