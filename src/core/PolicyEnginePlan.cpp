// Should the machine stay awake, and why; and what to write down when it stops.

#include "core/PolicyEngine.h"
#include "core/Text.h"

namespace tavra {

std::string PolicyEngine::nameFor(const AgentKind& agent, const std::optional<std::string>& cwd,
                                  std::string_view suffix) {
    // Built in one buffer: the plan names every run on every input.
    std::string name;
    std::string_view folder = cwd ? Text::lastPathComponentView(*cwd) : std::string_view{};
    name.reserve(agent.rawValue.size() + folder.size() + suffix.size() + 3);
    Text::appendCapitalizedWords(name, agent.rawValue);
    if (cwd) {
        name += " (";
        name += folder;
        name += ')';
    }
    name += suffix;
    return name;
}

std::string PolicyEngine::displayName(const RunKey& key) const {
    auto it = runs_.find(key);
    return nameFor(key.agent, it == runs_.end() ? std::nullopt : it->second.cwd);
}

PowerPlan PolicyEngine::computePlan(Date now) const {
    // Battery floor, heat and the user's own sleep beat every reason to stay up.
    if (!settings_.enabled || sleepRequestedAt_ || batteryGuardTripped_ ||
        system_.thermal == ThermalLevel::critical)
        return PowerPlan::released;
    if (hotSince_ && system_.lidClosed && secondsBetween(*hotSince_, now) >= settings_.thermalSleepAfter)
        return PowerPlan::released;

    std::vector<std::string> reasons;
    for (const Run* run : orderedRuns()) {
        switch (run->status) {
            case RunStatus::working:
                reasons.push_back(nameFor(run->key.agent, run->cwd, " working"));
                break;
            case RunStatus::waiting:
                // A wait past its grace no longer holds the machine.
                if (!run->graceExpired)
                    reasons.push_back(nameFor(run->key.agent, run->cwd, " waiting for you"));
                break;
            case RunStatus::idle:
                break;
            case RunStatus::paused:
                // Only a pause waiting for a cause that clears by itself holds the
                // machine, and a network pause only for so long.
                if (run->pauseReason == PauseReason::thermal) {
                    reasons.push_back(
                        nameFor(run->key.agent, run->cwd, " paused (thermal), waiting to resume"));
                } else if (run->pauseReason == PauseReason::network &&
                           (!networkLostSince_ ||
                            secondsBetween(*networkLostSince_, now) < settings_.networkWaitMax)) {
                    reasons.push_back(
                        nameFor(run->key.agent, run->cwd, " paused (network), waiting to resume"));
                }
                break;
        }
    }
    if (stayAwakeUntil_ && *stayAwakeUntil_ > now) reasons.emplace_back("stay-awake requested");
    for (const auto& [id, until] : holds_)
        if (until > now) reasons.push_back(id);

    if (reasons.empty()) return PowerPlan::released;
    PowerPlan plan;
    plan.preventIdleSleep = true;
    plan.disableLidSleep = system_.helperAvailable &&
                           (system_.powerSource == PowerSource::ac ||
                            (system_.powerSource == PowerSource::battery && settings_.lidClosedOnBattery));
    plan.deferOSUpdates = settings_.deferOSUpdates && system_.helperAvailable;
    plan.reasons = std::move(reasons);
    return plan;
}

bool PolicyEngine::hasActiveWork() const noexcept {
    for (const auto& [key, run] : runs_) {
        if (run.status == RunStatus::working || run.status == RunStatus::waiting) return true;
        if (run.status == RunStatus::paused &&
            (run.pauseReason == PauseReason::thermal || run.pauseReason == PauseReason::network))
            return true;
    }
    return false;
}

std::string PolicyEngine::sleepReason(Date now) const {
    if (sleepRequestedAt_ && *sleepRequestedAt_ == now) return "sleep requested";
    if (batteryGuardTripped_) return "battery below floor";
    if (system_.thermal == ThermalLevel::critical) return "thermal critical";
    if (hotSince_) return "too hot for too long";
    if (!settings_.enabled) return "disabled";
    for (const auto& [key, run] : runs_)
        if (run.status == RunStatus::waiting) return "waiting for permission";
    if (system_.lidClosed && system_.powerSource == PowerSource::battery && !settings_.lidClosedOnBattery)
        return "on battery with lid closed";
    return "agents finished";
}

void PolicyEngine::handleSleepTransition(const PowerPlan& from, const PowerPlan& to, Date now, Effects& fx) {
    const bool lostIdle = from.preventIdleSleep && !to.preventIdleSleep;
    // With the lid open, losing the lid protection is no event.
    const bool lostLid = system_.lidClosed && from.disableLidSleep && !to.disableLidSleep;
    const bool requested = sleepRequestedAt_ && *sleepRequestedAt_ == now;
    if (!lostIdle && !lostLid && !requested) return;

    // Only the user's order, or a closed lid with nobody there, makes the
    // engine put the machine to sleep; otherwise it only lets go. A locked
    // screen alone does not count as away here.
    const bool away = system_.lidClosed && system_.userIdleSeconds >= settings_.awayAfterIdle;
    std::string reason = sleepReason(now);
    fx.push_back(Effect::journal(
        JournalEntry{.date = now, .kind = JournalEntry::Kind::power, .reason = "release", .detail = reason}));
    if (requested || away) {
        fx.push_back(
            Effect::journal(JournalEntry{.date = now, .kind = JournalEntry::Kind::sleep, .reason = reason}));
        fx.push_back(Effect::sleepNow(std::move(reason)));
    }
}

}  // namespace tavra
