#pragma once

// The resident per-user daemon: hosts the policy engine, makes its plan real
// through the power controller, carries out its effects, serves the daemon
// protocol on the user's socket and keeps the journal and the state file.
//
// Everything belongs to one serial context, an asio::io_context run by one
// thread: requests, timers, signals and what the watchers report run there
// one after another, and no lock exists. I/O threads (socket, channels,
// watchers) only post work to it. Every wake-up reads the clock once and
// hands that `now` down to the engine, the desk and the log.

// A standard header must come before Asio's: Asio picks its allocator from
// libstdc++'s configuration, and every unit has to see the same choice.
#include <cstddef>

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/Date.h"
#include "core/PolicyEngine.h"
#include "daemon/DaemonEnvironment.h"
#include "daemon/DaemonState.h"
#include "daemon/Journal.h"
#include "daemon/RemoteDesk.h"
#include "kit/Config.h"
#include "kit/DaemonProtocol.h"

namespace tavra {

class Daemon : public std::enable_shared_from_this<Daemon> {
public:
    // Reads the configuration and the state file (a damaged one is moved
    // aside) and builds the engine. Touches nothing else.
    static std::shared_ptr<Daemon> create(asio::io_context& context, DaemonEnvironment environment);
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // Thaws what a predecessor left frozen, restores the saved runs, applies
    // the first plan, starts the channels, listens on the socket (throws
    // SocketError when it cannot) and arms the timer and the signals. Call
    // before the context runs or on its thread.
    void start();

    // Thaws everything frozen, releases the assertion, asks the helper to
    // restore, stops the channels, saves the state and stops listening.
    // Idempotent. Signals end here, then `exit(0)`.
    void shutdown(const std::string& reason);

    // ---- The serial context's work, public so that tests drive it step by step.

    // One request line from a peer. Peers of another user are refused before
    // the line is decoded. The reply goes to `connection` now or, for a held
    // approval, later; nothing ever throws out of here.
    void receive(const std::string& line, std::uint32_t peerUid,
                 std::shared_ptr<DaemonConnection> connection);
    // One timer wake-up: sample the machine, feed the engine, keep the helper
    // fed, expire the desk's tickets, save what changed.
    void tick();
    // Writes the state file now if anything changed since the last write.
    // False when it could not be written (logged).
    bool saveState();
    // A write under a watched root / a watched process ended.
    void filesChanged(const std::string& root);
    void processExited(Pid pid);
    // A command from a chat channel.
    void incoming(const IncomingCommand& command);

    // When the timer next fires, given the present state (steady clock).
    std::chrono::steady_clock::duration nextTickDelay() const;

    const PolicyEngine& engine() const noexcept { return *engine_; }
    const TavraConfig& config() const noexcept { return config_; }
    const std::vector<FreezeRecord>& frozen() const noexcept { return frozen_; }
    RemoteDesk& desk() noexcept { return *desk_; }
    DaemonStatus status();

private:
    Daemon(asio::io_context& context, DaemonEnvironment environment);

    // Each wake-up of the context starts here: one reading of the clock.
    void wake();
    void log(const std::string& message);

    // Dispatch (DaemonDispatch.cpp).
    // Absent: the reply comes later (a held approval).
    std::optional<DaemonResponse> handleRequest(const DaemonRequest& request,
                                                const std::shared_ptr<DaemonConnection>& connection);
    std::optional<DaemonResponse> hook(const DaemonRequest::Hook& hook,
                                       const std::shared_ptr<DaemonConnection>& connection);
    DaemonResponse setConfig(const TavraConfig& config);
    Report report(Date since);

    // Engine and effects (DaemonEffects.cpp).
    void feed(const PolicyInput& input);
    void carryOut(const Decision& decision);
    void freeze(const RunKey& key, Pid pid);
    void thaw(const RunKey& key, Pid pid);
    void thawAll();
    void applyPlan(bool force);
    void followRuns();
    void markDirty();
    void scheduleSave();

    // Rhythm (Daemon.cpp).
    void armTimer();
    void installSignals();
    void startChannels();
    void stopChannels();

    asio::io_context& context_;
    DaemonEnvironment environment_;
    TavraConfig config_;
    std::unique_ptr<PolicyEngine> engine_;
    std::unique_ptr<RemoteDesk> desk_;
    Journal journal_;
    DaemonState restored_;
    std::vector<FreezeRecord> frozen_;
    std::vector<std::shared_ptr<Channel>> channels_;
    std::shared_ptr<DirectoryWatcher> directories_;
    std::shared_ptr<ExitWatcher> exits_;
    std::set<Pid> watchedPids_;
    Date now_{};
    PowerPlan appliedPlan_ = PowerPlan::released;
    std::optional<Date> lastHelperSend_;
    bool dirty_ = false;
    std::string lastSaved_;  // the state file as last written
    bool saveArmed_ = false;
    bool timerArmed_ = false;
    bool stopped_ = false;
    std::unique_ptr<DaemonServer> server_;
    asio::steady_timer timer_;
    asio::steady_timer saveTimer_;
    std::unique_ptr<asio::signal_set> signals_;
};

}  // namespace tavra
