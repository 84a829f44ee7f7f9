#include "daemon/Daemon.h"

#include <asio/post.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>

#include "core/ConfigCoding.h"
#include "core/Version.h"
#include "daemon/Recovery.h"
#include "kit/DaemonClient.h"
#include "kit/LocalMachine.h"
#include "kit/LogLine.h"
#include "kit/UnixSocket.h"

namespace tavra {

namespace {

std::chrono::steady_clock::duration fromSeconds(double seconds) {
    if (!(seconds > 0)) return std::chrono::steady_clock::duration::zero();
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(seconds));
}

}  // namespace

std::shared_ptr<Daemon> Daemon::create(asio::io_context& context, DaemonEnvironment environment) {
    return std::shared_ptr<Daemon>(new Daemon(context, std::move(environment)));
}

Daemon::Daemon(asio::io_context& context, DaemonEnvironment environment)
    : context_(context),
      environment_(std::move(environment)),
      journal_(environment_.journalFile),
      timer_(context),
      saveTimer_(context) {
    if (!environment_.output) environment_.output = LogLine::write;
    if (!environment_.clock) environment_.clock = [] { return std::chrono::system_clock::now(); };
    if (!environment_.processes)
        environment_.processes =
            std::shared_ptr<const ProcessTable>(&systemProcessTable(), [](const auto*) {});
    now_ = environment_.clock();
    config_ = ConfigStore::load(environment_.configFile);
    engine_ = std::make_unique<PolicyEngine>(config_.policy, SystemSnapshot::unknown, LocalMachine::word());
    // The desk belongs to the daemon and dies with it, so it may hold `this`.
    desk_ = std::make_unique<RemoteDesk>(RemoteDesk::Owner{
        [this](Date) { return status(); },
        [this](Date since, Date) { return report(since); },
        [this](UserCommand command, Date now) {
            now_ = now;
            feed(PolicyInput::command(std::move(command)));
        },
        [this](Date) { return engine_->system().userAway(engine_->settings().awayAfterIdle); },
    });
    desk_->configure(config_.remote);
    restored_ = StateFile::load(environment_.stateFile, now_, [this](const std::string& line) { log(line); });
}

// The server goes first: no request may arrive while the rest goes away.
Daemon::~Daemon() {
    server_.reset();
    stopChannels();
}

void Daemon::wake() {
    now_ = environment_.clock();
}

void Daemon::log(const std::string& message) {
    environment_.output(LogLine::format(now_, message));
}

void Daemon::start() {
    wake();
    log("tavrad " + std::string(TavraVersion::current) + " starting");
    // A second daemon would take the socket and thaw what the first one froze.
    if (DaemonClient{environment_.socketPath}.isRunning()) throw SocketError::system("bind", EADDRINUSE);

    // Whatever a predecessor left stopped runs again before anything else.
    for (const auto& record : restored_.frozen) {
        thawRecord(*environment_.processes, record);
        log("thawed " + record.run.description() + " (pid " + std::to_string(record.root) + ") left frozen");
    }
    // Those processes run now, so their runs are no longer paused.
    for (auto& run : restored_.runs) {
        if (!run.isFrozen()) continue;
        if (!run.pauses.empty() && !run.pauses.back().resumedAt) run.pauses.back().resumedAt = now_;
        run.setStatus(RunStatus::idle, now_);
    }
    engine_->restore(std::move(restored_.runs), restored_.stayAwakeUntil, std::move(restored_.holds));
    if (!engine_->runs().empty()) log("restored " + std::to_string(engine_->runs().size()) + " run(s)");
    restored_ = {};
    dirty_ = true;

    if (environment_.exitWatcher) exits_ = environment_.exitWatcher(context_);
    if (environment_.directoryWatcher) {
        directories_ = environment_.directoryWatcher(context_, [weak = weak_from_this()](std::string root) {
            if (auto self = weak.lock()) self->filesChanged(root);
        });
    }
    if (environment_.monitor) {
        environment_.monitor->network().setOnChange([weak = weak_from_this(), &context = context_](bool) {
            asio::post(context, [weak] {
                if (auto self = weak.lock()) self->tick();
            });
        });
    }

    // The first sample and the first plan: this also tells whether the helper answers.
    applyPlan(true);
    tick();
    startChannels();

    server_ = makeDaemonServer(context_, environment_.socketPath,
                               [weak = weak_from_this()](std::string line, std::uint32_t uid,
                                                         std::shared_ptr<DaemonConnection> connection) {
                                   if (auto self = weak.lock())
                                       self->receive(line, uid, std::move(connection));
                               });
    log("listening on " + environment_.socketPath);
    saveState();
    armTimer();
    if (environment_.handleSignals) installSignals();
}

