// One hook event in and its reply out through the daemon: the socket, the
// daemon's serial context, the engine, its effects (the journal append
// included) and the JSON coding, as an agent's hook pays it on every tool
// call. Reports the median and the 99th percentile besides the mean.
// Then bursts: 1,000 hook connections open at once, and 200 approvals held
// open at once (with the process's thread count while they are held).

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <algorithm>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <chrono>
#include <filesystem>
#include <future>

#include <cstring>
#include <thread>

#include "daemon/Daemon.h"
#include "kit/UnixSocket.h"

namespace {

class NoAssertion final : public tavra::IdleSleepBackend {
public:
    std::optional<std::uint32_t> take(const std::string&) override { return 1; }
    void drop(std::uint32_t) override {}
};

class NullChannel final : public tavra::Channel {
public:
    std::string_view name() const noexcept override { return "ntfy"; }
    void start(Sink) override {}
    void stop() override {}
    void deliverAlert(const tavra::Alert&) override {}
    void deliver(const tavra::RemoteReply&, const std::string&) override {}
    void reply(const tavra::RemoteReply&, const tavra::ChannelOrigin&) override {}
    void stamp(const std::string&, const std::string&) override {}
    bool flush(double) override { return true; }
};

// A daemon on its own thread, in a temporary directory, without a helper.
struct RunningDaemon {
    std::string base;
    asio::io_context context;
    tavra::DaemonEnvironment environment;
    std::shared_ptr<tavra::Daemon> daemon;
    std::thread loop;

    explicit RunningDaemon(bool remote) {
        char directory[] = "/tmp/tavra-bench-XXXXXX";
        base = ::mkdtemp(directory) ? directory : "/tmp";
        environment.socketPath = base + "/d.sock";
        environment.configFile = base + "/config.json";
        environment.stateFile = base + "/state.json";
        environment.journalFile = base + "/journal.jsonl";
        environment.ownerUid = static_cast<std::uint32_t>(::geteuid());
        environment.output = [](const std::string&) {};
        environment.monitor = std::make_shared<tavra::SystemMonitor>(tavra::SensorSet{}, nullptr);
        environment.power = std::make_shared<tavra::PowerController>(
            tavra::HelperClient{base + "/none.sock"},
            tavra::PowerController::Seams{std::make_unique<NoAssertion>(), [] { return false; }, [] {}});
        if (remote) {
            tavra::TavraConfig config;
            config.remote.ntfy.enabled = true;
            config.remote.ntfy.topic = "bench";
            config.remote.notifyWhen = tavra::RemoteSettings::NotifyWhen::always;
            tavra::ConfigStore::save(config, environment.configFile);
            environment.channels = [](const tavra::TavraConfig&) {
                return std::vector<std::shared_ptr<tavra::Channel>>{std::make_shared<NullChannel>()};
            };
        }
        daemon = tavra::Daemon::create(context, environment);
        daemon->start();
        loop = std::thread([this] { context.run(); });
    }
    ~RunningDaemon() {
        std::promise<void> stopped;
        asio::post(context, [&] {
            daemon->shutdown("bench");
            stopped.set_value();
        });
        stopped.get_future().wait();
        context.stop();
        loop.join();
        daemon.reset();
        std::filesystem::remove_all(base);
    }
};

std::string hookLine(const std::string& session, tavra::AgentEvent::Kind kind, const std::string& cwd,
                     std::optional<tavra::ApprovalTicket> ticket = std::nullopt) {
    tavra::AgentEvent event{
        tavra::AgentKind::claude, session, kind, std::chrono::system_clock::now(), cwd, {}, {}, {}, {}};
    event.tool = tavra::ToolCall{"Edit", "Edit:a.c", true, std::nullopt};
    return tavra::TavraJSON::encodeValue(tavra::DaemonRequest::hook({event}, std::move(ticket)));
}

void hookRoundTrip(benchmark::State& state) {
    RunningDaemon running(false);
    // Tool calls of one run, alternating start and finish: the run stays working.
    const std::string lines[2] = {hookLine("bench", tavra::AgentEvent::Kind::toolStarted, running.base),
                                  hookLine("bench", tavra::AgentEvent::Kind::toolFinished, running.base)};
    std::vector<double> micros;
    std::size_t n = 0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(
            tavra::UnixSocketClient::send(lines[n++ % 2], running.environment.socketPath, 5));
        micros.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }
    std::sort(micros.begin(), micros.end());
    if (!micros.empty()) {
        state.counters["p50_us"] = micros[micros.size() / 2];
        state.counters["p99_us"] = micros[micros.size() * 99 / 100];
    }
}
BENCHMARK(hookRoundTrip)->Unit(benchmark::kMicrosecond);

