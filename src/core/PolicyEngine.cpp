#include "core/PolicyEngine.h"

#include <algorithm>
#include <type_traits>
#include <variant>

namespace tavra {

PolicyEngine::PolicyEngine(const PolicySettings& settings, SystemSnapshot system, MachineWord machine)
    : machine_(machine), system_(std::move(system)), settings_(settings.sanitized()) {}

Decision PolicyEngine::handle(const PolicyInput& input, Date now) {
    Effects fx;

    // Time is accounted before the input is looked at, so each interval
    // counts by the status the run held throughout it.
    for (auto& [key, run] : runs_) run.accountWorkingTime(now);

    std::visit(
        [&](const auto& in) {
            using In = std::decay_t<decltype(in)>;
            if constexpr (std::is_same_v<In, PolicyInput::Agent>) {
                apply(in.event, now, fx);
            } else if constexpr (std::is_same_v<In, PolicyInput::System>) {
                system_ = in.snapshot;
            } else if constexpr (std::is_same_v<In, PolicyInput::Progress>) {
                if (Run* run = find(in.key)) {
                    run->stuck.noteProgress(now);
                    run->stuckFlagged = false;
                }
            } else if constexpr (std::is_same_v<In, PolicyInput::ProcessExited>) {
                end(in.key, "process exited", now, fx);
            } else if constexpr (std::is_same_v<In, PolicyInput::Command>) {
                apply(in.command, now, fx);
            } else if constexpr (std::is_same_v<In, PolicyInput::Settings>) {
                // The whole record, so a switch flipped by setEnabled lasts only
                // until the next settings input.
                settings_ = in.settings.sanitized();
            } else {
                static_assert(std::is_same_v<In, PolicyInput::Tick>);
            }
        },
        input.value);

    runGuards(now, fx);
    PowerPlan after = computePlan(now);
    // plan_ is still the plan before this input here.
    handleSleepTransition(plan_, after, now, fx);
    // Mostly the plan is unchanged; comparing is cheaper than copying its reasons.
    if (after != plan_) plan_ = after;
    return Decision{std::move(after), std::move(fx)};
}

std::vector<Run> PolicyEngine::sortedRuns() const {
    std::vector<Run> out;
    const auto& order = orderedRuns();
    out.reserve(order.size());
    for (const Run* run : order) out.push_back(*run);
    return out;
}

void PolicyEngine::reorder() {
    order_.clear();
    order_.reserve(runs_.size());
    for (auto& entry : runs_) order_.push_back(&entry.second);
    // The map is already in key order, so a stable sort by startedAt leaves
    // equal start times in key order.
    std::stable_sort(order_.begin(), order_.end(),
                     [](const Run* a, const Run* b) { return a->startedAt < b->startedAt; });
}

Run& PolicyEngine::addRun(const RunKey& key, Date now) {
    Run& run = runs_.emplace(key, Run(key, now)).first->second;
    reorder();
    return run;
}

Run* PolicyEngine::find(const RunKey& key) {
    auto it = runs_.find(key);
    return it == runs_.end() ? nullptr : &it->second;
}

void PolicyEngine::eraseRun(std::map<RunKey, Run>::iterator it) {
    runs_.erase(it);
    reorder();
}

}  // namespace tavra
