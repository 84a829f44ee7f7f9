// The standing pass after every input: machine guards (battery, heat,
// network), run guards (permission grace, stuck loops, silence) and the lid
// hints. Guards change engine state and append effects; none of them sleeps
// the machine itself, they only make computePlan let go.

#include "core/EngineText.h"
#include "core/PolicyEngine.h"
#include "core/Text.h"

namespace tavra {

namespace {

constexpr double kSleepRequestLifetime = 120;  // seconds a sleep request keeps the plan released
constexpr int kBatteryRearmMargin = 3;         // percent above the floor that re-arms the guard

}  // namespace

void PolicyEngine::runGuards(Date now, Effects& fx) {
    batteryGuard(now, fx);
    thermalGuard(now, fx);
    networkGuard(now, fx);

    // The machine guards ran first, so a run they paused in this pass is
    // already paused here. No guard adds or removes runs, so the order holds.
    for (Run* run : std::vector<Run*>(orderedRuns())) {
        permissionGrace(*run, now, fx);
        stuckGuard(*run, now, fx);
        staleGuard(*run, now, fx);
    }

    if (stayAwakeUntil_ && now >= *stayAwakeUntil_) stayAwakeUntil_.reset();
    std::erase_if(holds_, [now](const auto& entry) { return entry.second <= now; });
    if (sleepRequestedAt_ && secondsBetween(*sleepRequestedAt_, now) > kSleepRequestLifetime)
        sleepRequestedAt_.reset();

    lidAdvice(now, fx);
}

void PolicyEngine::batteryGuard(Date now, Effects& fx) {
    const int floor = settings_.batteryFloorPercent;
    const bool onBattery = system_.powerSource == PowerSource::battery;
    if (onBattery && system_.batteryPercent && *system_.batteryPercent <= floor) {
        if (batteryGuardTripped_) return;
        batteryGuardTripped_ = true;
        // Tripped in silence when nothing works: the plan is released anyway.
        if (!hasActiveWork()) return;
        const std::string pct = std::to_string(*system_.batteryPercent);
        const std::string floorText = std::to_string(floor);
        fx.push_back(Effect::journal(JournalEntry{.date = now,
                                                  .kind = JournalEntry::Kind::guardTripped,
                                                  .reason = "battery",
                                                  .detail = pct + "% <= " + floorText + "%"}));
        fx.push_back(Effect::alert(
            Alert{.id = EngineText::alertId("battery", now),
                  .title = "Battery at " + pct + "%",
                  .body = "Below your " + floorText + "% floor. Letting " + machine_.the() + " sleep.",
                  .level = Alert::Level::critical,
                  .category = Alert::Category::battery}));
        return;
    }
    // Plugging in re-arms at once; on battery only a margin above the floor
    // does, so a reading hovering at the floor cannot flap.
    if (!onBattery) {
        batteryGuardTripped_ = false;
        return;
    }
    if (system_.batteryPercent.value_or(100) >= floor + kBatteryRearmMargin) batteryGuardTripped_ = false;
}

void PolicyEngine::thermalGuard(Date now, Effects& fx) {
    const ThermalLevel level = system_.thermal;
    if (level >= settings_.maxThermal) {
        if (!hotSince_) hotSince_ = now;
        // With the lid open and below critical the clock runs, nothing more.
        if (!system_.lidClosed && level != ThermalLevel::critical) return;
        std::vector<std::string> names;
        for (Run* run : std::vector<Run*>(orderedRuns()))
            if (run->status == RunStatus::working && pause(*run, PauseReason::thermal, now, fx))
                names.push_back(displayName(run->key));
        // Pausing repeats on every pass of the spell; telling happens once.
        if (thermalAlerted_) return;
        thermalAlerted_ = true;
        const std::string word(label(level));
        fx.push_back(Effect::journal(JournalEntry{
            .date = now, .kind = JournalEntry::Kind::guardTripped, .reason = "thermal", .detail = word}));
        fx.push_back(Effect::alert(
            Alert{.id = EngineText::alertId("thermal", now),
                  .title = std::string(machine_.sentenceStart) + " is " + word,
                  .body = names.empty() ? std::string("Watching temperature.")
                                        : "Paused " + Text::join(names, ", ") + " until it cools down.",
                  .level = level == ThermalLevel::critical ? Alert::Level::critical : Alert::Level::warning,
                  .category = Alert::Category::thermal}));
        return;
    }
    // Between the two thresholds nothing changes: no flapping around one level.
    if (level > settings_.thermalResumeAt) return;

    if (!hotSince_) return;
    hotSince_.reset();
    thermalAlerted_ = false;
    for (Run* run : std::vector<Run*>(orderedRuns())) {
        if (run->pauseReason != PauseReason::thermal) continue;
        if (system_.networkReachable)
            resume(*run, now, fx);
        else
            run->pauseReason = PauseReason::network;  // hand over: the network guard brings it back
    }
}

void PolicyEngine::networkGuard(Date now, Effects& fx) {
    if (!system_.networkReachable) {
        if (!networkLostSince_) networkLostSince_ = now;
        if (secondsBetween(*networkLostSince_, now) < settings_.networkPauseAfter) return;
        std::vector<std::string> names;
        for (Run* run : std::vector<Run*>(orderedRuns()))
            if (run->status == RunStatus::working && pause(*run, PauseReason::network, now, fx))
                names.push_back(displayName(run->key));
        // Nothing to say until something was paused; then say it once.
        if (networkAlerted_ || names.empty()) return;
        networkAlerted_ = true;
        fx.push_back(
            Effect::alert(Alert{.id = EngineText::alertId("network", now),
                                .title = "Network lost",
                                .body = "Paused " + Text::join(names, ", ") +
                                        " so it doesn't burn retries. Will resume when the network is back.",
                                .level = Alert::Level::warning,
                                .category = Alert::Category::network}));
        return;
    }

    if (!networkLostSince_) return;
    networkLostSince_.reset();
    networkAlerted_ = false;
    // Only a hot spell with the lid closed keeps pauses going; with the lid
    // open the thermal guard pauses nothing below critical, and at critical
    // it will pause the run again in the next pass.
    const bool stillHot = hotSince_.has_value() && system_.lidClosed;
    for (Run* run : std::vector<Run*>(orderedRuns())) {
        if (run->pauseReason != PauseReason::network) continue;
        if (!stillHot)
            resume(*run, now, fx);
        else
            run->pauseReason = PauseReason::thermal;  // hand over: the thermal guard brings it back
    }
}

void PolicyEngine::permissionGrace(Run& run, Date now, Effects& fx) {
    if (run.status != RunStatus::waiting || run.graceExpired || !run.waitingSince) return;
    if (secondsBetween(*run.waitingSince, now) < settings_.permissionGrace) return;
    // The run keeps waiting; only the machine's duty to stay awake for it ends.
    run.graceExpired = true;
    fx.push_back(Effect::alert(Alert{.id = EngineText::alertId("grace", run.key, now),
                                     .title = displayName(run.key) + " is still waiting",
                                     .body = machine_.theAtStart() + " is allowed to sleep until you answer.",
                                     .level = Alert::Level::warning,
                                     .category = Alert::Category::permission,
                                     .run = run.key}));
}

void PolicyEngine::stuckGuard(Run& run, Date now, Effects& fx) {
    if (run.status != RunStatus::working || run.stuckFlagged) return;
    if (!run.stuck.isStuck(now, settings_.stuckAfter, settings_.stuckRepeatThreshold)) return;
    // Flag first: a run that cannot be paused is reported once, not per pass.
    run.stuckFlagged = true;
    const bool paused = pause(run, PauseReason::stuck, now, fx);
    std::string body = "No file changes for " + EngineText::wholeMinutes(settings_.stuckAfter) +
                       " min and the same tool call keeps repeating.";
    std::vector<AlertAction> actions;
    if (paused) {
        body += " Paused it.";
        actions.push_back(AlertAction{"\xE2\x96\xB6\xEF\xB8\x8F Resume", "resume " + run.key.description()});
    }
    fx.push_back(Effect::alert(Alert{.id = EngineText::alertId("stuck", run.key, now),
                                     .title = displayName(run.key) + " looks stuck",
                                     .body = std::move(body),
                                     .level = Alert::Level::warning,
                                     .category = Alert::Category::stuck,
                                     .run = run.key,
                                     .actions = std::move(actions)}));
}

void PolicyEngine::staleGuard(Run& run, Date now, Effects& fx) {
    if (run.status != RunStatus::working) return;
    const double limit = run.toolInFlight ? settings_.staleAfterInFlight : settings_.staleAfter;
    if (secondsBetween(run.lastEventAt, now) < limit) return;
    // Neither paused nor ended: it stops counting as work until the agent
    // speaks again.
    run.setStatus(RunStatus::idle, now);
    run.toolInFlight = false;
    fx.push_back(
        Effect::journal(JournalEntry{.date = now,
                                     .kind = JournalEntry::Kind::guardTripped,
                                     .run = run.key,
                                     .reason = "stale",
                                     .detail = "no events for " + EngineText::wholeMinutes(limit) + " min"}));
}

void PolicyEngine::lidAdvice(Date now, Effects& fx) {
    // Re-arms the battery hint whatever else happens, so it returns once per
    // spell on battery.
    if (system_.powerSource != PowerSource::battery) batteryLidHintShown_ = false;
    if (!hasActiveWork() || system_.lidClosed) return;
    if (!system_.helperAvailable) {
        if (helperHintShown_) return;
        helperHintShown_ = true;
        fx.push_back(
            Effect::alert(Alert{.id = "helper-missing",
                                .title = "Closing the lid will put " + machine_.the() + " to sleep",
                                .body = "Install the lid-closed helper from Tavra (one admin prompt) to "
                                        "keep agents running with the lid shut.",
                                .level = Alert::Level::info,
                                .category = Alert::Category::system}));
        return;
    }
    if (system_.powerSource != PowerSource::battery || settings_.lidClosedOnBattery || batteryLidHintShown_)
        return;
    batteryLidHintShown_ = true;
    fx.push_back(Effect::alert(
        Alert{.id = EngineText::alertId("battery-lid", now),
              .title = "On battery: closing the lid sleeps " + machine_.the(),
              .body = "Agents stop until you open it. Plug in, or turn on Lid Closed on Battery in Tavra.",
              .level = Alert::Level::info,
              .category = Alert::Category::system}));
}

}  // namespace tavra
