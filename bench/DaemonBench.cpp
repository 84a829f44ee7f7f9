// One hook event in and its reply out through the daemon: the socket, the
// daemon's serial context, the engine, its effects (the journal append
// included) and the JSON coding, as an agent's hook pays it on every tool
// call. Reports the median and the 99th percentile besides the mean.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <chrono>
#include <filesystem>
#include <future>
#include <thread>

#include "daemon/Daemon.h"
#include "kit/UnixSocket.h"

namespace {

class NoAssertion final : public tavra::IdleSleepBackend {
public:
    std::optional<std::uint32_t> take(const std::string&) override { return 1; }
    void drop(std::uint32_t) override {}
};

void hookRoundTrip(benchmark::State& state) {
    char directory[] = "/tmp/tavra-bench-XXXXXX";
    if (!::mkdtemp(directory)) {
        state.SkipWithError("mkdtemp failed");
        return;
    }
    const std::string base = directory;
    asio::io_context context;
    tavra::DaemonEnvironment environment;
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
    auto daemon = tavra::Daemon::create(context, environment);
    daemon->start();
    std::thread loop([&] { context.run(); });

    // Tool calls of one run, alternating start and finish: the run stays working.
    std::string lines[2];
    for (int i = 0; i < 2; ++i) {
        tavra::AgentEvent event{
            tavra::AgentKind::claude,
            "bench",
            i == 0 ? tavra::AgentEvent::Kind::toolStarted : tavra::AgentEvent::Kind::toolFinished,
            std::chrono::system_clock::now(),
            base,
            std::nullopt,
            tavra::ToolCall{"Edit", "Edit:a.c", true, std::nullopt},
            std::nullopt,
            std::nullopt};
        lines[i] = tavra::TavraJSON::encodeValue(tavra::DaemonRequest::hook({event}));
    }
    std::vector<double> micros;
    std::size_t n = 0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(tavra::UnixSocketClient::send(lines[n++ % 2], environment.socketPath, 5));
        micros.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }
    std::sort(micros.begin(), micros.end());
    if (!micros.empty()) {
        state.counters["p50_us"] = micros[micros.size() / 2];
        state.counters["p99_us"] = micros[micros.size() * 99 / 100];
    }

    std::promise<void> stopped;
    asio::post(context, [&] {
        daemon->shutdown("bench");
        stopped.set_value();
    });
    stopped.get_future().wait();
    context.stop();
    loop.join();
    daemon.reset();
    std::filesystem::remove_all(directory);
}
BENCHMARK(hookRoundTrip)->Unit(benchmark::kMicrosecond);

}  // namespace
