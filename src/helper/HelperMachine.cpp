// The helper's rules for changing the machine: hard limits that override a
// live client, the watchdog, and an update deferral whose memory lives in a
// file so that it survives a crash.

#include <cmath>
#include <limits>
#include <system_error>

#include "core/ConfigCoding.h"
#include "helper/Helper.h"
#include "kit/AtomicFile.h"

namespace tavra {

namespace {
constexpr const char* kAbsentSentinel = "absent";
}

void to_json(Json& j, const Helper::State& state) {
    j = Json::object();
    TavraJSON::setOptional(j, "originalAutoInstall", state.originalAutoInstall);
}

void from_json(const Json& j, Helper::State& state) {
    TavraJSON::requireObject(j, "State");
    state.originalAutoInstall = TavraJSON::optional<std::string>(j, "originalAutoInstall");
}

std::optional<std::string> Helper::hardKillReason() {
    if (!environment_.sensors) return std::nullopt;
    // Thermal pressure comes first and does not care for the power source.
    if (environment_.sensors->thermalCritical()) return "thermal pressure critical";
    auto power = environment_.sensors->power();
    if (!power.onBattery || !power.percent) return std::nullopt;
    if (*power.percent <= hardBatteryFloor) return "battery at " + std::to_string(*power.percent) + "%";
    return std::nullopt;
}

void Helper::apply(const HelperPlan& requested) {
    bool want = requested.disableLidSleep;
    if (want) {
        if (auto reason = hardKillReason()) {
            log("refusing to disable sleep: " + *reason);
            want = false;
        }
    }
    // Repeating a plan is free: no command and no log line.
    if (want != plan_.disableLidSleep) {
        if (environment_.machine) environment_.machine->setLidSleepDisabled(want);
        log(want ? "disablesleep → true" : "disablesleep → false");
    }
    if (requested.deferOSUpdates != plan_.deferOSUpdates) setUpdateDeferral(requested.deferOSUpdates);
    // What is in force, not what was asked; the deferral is stored as asked
    // even where its commands failed.
    plan_ = HelperPlan{want, requested.deferOSUpdates};
}

void Helper::watchdog() {
    auto reason = hardKillReason();
    // A hard reason only matters while lid sleep is disabled.
    if (reason && plan_.disableLidSleep) {
        log("HARD KILL: " + *reason);
        restoreDefaults(*reason);
        if (environment_.sensors && environment_.sensors->lidClosed() && environment_.machine)
            environment_.machine->sleepNow();
        return;
    }
    if (plan_ == HelperPlan::released) return;

    double age =
        lastHeartbeat_ ? secondsBetween(*lastHeartbeat_, now_) : std::numeric_limits<double>::infinity();
    if (age > watchdogTimeout) {
        std::string seconds = std::isfinite(age) ? std::to_string(static_cast<long long>(age)) : "inf";
        log("WATCHDOG: no heartbeat for " + seconds + "s");
        restoreDefaults("watchdog");
        if (environment_.sensors && environment_.sensors->lidClosed() && environment_.machine)
            environment_.machine->sleepNow();
        return;
    }
    if (!environment_.machine) return;
    if (plan_.disableLidSleep) environment_.machine->keepLidSleepDisabled();
    if (plan_.deferOSUpdates) environment_.machine->keepUpdatesDeferred();
}

void Helper::restoreDefaults(const std::string& reason) {
    // Always, whatever is held: the state in memory may be wrong after a crash.
    if (environment_.machine) environment_.machine->setLidSleepDisabled(false);
    setUpdateDeferral(false);
    plan_ = HelperPlan::released;
    log("restored defaults (" + reason + ")");
}

std::optional<Helper::State> Helper::loadState() const {
    auto text = readWholeFile(stateFile());
    if (!text) return std::nullopt;
    try {
        return TavraJSON::decode<State>(*text);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// The memory of the deferral comes from the file, never from the process,
// which is what makes it survive a crash.
void Helper::setUpdateDeferral(bool on) {
    std::optional<std::string> saved;
    if (auto state = loadState()) saved = state->originalAutoInstall;
    Machine* machine = environment_.machine.get();
    const std::string updates(machine ? machine->updatesName() : Machine::kDefaultUpdatesName);

    if (on) {
        // The first deferral's value is kept, so a second one can never save
        // the deferred "off" as the user's own.
        if (saved) return;
        std::optional<std::string> current = machine ? machine->readUpdateSetting() : std::nullopt;
        saveState(State{current ? *current : std::string(kAbsentSentinel)});  // on disk before the change
        if (machine) machine->writeUpdateSetting(false);
        log("deferred automatic " + updates);
        return;
    }

    if (!saved) return;
    if (machine) {
        if (*saved == kAbsentSentinel)
            machine->deleteUpdateSetting();
        else
            machine->writeUpdateSetting(*saved == "1");
    }
    saveState(State{});
    log("restored automatic " + updates + " setting");
}

// Written atomically (temporary file, fsync, rename); every failure is
// swallowed and the helper goes on with the state it believes in.
void Helper::saveState(const State& state) {
    std::error_code error;
    std::filesystem::create_directories(environment_.stateDir, error);
    std::string text;
    try {
        text = TavraJSON::encodeValue(state);
    } catch (const std::exception&) {
        return;
    }
    try {
        writeFileAtomically(stateFile(), text, 0644);
    } catch (const FileError&) {
    }
}

}  // namespace tavra
