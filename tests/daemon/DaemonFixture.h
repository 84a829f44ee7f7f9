#pragma once

// A daemon in-process over fakes: a manual clock, a fake helper on a
// temporary socket, a recording idle-sleep backend, a made-up process table,
// recording watchers and channels, files in a temporary directory. Driven
// step by step through receive() and tick() on the test's thread; the context
// never runs, so no timer fires behind the test's back.

#include <gtest/gtest.h>

#include <asio/io_context.hpp>
#include <memory>

#include "daemon/Daemon.h"
#include "kit/AtomicFile.h"
#include "support/CorePrinters.h"
#include "support/FakeChannel.h"
#include "support/FakeHelperMachine.h"
#include "support/FakeHelperServer.h"
#include "support/FakeIdleSleepBackend.h"
#include "support/FakeProcessTable.h"
#include "support/TempDir.h"

namespace tavra {

namespace testing {

// A connection that keeps what it was answered.
class RecordingConnection final : public DaemonConnection {
public:
    std::vector<std::string> replies;
    std::function<void()> hangUp = [] {};  // the peer goes away

    void reply(std::string bytes) override { replies.push_back(std::move(bytes)); }
    void onClosed(std::function<void()> closed) override { hangUp = std::move(closed); }
    // The last reply, decoded; absent while none came.
    std::optional<DaemonResponse> response() const {
        if (replies.empty()) return std::nullopt;
        return TavraJSON::decode<DaemonResponse>(replies.back());
    }
};

// Both watchers in one: the roots of each sync, the handler for writes, and
// the callback of each watched process.
struct FakeWatchers final : DirectoryWatcher, ExitWatcher {
    std::vector<std::set<std::string>> syncs;
    std::function<void(std::string)> changed;
    std::map<Pid, std::function<void()>> processes;

    void sync(const std::set<std::string>& roots) override {
        if (syncs.empty() || syncs.back() != roots) syncs.push_back(roots);
    }
    void watch(Pid pid, std::function<void()> exited) override { processes[pid] = std::move(exited); }
    void exit(Pid pid) { std::exchange(processes.at(pid), {})(); }
};

}  // namespace testing

inline constexpr std::uint32_t kOwner = 501;
inline const RunKey kRun{AgentKind::claude, "s1"};

class DaemonFixture : public ::testing::Test {
protected:
    testing::TempDir dir;
    testing::ManualClock clock;
    testing::LogCapture logs;
    testing::FakeHelperServer helper{(dir / "helper.sock").string()};
    std::shared_ptr<testing::IdleSleepLog> assertion = std::make_shared<testing::IdleSleepLog>();
    std::shared_ptr<testing::FakeProcessTable> processes = std::make_shared<testing::FakeProcessTable>();
    std::shared_ptr<testing::FakeWatchers> watchers = std::make_shared<testing::FakeWatchers>();
    std::vector<std::string> notifications;  // ids of local notifications
    std::size_t heardFromHelper = 0;
    asio::io_context context;
    std::shared_ptr<Daemon> daemon;

    DaemonEnvironment environment() {
        DaemonEnvironment env;
        env.socketPath = (dir / "d.sock").string();
        env.configFile = dir / "config.json";
        env.stateFile = dir / "state.json";
        env.journalFile = dir / "journal.jsonl";
        env.ownerUid = kOwner;
        env.clock = clock.function();
        env.output = logs.sink();
        SensorSet sensors;
        sensors.powerSource = [] { return PowerSourceSensor::Reading{PowerSource::ac, std::nullopt}; };
        env.monitor = std::make_shared<SystemMonitor>(std::move(sensors), nullptr);
        env.power = std::make_shared<PowerController>(
            HelperClient{(dir / "helper.sock").string()},
            PowerController::Seams{std::make_unique<testing::RecordingIdleSleepBackend>(assertion),
                                   [] { return true; }, [] {}});
        env.processes = processes;
        env.notify = [this](const Alert& alert) { notifications.push_back(alert.id); };
        env.directoryWatcher = [this](asio::io_context&, std::function<void(std::string)> changed) {
            watchers->changed = std::move(changed);
            return watchers;
        };
        env.exitWatcher = [this](asio::io_context&) { return watchers; };
        env.channels = [](const TavraConfig& config) {
            if (!config.remote.ntfy.isConfigured()) return std::vector<std::shared_ptr<Channel>>{};
            return std::vector<std::shared_ptr<Channel>>{std::make_shared<testing::FakeChannel>("ntfy")};
        };
        return env;
    }

    // One channel that looks reachable, alerts sent always.
    static TavraConfig remoteConfig() {
        return TavraJSON::decode(R"({"remote":{"notifyWhen":"always","ntfy":{"enabled":true,"topic":"t"}}})",
                                 TavraConfig{});
    }

    // Creates and starts the daemon, then forgets what the start did.
    void startDaemon() {
        daemon = Daemon::create(context, environment());
        daemon->start();
        forget();
    }
    void forget() {
        logs.clear();
        notifications.clear();
        watchers->syncs.clear();
        heardFromHelper = helper.requests().size();
    }

    std::shared_ptr<testing::RecordingConnection> send(const DaemonRequest& request) {
        auto connection = std::make_shared<testing::RecordingConnection>();
        daemon->receive(TavraJSON::encodeValue(request), kOwner, connection);
        return connection;
    }
    DaemonResponse ask(const DaemonRequest& request) {
        return send(request)->response().value_or(DaemonResponse::error("no reply"));
    }

    static AgentEvent event(AgentEvent::Kind kind, std::optional<std::string> cwd = "/w/proj",
                            std::optional<Pid> pid = 700, const RunKey& key = kRun) {
        return AgentEvent{key.agent, key.session, kind, {}, std::move(cwd), pid, {}, {}, {}};
    }

    // Helper requests since the last forget().
    std::vector<HelperRequest> helperRequests() {
        auto all = helper.requests();
        return {all.begin() + static_cast<std::ptrdiff_t>(heardFromHelper), all.end()};
    }
    std::vector<JournalEntry::Kind> journalKinds() {
        std::vector<JournalEntry::Kind> kinds;
        for (const auto& entry : Journal(dir / "journal.jsonl").read()) kinds.push_back(entry.kind);
        return kinds;
    }
    std::optional<DaemonState> savedState() {
        auto bytes = readWholeFile(dir / "state.json");
        return bytes ? std::optional(TavraJSON::decode<DaemonState>(*bytes)) : std::nullopt;
    }
};

}  // namespace tavra
