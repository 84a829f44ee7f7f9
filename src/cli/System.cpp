// The command line's seams on the running machine.

#include <iostream>
#include <thread>

#include "cli/Commands.h"
#include "kit/DaemonClient.h"
#include "kit/HelperClient.h"
#include "kit/Paths.h"
#include "platform/Desktop.h"
#include "remote/HttpClient.h"

namespace tavra::cli {

Services systemServices(std::ostream& out, std::ostream& err) {
    Services services;
    services.send = [](const DaemonRequest& request, double timeout) {
        return DaemonClient{TavraPaths::daemonSocket()}.send(request, timeout);
    };
    services.openTerminal = [](const std::string& command, const std::string& name) {
        TerminalLauncher::open(command, name);
    };
    services.installerSystem = [] { return InstallerSystem::current(); };
    services.systemChecks = [] { return SystemChecks::services(); };
    services.helperAnswers = [] {
        try {
            HelperClient{}.send(HelperRequest::heartbeat(), 3.0);
            return true;
        } catch (const std::exception&) {
            return false;
        }
    };
    services.now = [] { return std::chrono::system_clock::now(); };
    services.sleep = [](double seconds) {
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    };
    services.home = TavraPaths::home();
    services.configFile = TavraPaths::config();
    services.logFile = TavraPaths::logsDir() / "tavrad.log";
    services.executableDir = TavraPaths::executableDir();
    services.installDir = TavraPaths::installDir();
    services.daemonStartCommand = DaemonInstaller::startCommand();
    services.http = [] { return makeCurlHttpClient(); };
    services.in = &std::cin;
    services.out = &out;
    services.err = &err;
    return services;
}

}  // namespace tavra::cli
