// The engine's decisions carried out: the plan through the power controller,
// then each effect in the order the engine made it.

#include <csignal>
#include <exception>
#include <type_traits>
#include <variant>

#include "daemon/Daemon.h"
#include "daemon/Recovery.h"
#include "kit/AtomicFile.h"

namespace tavra {

namespace {

std::string planText(const PowerPlan& plan) {
    if (!plan.holdsAnything()) return "released";
    std::string text = "holding (";
    for (std::size_t i = 0; i < plan.reasons.size(); ++i) text += (i ? "; " : "") + plan.reasons[i];
    text += ")";
    if (plan.disableLidSleep) text += " lid";
    if (plan.deferOSUpdates) text += " updates";
    return text;
}

}  // namespace

void Daemon::feed(const PolicyInput& input) {
    carryOut(engine_->handle(input, now_));
    followRuns();
    markDirty();
}

void Daemon::carryOut(const Decision& decision) {
    applyPlan(false);
    for (const auto& effect : decision.effects) {
        std::visit(
            [&](const auto& e) {
                using E = std::decay_t<decltype(e)>;
                if constexpr (std::is_same_v<E, Effect::Freeze>) {
                    freeze(e.key, e.pid);
                } else if constexpr (std::is_same_v<E, Effect::Thaw>) {
                    thaw(e.key, e.pid);
                } else if constexpr (std::is_same_v<E, Effect::Alert>) {
                    log("alert " + e.alert.id + ": " + e.alert.title);
                    desk_->alert(e.alert, now_);
                    if (config_.localNotifications && environment_.notify) environment_.notify(e.alert);
                } else if constexpr (std::is_same_v<E, Effect::Journal>) {
                    if (!journal_.append(e.entry)) log("cannot append to " + journal_.file().string());
                } else {
                    static_assert(std::is_same_v<E, Effect::SleepNow>);
                    log("sleeping now (" + e.reason + ")");
                    // The phone hears of it before the network goes down.
                    desk_->flush(config_.remote.deliverBeforeSleep);
                    if (environment_.power) environment_.power->sleepNow();
                }
            },
            effect.value);
    }
}

// The helper's watchdog lets go after 30 s without a request, so a plan that
// holds anything is sent again at a steady rhythm, not only on change.
void Daemon::applyPlan(bool force) {
    if (!environment_.power) return;
    const auto& plan = engine_->plan();
    const bool changed = plan != appliedPlan_;
    const bool due = plan.holdsAnything() && (!lastHelperSend_ || secondsBetween(*lastHelperSend_, now_) >=
                                                                      environment_.helperRefreshSeconds);
    if (!force && !changed && !due) return;
    const bool wasReachable = environment_.power->helperReachable();
    environment_.power->apply(plan);
    lastHelperSend_ = now_;
    if (changed || force) log("plan " + planText(plan));
    appliedPlan_ = plan;
    if (environment_.power->helperReachable() != wasReachable || force) {
        auto error = environment_.power->lastHelperError();
        log(environment_.power->helperReachable() ? "helper reachable"
                                                  : "helper not reachable" + (error ? ": " + *error : ""));
    }
}

void Daemon::freeze(const RunKey& key, Pid pid) {
    const auto& table = *environment_.processes;
    // The ledger is on disk before the first SIGSTOP: whatever becomes of
    // this daemon, the next one (or --recover) knows what to continue.
    FreezeRecord record{key, pid, {}};
    if (auto row = table.row(pid)) record.processes.push_back({pid, row->startToken});
    for (const auto& row : ProcessInfoReader::descendantRows(table, pid))
        record.processes.push_back({row.pid, row.startToken});
    if (record.processes.empty()) {
        log("cannot freeze " + key.description() + ": pid " + std::to_string(pid) + " is gone");
        return;
    }
    std::erase_if(frozen_, [&](const FreezeRecord& r) { return r.run == key; });
    frozen_.push_back(record);
    dirty_ = true;
    if (!saveState()) {
        // Without the ledger on disk a crash could leave the tree stopped for good.
        frozen_.pop_back();
        log("not freezing " + key.description() + ": the ledger cannot be written");
        return;
    }

    auto stopped = ProcessFreezer::freeze(table, pid);
    if (stopped.empty()) {
        std::erase_if(frozen_, [&](const FreezeRecord& r) { return r.run == key; });
        log("could not freeze " + key.description() + " (pid " + std::to_string(pid) + ")");
    } else {
        // Processes born between the walk and the stop: add them with the
        // identity they have now.
        auto& kept = frozen_.back().processes;
        for (Pid p : stopped) {
            if (std::none_of(kept.begin(), kept.end(), [&](const FrozenProcess& f) { return f.pid == p; }))
                if (auto row = table.row(p)) kept.push_back({p, row->startToken});
        }
        log("froze " + key.description() + ": " + std::to_string(stopped.size()) + " process(es)");
    }
    markDirty();
}

void Daemon::thaw(const RunKey& key, Pid pid) {
    auto found =
        std::find_if(frozen_.begin(), frozen_.end(), [&](const FreezeRecord& r) { return r.run == key; });
    if (found != frozen_.end()) {
        thawRecord(*environment_.processes, *found);
        frozen_.erase(found);
    } else {
        ProcessFreezer::thaw(*environment_.processes, pid, {});
    }
    log("thawed " + key.description() + " (pid " + std::to_string(pid) + ")");
    markDirty();
}

void Daemon::thawAll() {
    for (const auto& record : frozen_) {
        thawRecord(*environment_.processes, record);
        log("thawed " + record.run.description() + " (pid " + std::to_string(record.root) + ")");
    }
    frozen_.clear();
    markDirty();
}

// Directories of the runs that work are watched for progress, and every run
// with a process learns of its end.
void Daemon::followRuns() {
    if (directories_) {
        std::set<std::string> roots;
        for (const auto& [key, run] : engine_->runs())
            if (run.cwd && (run.status == RunStatus::working || run.status == RunStatus::waiting))
                roots.insert(*run.cwd);
        directories_->sync(roots);
    }
    if (exits_) {
        for (const auto& [key, run] : engine_->runs()) {
            if (!run.pid || !watchedPids_.insert(*run.pid).second) continue;
            const Pid pid = *run.pid;
            exits_->watch(pid, [weak = weak_from_this(), pid] {
                if (auto self = weak.lock()) self->processExited(pid);
            });
        }
    }
}

// Every run of that process ends: one agent process may have served several
// sessions (a cleared conversation starts a new one in the same process).
void Daemon::processExited(Pid pid) {
    if (stopped_ || watchedPids_.erase(pid) == 0) return;
    wake();
    std::vector<RunKey> ended;
    for (const auto& [key, run] : engine_->runs())
        if (run.pid == pid) ended.push_back(key);
    for (const auto& key : ended) {
        log("process " + std::to_string(pid) + " of " + key.description() + " exited");
        feed(PolicyInput::processExited(key));
    }
    armTimer();
}

void Daemon::filesChanged(const std::string& root) {
    if (stopped_) return;
    wake();
    std::vector<RunKey> under;
    for (const auto& [key, run] : engine_->runs()) {
        if (!run.cwd) continue;
        const auto& cwd = *run.cwd;
        if (cwd == root ||
            (cwd.size() > root.size() && cwd.compare(0, root.size(), root) == 0 && cwd[root.size()] == '/'))
            under.push_back(key);
    }
    for (const auto& key : under) feed(PolicyInput::progress(key));
}

void Daemon::markDirty() {
    dirty_ = true;
    scheduleSave();
}

// Writes are coalesced: at most one per saveDelay, and one at shutdown.
void Daemon::scheduleSave() {
    if (saveArmed_ || stopped_) return;
    saveArmed_ = true;
    saveTimer_.expires_after(environment_.saveDelay);
    saveTimer_.async_wait([weak = weak_from_this()](const std::error_code& error) {
        auto self = weak.lock();
        if (!self) return;
        self->saveArmed_ = false;
        if (!error) self->saveState();
    });
}

bool Daemon::saveState() {
    if (!dirty_) return true;
    dirty_ = false;
    DaemonState state{engine_->sortedRuns(), engine_->stayAwakeUntil(), engine_->holds(), frozen_};
    try {
        // An idle minute changes nothing worth a write (dates have whole seconds).
        auto bytes = TavraJSON::encodeValue(state);
        if (bytes == lastSaved_) return true;
        writeFileAtomically(environment_.stateFile, bytes, 0600);
        lastSaved_ = std::move(bytes);
        return true;
    } catch (const std::exception& error) {
        dirty_ = true;
        log(std::string("cannot save the state: ") + error.what());
        return false;
    }
}

}  // namespace tavra
