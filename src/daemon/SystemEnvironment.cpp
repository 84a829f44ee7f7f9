#include <unistd.h>

#include <asio/post.hpp>
#include <asio/thread_pool.hpp>

#include <cstdio>
#include <cstdlib>
#include <system_error>

#include "core/ConfigCoding.h"
#include "daemon/DaemonEnvironment.h"
#include "kit/HelperClient.h"
#include "kit/LogLine.h"
#include "kit/Paths.h"
#include "platform/Desktop.h"
#include "platform/FileActivityMonitor.h"
#include "platform/ProcessExitWatcher.h"
#include "remote/Channels.h"

namespace tavra {

namespace {

class SystemDirectoryWatcher final : public DirectoryWatcher {
public:
    SystemDirectoryWatcher(asio::io_context& context, std::function<void(std::string)> changed)
        : monitor_(
              context, [changed = std::move(changed)](const std::string& root) { changed(root); },
              [](const std::string& message) {
                  LogLine::write(LogLine::format(std::chrono::system_clock::now(), message));
              }) {}
    void sync(const std::set<std::string>& roots) override { monitor_.sync(roots); }

private:
    FileActivityMonitor monitor_;
};

class SystemExitWatcher final : public ExitWatcher {
public:
    explicit SystemExitWatcher(asio::io_context& context) : watcher_(context) {}
    void watch(Pid pid, std::function<void()> exited) override {
        watcher_.watch(pid, [exited = std::move(exited)](Pid) { exited(); });
    }

private:
    ProcessExitWatcher watcher_;
};

// Showing a notification can block for seconds (a bus call, a tool), so it
// runs on a thread of its own, in order, never on the daemon's context.
std::function<void(const Alert&)> backgroundNotifier() {
    auto worker = std::make_shared<asio::thread_pool>(1);
    return [worker](const Alert& alert) { asio::post(*worker, [alert] { LocalNotifier::show(alert); }); };
}

}  // namespace

// A helper counts as there when its service is installed or, for one started
// by hand, when its socket exists; TAVRA_NO_HELPER=1 rules it out either way.
bool helperPresent() {
    const char* noHelper = std::getenv("TAVRA_NO_HELPER");
    if (noHelper && std::string_view(noHelper) == "1") return false;
    std::error_code error;
    return HelperClient::isInstalled() || std::filesystem::exists(TavraPaths::helperSocket(), error);
}

DaemonEnvironment DaemonEnvironment::system() {
    DaemonEnvironment environment;
    environment.socketPath = TavraPaths::daemonSocket();
    environment.configFile = TavraPaths::config();
    environment.stateFile = TavraPaths::state();
    environment.journalFile = TavraPaths::journal();
    environment.ownerUid = static_cast<std::uint32_t>(::geteuid());
    environment.output = LogLine::write;
    environment.monitor = std::make_shared<SystemMonitor>();
    environment.power = std::make_shared<PowerController>(
        HelperClient{TavraPaths::helperSocket()}, PowerController::Seams{nullptr, helperPresent, nullptr});
    environment.helperInstalled = helperPresent;
    environment.processes = std::shared_ptr<const ProcessTable>(&systemProcessTable(), [](const auto*) {});
    environment.notify = backgroundNotifier();
    environment.directoryWatcher = [](asio::io_context& context, std::function<void(std::string)> changed) {
        return std::make_shared<SystemDirectoryWatcher>(context, std::move(changed));
    };
    environment.exitWatcher = [](asio::io_context& context) {
        return std::make_shared<SystemExitWatcher>(context);
    };
    environment.channels = [](const TavraConfig& config) {
        // Called from the channels' own threads; one fwrite per line keeps
        // lines whole.
        return makeChannels(config, TavraPaths::supportDir(), [](std::string message) {
            LogLine::write(LogLine::format(std::chrono::system_clock::now(), message));
        });
    };
    environment.handleSignals = true;
    environment.exit = [](int status) {
        std::fflush(nullptr);
        std::_Exit(status);
    };
    return environment;
}

}  // namespace tavra
