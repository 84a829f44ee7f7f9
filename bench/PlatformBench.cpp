// The cost of the platform's blocking calls: one tool run through Shell, and
// one machine sample with the real sensors (what the daemon pays per tick).

#include <benchmark/benchmark.h>

#include <chrono>

#include "platform/LinuxSystemFiles.h"
#include "platform/Sensors.h"
#include "platform/Shell.h"

namespace {

void ShellRunTrue(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(tavra::Shell::run("/bin/true", {}, 30.0));
}
BENCHMARK(ShellRunTrue)->Unit(benchmark::kMicrosecond);

void ShellRunLargeOutput(benchmark::State& state) {
    const std::string bytes = std::to_string(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(tavra::Shell::run("/usr/bin/head", {"-c", bytes, "/dev/zero"}, 30.0));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(ShellRunLargeOutput)->Arg(1 << 20)->Arg(16 << 20)->Unit(benchmark::kMillisecond);

void DecodeUTF8(benchmark::State& state) {
    std::string text;
    while (text.size() < (1 << 20)) text += "line of tool output with caf\xC3\xA9 and \xFF junk\n";
    for (auto _ : state) benchmark::DoNotOptimize(tavra::Shell::decodeUTF8(text));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(DecodeUTF8)->Unit(benchmark::kMicrosecond);

void SystemMonitorSample(benchmark::State& state) {
    tavra::SystemMonitor monitor;
    auto now = std::chrono::system_clock::now();
    for (auto _ : state) {
        now += std::chrono::seconds(5);
        benchmark::DoNotOptimize(monitor.sample(true, now));
    }
}
BENCHMARK(SystemMonitorSample)->Unit(benchmark::kMicrosecond);

void PowerAndThermalFromSysfs(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(tavra::LinuxSystemFiles::powerSource("/"));
        benchmark::DoNotOptimize(tavra::LinuxSystemFiles::thermalLevel("/"));
    }
}
BENCHMARK(PowerAndThermalFromSysfs)->Unit(benchmark::kMicrosecond);

}  // namespace
