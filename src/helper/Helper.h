#pragma once

// The root helper: owns lid sleep and the automatic update setting, takes
// orders from one Unix socket and restores the machine whenever nobody keeps
// asking.
//
// All state belongs to one serial context, an asio::io_context run by one
// thread: requests, watchdog ticks and signals run there one after another,
// and no lock exists. Socket handlers, the timer and the signal set hold the
// Helper weakly. Every wake-up reads the clock once; that `now` stamps the
// heartbeat, the age the watchdog measures and the log lines of the wake-up.

// A standard header must come before Asio's: Asio picks its allocator from
// libstdc++'s configuration, and every unit has to see the same choice.
#include <cstddef>

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "core/Date.h"
#include "helper/Machine.h"
#include "kit/HelperProtocol.h"
#include "kit/UnixSocket.h"

namespace tavra {

// Everything through which the helper touches the world, so that tests run
// it in-process with fakes, a fake clock and a temporary socket.
struct HelperEnvironment {
    std::string socketPath;
    std::filesystem::path stateDir;
    std::shared_ptr<Machine> machine;
    std::shared_ptr<HelperSensors> sensors;
    std::function<Date()> clock = [] { return std::chrono::system_clock::now(); };
    // Receives each finished log line without its newline.
    std::function<void(const std::string& line)> output;
    // Interval of the watchdog timer.
    std::chrono::steady_clock::duration tickInterval = std::chrono::seconds(5);
    // Whether start() takes over SIGTERM and SIGINT. A signal restores the
    // machine and then calls `exit` with status 0.
    bool handleSignals = false;
    std::function<void(int status)> exit;
    // Per-read/per-write time-out of accepted connections.
    double socketTimeout = UnixSocketLimits::kServerTimeout;

    // The real machine: the fixed socket and state directory, this
    // platform's machine and sensors, the system clock, standard output,
    // signals handled, exit through std::exit.
    static HelperEnvironment system();
};

class Helper : public std::enable_shared_from_this<Helper> {
public:
    // A held plan is dropped when no request came for longer than this.
    static constexpr double watchdogTimeout = 30.0;
    // At or below this charge on battery, lid sleep may not stay disabled.
    static constexpr int hardBatteryFloor = 7;
    static constexpr const char* kStateFileName = "helper-state.json";

    // The state file: what the update setting was before the first deferral.
    // Absent: nothing deferred. "absent": the setting did not exist.
    struct State {
        std::optional<std::string> originalAutoInstall;
        bool operator==(const State&) const = default;
    };

    // Root (0) is always allowed. Touches nothing on the machine.
    static std::shared_ptr<Helper> create(asio::io_context& context, std::set<std::uint32_t> allowedUIDs,
                                          HelperEnvironment environment);
    ~Helper();
    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;

    // Logs the start, restores the machine ("launch"), listens on the socket
    // and arms the watchdog timer and the signals. Throws SocketError, after
    // the restore, when the socket cannot be set up. Call it before the
    // context runs or from the context's own thread.
    void start();

    // The serial context's work, public so that the loop can be driven step
    // by step. Call only on the context's thread (or while nothing runs it).
    //
    // One socket request: "forbidden" for a peer that is not allowed (the
    // line is not even decoded), "bad request" for a line that does not
    // decode, else the status after handle(). Returns the encoded reply.
    std::string respond(const std::string& line, std::uint32_t peerUid);
    // One watchdog tick, as the timer runs it.
    void tick();

    const HelperPlan& plan() const noexcept { return plan_; }
    const std::optional<Date>& lastHeartbeat() const noexcept { return lastHeartbeat_; }
    const std::set<std::uint32_t>& allowedUIDs() const noexcept { return allowedUIDs_; }
    std::filesystem::path stateFile() const { return environment_.stateDir / kStateFileName; }

private:
    Helper(asio::io_context& context, std::set<std::uint32_t> allowedUIDs, HelperEnvironment environment);

    // Each wake-up of the context starts here: one reading of the clock.
    void wake();

    HelperResponse handle(const HelperRequest& request);
    void log(const std::string& message);
    void armTimer();
    void installSignals();

    // Machine control (HelperMachine.cpp).
    std::optional<std::string> hardKillReason();
    void apply(const HelperPlan& requested);
    void watchdog();
    void restoreDefaults(const std::string& reason);
    void setUpdateDeferral(bool on);
    std::optional<State> loadState() const;
    void saveState(const State& state);

    asio::io_context& context_;
    std::set<std::uint32_t> allowedUIDs_;
    HelperEnvironment environment_;
    HelperPlan plan_ = HelperPlan::released;
    std::optional<Date> lastHeartbeat_;
    Date now_{};
    std::unique_ptr<UnixSocketServer> server_;
    asio::steady_timer timer_;
    std::unique_ptr<asio::signal_set> signals_;
};

// JSON of the state file.
void to_json(Json& j, const Helper::State& state);
void from_json(const Json& j, Helper::State& state);

}  // namespace tavra