// Opens `lines.size()` connections, writes every line, then waits for every
// reply (or for `waitSeconds`). Returns the replies that came.
std::size_t burst(const std::string& path, const std::vector<std::string>& lines, double waitSeconds,
                  const std::function<void()>& whileOpen = {}) {
    std::vector<int> fds;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    for (const auto& line : lines) {
        int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        while (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
            std::this_thread::sleep_for(std::chrono::microseconds(100));  // the backlog is full
        std::string withNewline = line + "\n";
        (void)!::write(fd, withNewline.data(), withNewline.size());
        fds.push_back(fd);
    }
    if (whileOpen) whileOpen();
    std::size_t answered = 0;
    std::vector<pollfd> polls;
    for (int fd : fds) polls.push_back({fd, POLLIN, 0});
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(waitSeconds);
    while (answered < fds.size() && std::chrono::steady_clock::now() < deadline) {
        if (::poll(polls.data(), polls.size(), 50) <= 0) continue;
        for (auto& p : polls) {
            if (p.fd < 0 || !(p.revents & (POLLIN | POLLHUP))) continue;
            char buffer[4096];
            if (::read(p.fd, buffer, sizeof(buffer)) > 0) ++answered;
            ::close(p.fd);
            p.fd = -1;
        }
    }
    for (auto& p : polls)
        if (p.fd >= 0) ::close(p.fd);
    return answered;
}
// A prefix plus a number; the plain concatenation makes GCC 12 misread a copy at -O3 (-Wrestrict).
std::string numbered(char prefix, int i) {
    std::string text(1, prefix);
    text += std::to_string(i);
    return text;
}

std::size_t threadCount() {
    std::size_t n = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++n;
    return n;
}

void thousandHooksAtOnce(benchmark::State& state) {
    RunningDaemon running(false);
    std::vector<std::string> lines;
    for (int i = 0; i < 1000; ++i)
        lines.push_back(hookLine(numbered('s', i % 50), tavra::AgentEvent::Kind::toolStarted, running.base));
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        state.counters["answered"] = static_cast<double>(burst(running.environment.socketPath, lines, 10));
        state.counters["seconds"] =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
}
BENCHMARK(thousandHooksAtOnce)->Unit(benchmark::kMillisecond)->Iterations(3);

void twoHundredApprovalsHeld(benchmark::State& state) {
    for (auto _ : state) {
        RunningDaemon running(true);
        std::vector<std::string> lines;
        for (int i = 0; i < 200; ++i) {
            const std::string session = numbered('s', i);
            lines.push_back(hookLine(session, tavra::AgentEvent::Kind::permissionRequested, running.base,
                                     tavra::ApprovalTicket{numbered('t', i),
                                                           {tavra::AgentKind::claude, session},
                                                           "Bash",
                                                           "make",
                                                           running.base,
                                                           std::nullopt}));
        }
        const std::size_t threadsBefore = threadCount();
        std::size_t held = 0, threadsHeld = 0;
        // Held: nothing comes back within a second; then the daemon stops and hands them all back.
        burst(running.environment.socketPath, lines, 1.0, [&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
            std::promise<std::size_t> pending;
            asio::post(running.context,
                       [&] { pending.set_value(running.daemon->status().pendingApprovals.size()); });
            held = pending.get_future().get();
            threadsHeld = threadCount();
        });
        state.counters["held"] = static_cast<double>(held);
        state.counters["threads_before"] = static_cast<double>(threadsBefore);
        state.counters["threads_while_held"] = static_cast<double>(threadsHeld);
    }
}
BENCHMARK(twoHundredApprovalsHeld)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace
