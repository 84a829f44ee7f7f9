#pragma once

// What `tavra` does with a request, over seams that tests replace: the
// daemon's socket, the terminal launcher, the installers' system, the clock
// and the two output streams.

#include <filesystem>
#include <functional>
#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "cli/CommandLine.h"
#include "core/Date.h"
#include "kit/DaemonProtocol.h"
#include "platform/Installers.h"
#include "platform/SystemChecks.h"
#include "remote/HttpClient.h"

namespace tavra::cli {

struct Services {
    // One exchange with the daemon, as DaemonClient::send: throws
    // SocketError when no daemon answers.
    std::function<DaemonResponse(const DaemonRequest&, double timeout)> send;
    // Opens a command in a new terminal window; throws tavra::Error.
    std::function<void(const std::string& command, const std::string& name)> openTerminal;
    std::function<InstallerSystem()> installerSystem;
    std::function<std::vector<SystemCheck>()> systemChecks;
    // The root helper answers on its socket.
    std::function<bool()> helperAnswers;
    std::function<Date()> now;
    std::function<void(double seconds)> sleep;

    std::filesystem::path home;           // the agents' configuration lives below it
    std::filesystem::path configFile;     // used while the daemon is not running
    std::filesystem::path logFile;        // the daemon's log
    std::filesystem::path executableDir;  // where this tavra was started from
    std::filesystem::path installDir;     // where setup puts the command-line tools
    std::string daemonStartCommand;       // for the "not running" sentence

    // The chat services' transport, for pairing a phone.
    std::function<std::shared_ptr<HttpClient>()> http;

    std::istream* in = nullptr;
    std::ostream* out = nullptr;
    std::ostream* err = nullptr;
};

// The system's own seams: the daemon's socket, Desktop's terminal launcher,
// Shell, TavraPaths and the real clock.
Services systemServices(std::ostream& out, std::ostream& err);

// Carries out one request; the process's exit status (0 done, 1 failed).
// Never throws.
int execute(const Request& request, Services& services);

// `tavra run`: the child's exit status, or 128 + its signal. Exposed for the
// entry point, which hands it argv untouched.
int runHolding(const Request& request, Services& services);

// The sentence for a daemon that does not answer.
std::string notRunningSentence(const Services& services);

}  // namespace tavra::cli
