#pragma once

// Shorthands for driving PolicyEngine through timelines in tests: times as
// seconds after a fixed start, events by kind, and readable printing of
// effects and plans in failure messages.

#include <gtest/gtest.h>

#include "core/PolicyEngine.h"
#include "support/CorePrinters.h"

namespace tavra {

namespace testing_engine {

inline constexpr double kStart = 1740821400;  // 2025-03-01T09:30:00Z

inline Date at(double seconds) {
    return dateFromEpochSeconds(kStart + seconds);
}
inline std::string epochAt(double seconds) {
    return std::to_string(static_cast<long long>(kStart + seconds));
}

inline const RunKey kClaude{AgentKind::claude, "s1"};
inline const RunKey kCodex{AgentKind::codex, "s2"};

inline AgentEvent event(const RunKey& key, AgentEvent::Kind kind, std::optional<std::string> cwd = {},
                        std::optional<std::int32_t> pid = {}) {
    return {key.agent, key.session, kind, {}, std::move(cwd), pid, {}, {}, {}};
}

inline AgentEvent toolEvent(const RunKey& key, AgentEvent::Kind kind, std::string name, std::string signature,
                            bool writes = false) {
    AgentEvent e = event(key, kind);
    e.tool = ToolCall{std::move(name), std::move(signature), writes, std::nullopt};
    return e;
}

inline SystemSnapshot machine(PowerSource source = PowerSource::ac, bool helper = true,
                              bool lidClosed = false) {
    SystemSnapshot s = SystemSnapshot::unknown;
    s.powerSource = source;
    s.helperAvailable = helper;
    s.lidClosed = lidClosed;
    if (source == PowerSource::battery) s.batteryPercent = 80;
    return s;
}

inline Effect journal(double t, JournalEntry::Kind kind, std::optional<RunKey> run = {},
                      std::optional<std::string> cwd = {}, std::optional<std::string> reason = {},
                      std::optional<std::string> detail = {}, std::optional<double> workingSeconds = {}) {
    return Effect::journal(JournalEntry{at(t), kind, std::move(run), std::move(cwd), std::move(reason),
                                        std::move(detail), workingSeconds});
}

inline Effect alert(std::string id, std::string title, std::string body, Alert::Level level,
                    Alert::Category category, std::optional<RunKey> run = {},
                    std::vector<AlertAction> actions = {}, std::optional<double> workSeconds = {}) {
    return Effect::alert(Alert{std::move(id), std::move(title), std::move(body), level, category,
                               std::move(run), std::move(actions), workSeconds});
}

inline Effect releaseEntry(double t, std::string why) {
    return journal(t, JournalEntry::Kind::power, {}, {}, "release", std::move(why));
}

inline PowerPlan holding(std::vector<std::string> reasons, bool lid = true, bool defer = true) {
    return PowerPlan{true, lid, defer, std::move(reasons)};
}

// "journal:runEnded alert:system thaw": the shape of an effect list, where
// the whole list would repeat what another test already pins down.
inline std::string shapeOf(const std::vector<Effect>& effects) {
    std::string out;
    for (const auto& e : effects) {
        if (!out.empty()) out += ' ';
        if (auto* j = e.as<Effect::Journal>())
            out += "journal:" + std::string(toString(j->entry.kind));
        else if (auto* a = e.as<Effect::Notify>())
            out += "alert:" + std::string(toString(a->alert.category));
        else
            out += describe(e).substr(0, describe(e).find('('));
    }
    return out;
}

// An engine with a clock in seconds after kStart.
struct Timeline {
    PolicyEngine engine;

    explicit Timeline(SystemSnapshot system = machine(), PolicySettings settings = PolicySettings::defaults)
        : engine(settings, std::move(system), kComputerWord) {}

    Decision agent(double t, AgentEvent e) { return engine.handle(PolicyInput::agent(std::move(e)), at(t)); }
    Decision system(double t, SystemSnapshot s) {
        return engine.handle(PolicyInput::system(std::move(s)), at(t));
    }
    Decision command(double t, UserCommand c) {
        return engine.handle(PolicyInput::command(std::move(c)), at(t));
    }
    Decision tick(double t) { return engine.handle(PolicyInput::tick(), at(t)); }

    const Run& run(const RunKey& key) const { return engine.runs().at(key); }
};

}  // namespace testing_engine
}  // namespace tavra
