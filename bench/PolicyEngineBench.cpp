// Cost of PolicyEngine::handle per input for a realistic mix of inputs with
// 1, 10 and 100 live runs: tool calls with occasional file writes, prompts
// and turn ends, file progress, timer ticks and machine samples, one second
// apart. Time per input should grow linearly with the number of runs.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "core/PolicyEngine.h"

namespace tavra {
namespace {

constexpr double kStart = 1740821400;

SystemSnapshot acMachine() {
    SystemSnapshot s = SystemSnapshot::unknown;
    s.powerSource = PowerSource::ac;
    s.helperAvailable = true;
    s.batteryPercent = 90;
    return s;
}

RunKey keyOf(int i) {
    static const char* agents[] = {"claude", "codex", "grok"};
    return RunKey{AgentKind{agents[i % 3]}, "session-" + std::to_string(i)};
}

AgentEvent eventFor(int run, AgentEvent::Kind kind) {
    RunKey key = keyOf(run);
    AgentEvent e;
    e.agent = key.agent;
    e.sessionID = key.session;
    e.kind = kind;
    e.cwd = "/Users/me/projects/project-" + std::to_string(run);
    e.pid = 1000 + run;
    return e;
}

// One cycle of inputs; every run gets a turn of tool calls across it.
std::vector<PolicyInput> mix(int runs) {
    std::vector<PolicyInput> inputs;
    using K = AgentEvent::Kind;
    for (int round = 0; round < 8; ++round) {
        for (int r = 0; r < runs; ++r) {
            if (round == 0) inputs.push_back(PolicyInput::agent(eventFor(r, K::promptSubmitted)));
            AgentEvent start = eventFor(r, K::toolStarted);
            const bool writes = round % 3 == 2;
            start.tool =
                ToolCall{writes ? "Edit" : "Bash", "call-" + std::to_string(round), writes, std::nullopt};
            inputs.push_back(PolicyInput::agent(start));
            AgentEvent finish = start;
            finish.kind = K::toolFinished;
            inputs.push_back(PolicyInput::agent(finish));
            if (round == 4) inputs.push_back(PolicyInput::progress(keyOf(r)));
            if (round == 7) {
                AgentEvent stop = eventFor(r, K::turnStopped);
                stop.message = "Refactored the parser and all tests pass.";
                inputs.push_back(PolicyInput::agent(stop));
            }
            if (r % 4 == 0) inputs.push_back(PolicyInput::tick());
        }
        inputs.push_back(PolicyInput::system(acMachine()));
    }
    return inputs;
}

void BM_HandleMix(benchmark::State& state) {
    const int runs = static_cast<int>(state.range(0));
    const std::vector<PolicyInput> inputs = mix(runs);
    PolicyEngine engine(PolicySettings::defaults, acMachine(), kComputerWord);
    double t = 0;
    // Warm up so that every run exists before measuring.
    for (const auto& input : inputs) engine.handle(input, dateFromEpochSeconds(kStart + (t += 1)));

    std::size_t i = 0;
    std::size_t effects = 0;
    for (auto _ : state) {
        Decision d = engine.handle(inputs[i], dateFromEpochSeconds(kStart + (t += 1)));
        effects += d.effects.size();
        benchmark::DoNotOptimize(d);
        if (++i == inputs.size()) i = 0;
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["runs"] = static_cast<double>(engine.runs().size());
    state.counters["effects/input"] =
        benchmark::Counter(static_cast<double>(effects), benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_HandleMix)->Arg(1)->Arg(10)->Arg(100);

// The standing pass alone: a tick with N working runs and nothing to do.
void BM_HandleTick(benchmark::State& state) {
    const int runs = static_cast<int>(state.range(0));
    PolicyEngine engine(PolicySettings::defaults, acMachine(), kComputerWord);
    double t = 0;
    for (int r = 0; r < runs; ++r)
        engine.handle(PolicyInput::agent(eventFor(r, AgentEvent::Kind::promptSubmitted)),
                      dateFromEpochSeconds(kStart + (t += 0.001)));
    const PolicyInput tick = PolicyInput::tick();
    for (auto _ : state) {
        // Time stays well inside every guard's limit, so nothing trips.
        Decision d = engine.handle(tick, dateFromEpochSeconds(kStart + (t += 0.001)));
        benchmark::DoNotOptimize(d);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_HandleTick)->Arg(1)->Arg(10)->Arg(100);

}  // namespace
}  // namespace tavra
