#include "helper/Helper.h"

#include <asio/post.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "core/ConfigCoding.h"
#include "core/Text.h"
#include "core/Version.h"
#include "kit/LogLine.h"
#include "kit/Paths.h"

namespace tavra {

namespace {

std::string formatUIDs(const std::set<std::uint32_t>& uids) {
    std::vector<std::string> parts;
    for (auto uid : uids) parts.push_back(std::to_string(uid));
    // Appended rather than "[" + ...: GCC 12 misreads that form under -O3
    // as an overlapping copy (-Wrestrict).
    std::string text = "[";
    text += Text::join(parts, ", ");
    text += ']';
    return text;
}

}  // namespace

std::shared_ptr<Helper> Helper::create(asio::io_context& context, std::set<std::uint32_t> allowedUIDs,
                                       HelperEnvironment environment) {
    return std::shared_ptr<Helper>(new Helper(context, std::move(allowedUIDs), std::move(environment)));
}

Helper::Helper(asio::io_context& context, std::set<std::uint32_t> allowedUIDs, HelperEnvironment environment)
    : context_(context),
      allowedUIDs_(std::move(allowedUIDs)),
      environment_(std::move(environment)),
      timer_(context) {
    allowedUIDs_.insert(0);
    if (!environment_.output) environment_.output = LogLine::write;
    if (!environment_.clock) environment_.clock = [] { return std::chrono::system_clock::now(); };
    now_ = environment_.clock();
}

// The server goes first: its I/O threads are joined before the rest of the
// helper disappears, and its handlers only ever hold the helper weakly.
Helper::~Helper() {
    server_.reset();
}

void Helper::wake() {
    now_ = environment_.clock();
}

void Helper::log(const std::string& message) {
    environment_.output(LogLine::format(now_, message));
}

void Helper::start() {
    wake();
    log("tavra-helper " + std::string(TavraVersion::current) + " starting; allowed uids " +
        formatUIDs(allowedUIDs_));
    if (environment_.machine) {
        environment_.machine->attachLog([weak = weak_from_this()](const std::string& message) {
            if (auto self = weak.lock()) self->log(message);
        });
    }

    // Whatever a crashed predecessor left behind is undone before anyone can
    // connect.
    restoreDefaults("launch");

    // World-writable on purpose: who may talk is decided per request from the
    // peer's user ID, not by the file's mode.
    auto server = std::make_unique<UnixSocketServer>(
        environment_.socketPath, static_cast<std::uint16_t>(0666),
        [weak = weak_from_this(), &context = context_](std::string line, std::uint32_t uid,
                                                       UnixSocketServer::Reply reply) {
            // Only a weak reference may travel: the I/O thread must never end
            // up owning (and destroying) the helper.
            if (weak.expired()) return;
            asio::post(context, [weak, line = std::move(line), uid, reply = std::move(reply)] {
                auto self = weak.lock();
                if (!self) return;
                reply(self->respond(line, uid));
            });
        },
        environment_.socketTimeout);
    server->start();
    server_ = std::move(server);

    timer_.expires_at(std::chrono::steady_clock::now());
    armTimer();
    if (environment_.handleSignals) installSignals();
}

// Ticks are not caught up: after a stall the next one is a full interval away.
void Helper::armTimer() {
    auto next = timer_.expiry() + environment_.tickInterval;
    auto steadyNow = std::chrono::steady_clock::now();
    if (next <= steadyNow) next = steadyNow + environment_.tickInterval;
    timer_.expires_at(next);
    timer_.async_wait([weak = weak_from_this()](const std::error_code& error) {
        if (error) return;
        auto self = weak.lock();
        if (!self) return;
        self->tick();
        self->armTimer();
    });
}

void Helper::installSignals() {
    // Ignored first, so that neither signal can kill the process between here
    // and the moment the signal set owns it: the restore must always run.
    std::signal(SIGTERM, SIG_IGN);
    std::signal(SIGINT, SIG_IGN);
    signals_ = std::make_unique<asio::signal_set>(context_, SIGTERM, SIGINT);
    signals_->async_wait(
        [weak = weak_from_this(), exit = environment_.exit](const std::error_code& error, int) {
            if (error == asio::error::operation_aborted) return;
            if (auto self = weak.lock()) {
                self->wake();
                self->restoreDefaults("signal");
            }
            if (exit) exit(0);
        });
}

std::string Helper::respond(const std::string& line, std::uint32_t peerUid) {
    wake();
    HelperResponse response = HelperResponse::error("forbidden");
    if (allowedUIDs_.contains(peerUid)) {
        std::optional<HelperRequest> request;
        try {
            request = TavraJSON::decode<HelperRequest>(line);
        } catch (const std::exception&) {
            // Rubbish is refused and does not count as a heartbeat.
        }
        response = request ? handle(*request) : HelperResponse::error("bad request");
    }
    try {
        return TavraJSON::encodeValue(response);
    } catch (const std::exception&) {
        return {};
    }
}

void Helper::tick() {
    wake();
    watchdog();
}

HelperResponse Helper::handle(const HelperRequest& request) {
    // Any accepted request is a heartbeat, restoreDefaults included.
    lastHeartbeat_ = now_;
    struct Carry {
        Helper& helper;
        void operator()(const HelperRequest::Heartbeat&) const {}
        void operator()(const HelperRequest::Apply& c) const { helper.apply(c.plan); }
        void operator()(const HelperRequest::SleepNow&) const {
            helper.apply(HelperPlan::released);
            if (helper.environment_.machine) helper.environment_.machine->sleepNow();
        }
        void operator()(const HelperRequest::RestoreDefaults&) const { helper.restoreDefaults("requested"); }
    };
    std::visit(Carry{*this}, request.value);
    return HelperResponse::ok(
        HelperStatus{std::string(TavraVersion::current), plan_, watchdogTimeout, lastHeartbeat_});
}

HelperEnvironment HelperEnvironment::system() {
    HelperEnvironment environment;
    environment.socketPath = TavraPaths::helperSocket();
    environment.stateDir = TavraPaths::helperStateDir();
    environment.machine = makeSystemMachine();
    environment.sensors = makeSystemSensors();
    environment.output = LogLine::write;
    environment.handleSignals = true;
    environment.exit = [](int status) {
        std::fflush(nullptr);
        std::_Exit(status);
    };
    return environment;
}

}  // namespace tavra
