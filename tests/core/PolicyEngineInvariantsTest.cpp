// Long random input sequences (seeded, so every failure replays) against the
// properties that must hold after every single input.

#include <gtest/gtest.h>

#include <random>
#include <set>

#include "EngineTesting.h"

namespace tavra {
namespace {

using namespace testing_engine;

class RandomInputs {
public:
    explicit RandomInputs(std::uint32_t seed) : rng_(seed) {}

    double nextTime(double t) {
        // Mostly forward, sometimes a clock set back.
        if (chance(0.05)) return t - uniform(0, 30);
        return t + uniform(0, 60);
    }

    PolicyInput next(double t) {
        int pick = integer(0, 99);
        if (pick < 55) return PolicyInput::agent(agentEvent());
        if (pick < 67) return PolicyInput::system(snapshot());
        if (pick < 80) return PolicyInput::tick();
        if (pick < 85) return PolicyInput::progress(key());
        if (pick < 88) return PolicyInput::processExited(key());
        if (pick < 97) return PolicyInput::command(command(t));
        return PolicyInput::settings(settings());
    }

private:
    bool chance(double p) { return std::bernoulli_distribution(p)(rng_); }
    int integer(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
    double uniform(double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng_); }
    template <class T>
    const T& oneOf(const std::vector<T>& v) {
        return v[static_cast<std::size_t>(integer(0, static_cast<int>(v.size()) - 1))];
    }

    RunKey key() {
        static const std::vector<std::string> agents{"claude", "codex", "aider"};
        return RunKey{AgentKind{oneOf(agents)}, std::to_string(integer(1, 2))};
    }

    AgentEvent agentEvent() {
        RunKey k = key();
        AgentEvent e = event(k, AgentEvent::kAllKinds[static_cast<std::size_t>(integer(0, 9))]);
        if (chance(0.3)) e.cwd = "/w/" + k.agent.rawValue;
        if (chance(0.4)) e.pid = integer(1, 5000);
        if (chance(0.6))
            e.tool = ToolCall{"Tool", oneOf(std::vector<std::string>{"a", "b", "c"}), chance(0.2), {}};
        if (chance(0.2)) e.message = chance(0.3) ? "" : "msg";
        return e;
    }

    SystemSnapshot snapshot() {
        const auto source =
            oneOf(std::vector<PowerSource>{PowerSource::ac, PowerSource::battery, PowerSource::unknown});
        std::optional<int> battery;
        if (chance(0.8)) battery = integer(0, 100);
        // Source, battery, thermal, lid closed, screen locked, idle, network, helper, update pending.
        return SystemSnapshot{source,       battery,     static_cast<ThermalLevel>(integer(0, 3)),
                              chance(0.4),  chance(0.3), uniform(0, 300),
                              chance(0.75), chance(0.7), chance(0.2)};
    }

    UserCommand command(double t) {
        std::optional<RunKey> target;
        if (chance(0.6)) target = key();
        std::optional<Date> until;
        if (chance(0.7)) until = at(t + uniform(-30, 300));
        const UserCommand commands[] = {UserCommand::pause(target),
                                        UserCommand::resume(target),
                                        UserCommand::forget(key()),
                                        UserCommand::stayAwake(until),
                                        UserCommand::hold(chance(0.5) ? "x" : "y", until),
                                        UserCommand::setEnabled(chance(0.6)),
                                        UserCommand::sleepNow()};
        return commands[integer(0, 6)];
    }

    PolicySettings settings() {
        // Short limits so that every guard trips within a sequence.
        return PolicySettings{.enabled = chance(0.8),
                              .batteryFloorPercent = integer(0, 95),
                              .lidClosedOnBattery = chance(0.5),
                              .maxThermal = static_cast<ThermalLevel>(integer(0, 3)),
                              .thermalResumeAt = static_cast<ThermalLevel>(integer(0, 3)),
                              .thermalSleepAfter = uniform(0, 900),
                              .permissionGrace = uniform(-10, 200),
                              .networkPauseAfter = uniform(-5, 60),
                              .networkWaitMax = uniform(0, 600),
                              .stuckAfter = uniform(0, 600),
                              .stuckRepeatThreshold = integer(0, 6),
                              .staleAfter = uniform(0, 900),
                              .staleAfterInFlight = uniform(0, 1800),
                              .deferOSUpdates = chance(0.5),
                              .awayAfterIdle = uniform(0, 200)};
    }

    std::mt19937 rng_;
};

// The pid a leaving run was frozen with: a closing event refreshes it first.
std::optional<std::int32_t> pidAtEnd(const tavra::Run& before, const PolicyInput& input) {
    if (auto* a = std::get_if<PolicyInput::Agent>(&input.value))
        if (a->event.runKey() == before.key && a->event.pid) return a->event.pid;
    return before.pid;
}

TEST(EngineInvariants, HoldOverLongRandomSequences) {
    for (std::uint32_t seed = 1; seed <= 10; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        RandomInputs gen(seed);
        PolicyEngine engine(PolicySettings::defaults, machine(), kMacWord);
        std::set<RunKey> everSeen;
        double t = 0;
        for (int step = 0; step < 2500; ++step) {
            t = gen.nextTime(t);
            PolicyInput input = gen.next(t);
            const std::map<RunKey, tavra::Run> before = engine.runs();
            for (const auto& [k, r] : before) everSeen.insert(k);
            if (auto* a = std::get_if<PolicyInput::Agent>(&input.value)) everSeen.insert(a->event.runKey());

            Decision d = engine.handle(input, at(t));
            SCOPED_TRACE("step " + std::to_string(step));

            for (const auto& [k, now] : engine.runs()) {
                auto old = before.find(k);
                if (old != before.end()) {
                    ASSERT_GE(now.workingSeconds, old->second.workingSeconds);
                    ASSERT_GE(now.accountedUntil, old->second.accountedUntil);
                }
                ASSERT_EQ(now.status == RunStatus::paused, now.pauseReason.has_value());
                ASSERT_TRUE(now.status == RunStatus::waiting || (!now.waitingSince && !now.graceExpired));
            }
            for (const auto& [k, old] : before) {
                if (engine.runs().count(k) || old.status != RunStatus::paused) continue;
                auto pid = pidAtEnd(old, input);
                if (!pid) continue;
                ASSERT_NE(std::find(d.effects.begin(), d.effects.end(), Effect::thaw(k, *pid)),
                          d.effects.end())
                    << k.description() << " left frozen";
            }
            int sleeps = 0;
            for (const auto& e : d.effects) {
                if (auto k = e.runKey()) {
                    ASSERT_TRUE(everSeen.count(*k)) << describe(e);
                }
                sleeps += e.is<Effect::SleepNow>();
            }
            ASSERT_LE(sleeps, 1);
            ASSERT_EQ(d.plan, engine.plan());
            if (!engine.settings().enabled || engine.batteryGuardTripped() ||
                engine.system().thermal == ThermalLevel::critical) {
                ASSERT_EQ(d.plan, PowerPlan::released);
            }
            ASSERT_EQ(d.plan.holdsAnything(), !d.plan.reasons.empty());
        }
    }
}

}  // namespace
}  // namespace tavra
