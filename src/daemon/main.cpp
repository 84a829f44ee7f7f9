// Entry point of tavrad, the per-user daemon. `tavrad --recover` only undoes
// what a daemon left behind (frozen processes, holds) and exits, for a
// service manager to run after any stop. Otherwise it ends through
// SIGTERM/SIGINT (status 0, everything restored) or a failed start (status 1).

#include <sys/resource.h>

#include <cstdio>
#include <exception>
#include <string>
#include <string_view>

#include "core/ConfigCoding.h"
#include "core/Error.h"
#include "daemon/Daemon.h"
#include "daemon/Recovery.h"
#include "kit/LogLine.h"

namespace {

void say(const std::string& message) {
    tavra::LogLine::write(tavra::LogLine::format(std::chrono::system_clock::now(), message));
}

// Every held approval keeps its hook's connection open, and desktops often
// start user services with a soft limit of 1024 descriptors: take what the
// hard limit allows.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

}  // namespace

int main(int argc, char** argv) {
    bool recoverOnly = false;
    for (int i = 1; i < argc; ++i) {
        if (std::string_view(argv[i]) == "--recover") {
            recoverOnly = true;
        } else {
            std::printf("usage: tavrad [--recover]\n");
            return 2;
        }
    }
    try {
        auto environment = tavra::DaemonEnvironment::system();
        if (recoverOnly) {
            say("tavrad recovering");
            tavra::recover(environment.stateFile, *environment.processes, *environment.power,
                           std::chrono::system_clock::now(), say);
            return 0;
        }
        raiseDescriptorLimit();
        asio::io_context context;
        auto daemon = tavra::Daemon::create(context, std::move(environment));
        daemon->start();
        try {
            // The timer keeps the context busy for the life of the process.
            context.run();
        } catch (const std::exception& error) {
            // Whatever went wrong, nothing frozen or held may outlive us.
            say(std::string("tavrad failed: ") + error.what());
            daemon->shutdown("failure");
            return 1;
        }
    } catch (const tavra::Error& error) {
        say("tavrad failed to start: " + error.description());
        return 1;
    } catch (const std::exception& error) {
        say(std::string("tavrad failed to start: ") + error.what());
        return 1;
    }
    return 0;
}
