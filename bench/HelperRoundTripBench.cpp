// Speed of one helper exchange: a heartbeat through the real socket layer,
// the helper's serial context and the JSON coding, as the daemon pays it
// every few seconds; and the request decoder alone.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <asio/io_context.hpp>
#include <filesystem>
#include <thread>

#include "helper/Helper.h"
#include "kit/HelperClient.h"

namespace {

class QuietSensors : public tavra::HelperSensors {
public:
    bool thermalCritical() override { return false; }
    tavra::PowerReading power() override { return {}; }
    bool lidClosed() override { return false; }
};

void heartbeatRoundTrip(benchmark::State& state) {
    char directory[] = "/tmp/tavra-bench-XXXXXX";
    if (!::mkdtemp(directory)) {
        state.SkipWithError("mkdtemp failed");
        return;
    }
    asio::io_context context;
    tavra::HelperEnvironment environment;
    environment.socketPath = std::string(directory) + "/h.sock";
    environment.stateDir = std::string(directory) + "/state";
    environment.sensors = std::make_shared<QuietSensors>();
    environment.output = [](const std::string&) {};
    auto helper = tavra::Helper::create(context, {}, environment);
    helper->start();
    auto guard = asio::make_work_guard(context);
    std::thread loop([&] { context.run(); });

    tavra::HelperClient client{environment.socketPath};
    for (auto _ : state) benchmark::DoNotOptimize(client.send(tavra::HelperRequest::heartbeat(), 5));

    guard.reset();
    context.stop();
    loop.join();
    helper.reset();
    std::filesystem::remove_all(directory);
}
BENCHMARK(heartbeatRoundTrip)->Unit(benchmark::kMicrosecond);

void decodeApply(benchmark::State& state) {
    const std::string line = R"({"apply":{"_0":{"deferOSUpdates":true,"disableLidSleep":true}}})";
    for (auto _ : state) benchmark::DoNotOptimize(tavra::TavraJSON::decode<tavra::HelperRequest>(line));
}
BENCHMARK(decodeApply);

}  // namespace
