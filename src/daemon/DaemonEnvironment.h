#pragma once

// Everything through which the daemon touches the world, so that tests run
// it in-process with fakes, a manual clock and temporary files.

#include <cstddef>

#include <asio/io_context.hpp>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "core/Date.h"
#include "core/Effects.h"
#include "kit/Config.h"
#include "platform/PowerController.h"
#include "platform/Processes.h"
#include "platform/Sensors.h"
#include "remote/Channel.h"

namespace tavra {

// The far end of one request. reply() is called once; onClosed() registers
// what to do when the peer hangs up while its reply is still pending (a
// transport that cannot tell never calls it). Both belong to the daemon's
// context.
class DaemonConnection {
public:
    virtual ~DaemonConnection() = default;
    virtual void reply(std::string bytes) = 0;
    virtual void onClosed(std::function<void()> closed) = 0;
};

// The listening socket. Delivers each request line on the daemon's context;
// stops listening (and unlinks the path) when destroyed.
class DaemonServer {
public:
    using Handler =
        std::function<void(std::string line, std::uint32_t peerUid, std::shared_ptr<DaemonConnection>)>;
    virtual ~DaemonServer() = default;
};

// Listens on `path` with mode 0600. Throws SocketError.
std::unique_ptr<DaemonServer> makeDaemonServer(asio::io_context& context, const std::string& path,
                                               DaemonServer::Handler handler);

// Watches run directories for writes that count (build output and
// version-control internals do not). Reports a root on the daemon's context.
class DirectoryWatcher {
public:
    virtual ~DirectoryWatcher() = default;
    // Makes the watched set equal to `roots`; missing directories are tried
    // again at the next sync.
    virtual void sync(const std::set<std::string>& roots) = 0;
};

// Tells when a process ends, on the daemon's context.
class ExitWatcher {
public:
    virtual ~ExitWatcher() = default;
    // Calls `exited` once when `pid` has ended (at once if it already has).
    virtual void watch(Pid pid, std::function<void()> exited) = 0;
};

struct DaemonEnvironment {
    std::string socketPath;
    std::filesystem::path configFile;
    std::filesystem::path stateFile;
    std::filesystem::path journalFile;
    // Only this user may talk to the daemon.
    std::uint32_t ownerUid = 0;

    std::function<Date()> clock = [] { return std::chrono::system_clock::now(); };
    // Receives each finished log line without its newline.
    std::function<void(const std::string& line)> output;

    std::shared_ptr<SystemMonitor> monitor;
    std::shared_ptr<PowerController> power;
    // For the status: whether a helper is installed at all.
    std::function<bool()> helperInstalled;
    std::shared_ptr<const ProcessTable> processes;
    // Shows an alert on this machine; never throws.
    std::function<void(const Alert&)> notify;
    std::function<std::shared_ptr<DirectoryWatcher>(asio::io_context&, std::function<void(std::string root)>)>
        directoryWatcher;
    std::function<std::shared_ptr<ExitWatcher>(asio::io_context&)> exitWatcher;
    // The chat channels the configuration asks for, not yet started.
    std::function<std::vector<std::shared_ptr<Channel>>(const TavraConfig&)> channels;

    // Rhythm: ticks while anything is active or held, and otherwise; the
    // helper hears from the daemon at least this often while it holds
    // anything (its watchdog lets go after 30 s of silence); state writes are
    // coalesced over this delay.
    std::chrono::steady_clock::duration activeTick = std::chrono::seconds(5);
    std::chrono::steady_clock::duration idleTick = std::chrono::seconds(60);
    double helperRefreshSeconds = 10.0;
    std::chrono::steady_clock::duration saveDelay = std::chrono::seconds(1);

    // Whether start() takes over SIGTERM and SIGINT; a signal shuts the
    // daemon down and then calls `exit` with status 0.
    bool handleSignals = false;
    std::function<void(int status)> exit;

    // The real machine: the user's socket and files, this platform's
    // sensors, helper client, process table and notifier, the system clock,
    // standard output, signals handled, exit through std::exit.
    static DaemonEnvironment system();
};

}  // namespace tavra