std::chrono::steady_clock::duration Daemon::nextTickDelay() const {
    const bool active =
        engine_->hasActiveWork() || engine_->plan().holdsAnything() || !desk_->pending().empty();
    auto delay = active ? environment_.activeTick : environment_.idleTick;
    if (auto deadline = desk_->nextDeadline())
        delay = std::min(delay, fromSeconds(secondsBetween(now_, *deadline)));
    return delay;
}

// A state change may call for an earlier wake-up than the one armed; a later
// one is left alone, so a busy socket never starves the rhythm.
void Daemon::armTimer() {
    if (stopped_) return;
    const auto due = std::chrono::steady_clock::now() + nextTickDelay();
    if (timerArmed_ && timer_.expiry() <= due) return;
    timerArmed_ = true;
    timer_.expires_at(due);
    timer_.async_wait([weak = weak_from_this()](const std::error_code& error) {
        if (error) return;
        auto self = weak.lock();
        if (!self) return;
        self->timerArmed_ = false;
        self->tick();
        self->armTimer();
    });
}

void Daemon::tick() {
    if (stopped_) return;
    wake();
    if (environment_.monitor) {
        auto sample =
            environment_.monitor->sample(environment_.power && environment_.power->helperReachable(), now_);
        if (sample != engine_->system()) {
            feed(PolicyInput::system(std::move(sample)));
        } else {
            feed(PolicyInput::tick());
        }
    } else {
        feed(PolicyInput::tick());
    }
    desk_->tick(now_);
    // At the idle rhythm the state is written in this same wake-up, so that
    // an idle daemon wakes once a minute and not a second time to save.
    if (nextTickDelay() >= environment_.idleTick) {
        if (saveArmed_) saveTimer_.cancel();
        saveState();
    }
}

void Daemon::installSignals() {
    // Ignored first, so that neither signal can kill the process between here
    // and the moment the signal set owns it: the thaw must always run.
    std::signal(SIGTERM, SIG_IGN);
    std::signal(SIGINT, SIG_IGN);
    signals_ = std::make_unique<asio::signal_set>(context_, SIGTERM, SIGINT);
    signals_->async_wait(
        [weak = weak_from_this(), exit = environment_.exit](const std::error_code& error, int) {
            if (error == asio::error::operation_aborted) return;
            if (auto self = weak.lock()) self->shutdown("signal");
            if (exit) exit(0);
        });
}

void Daemon::startChannels() {
    if (!environment_.channels) return;
    channels_ = environment_.channels(config_);
    for (auto& channel : channels_) {
        channel->start([weak = weak_from_this(), &context = context_](IncomingCommand command) {
            asio::post(context, [weak, command = std::move(command)] {
                if (auto self = weak.lock()) self->incoming(command);
            });
        });
        log("channel " + std::string(channel->name()) + " started");
    }
    desk_->setChannels(channels_);
}

void Daemon::stopChannels() {
    for (auto& channel : channels_) channel->stop();
    channels_.clear();
    if (desk_) desk_->setChannels({});
}

void Daemon::incoming(const IncomingCommand& command) {
    if (stopped_) return;
    wake();
    desk_->incoming(command, now_);
    armTimer();
}

void Daemon::shutdown(const std::string& reason) {
    if (stopped_) return;
    wake();
    log("stopping (" + reason + ")");
    // Held approvals go back to the keyboard, and the phone is told.
    desk_->closeAll(now_);
    server_.reset();
    thawAll();
    if (environment_.power) environment_.power->restoreDefaults();
    log("released all holds");
    stopChannels();
    dirty_ = true;
    saveState();
    stopped_ = true;
    timer_.cancel();
    saveTimer_.cancel();
    if (signals_) signals_->cancel();
    directories_.reset();
    exits_.reset();
    if (environment_.monitor) environment_.monitor->network().setOnChange({});
}

}  // namespace tavra
