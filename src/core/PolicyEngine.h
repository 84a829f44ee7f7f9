#pragma once

// The heart of the system: a deterministic state machine that turns one
// PolicyInput at a given `now` into one Decision (the power plan to hold and
// the effects to carry out, in order). It reads no clock, touches no file and
// calls no OS service: all it knows comes in as inputs, all it wants done
// leaves as effects.
//
// Not thread-safe: the owner calls handle() and the read-only accessors from
// one serial context. Nothing here throws except on allocation failure.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Date.h"
#include "core/Effects.h"
#include "core/Models.h"
#include "core/Run.h"
#include "core/Settings.h"

namespace tavra {

class PolicyEngine {
public:
    // Starts with no runs, the released plan and `settings.sanitized()`.
    PolicyEngine(const PolicySettings& settings, SystemSnapshot system);

    PolicyEngine(const PolicyEngine&) = delete;
    PolicyEngine& operator=(const PolicyEngine&) = delete;

    // What a restarted owner carries over from an earlier life: the runs (as
    // they were saved, keys unique), a manual stay-awake and the named holds.
    // Replaces those three parts of the state and nothing else; the plan is
    // recomputed by the next handle(). Meant for a fresh engine.
    void restore(std::vector<Run> runs, std::optional<Date> stayAwakeUntil,
                 std::map<std::string, Date> holds);

    // The one operation that changes the engine. In order: account working
    // time of every run, apply the input, run the guards, compute the plan,
    // record the sleep transition, adopt the plan.
    Decision handle(const PolicyInput& input, Date now);

    // ---- Read-only state ---------------------------------------------------------

    const std::map<RunKey, Run>& runs() const noexcept { return runs_; }
    const SystemSnapshot& system() const noexcept { return system_; }
    const PolicySettings& settings() const noexcept { return settings_; }
    const PowerPlan& plan() const noexcept { return plan_; }
    const std::optional<Date>& stayAwakeUntil() const noexcept { return stayAwakeUntil_; }
    const std::map<std::string, Date>& holds() const noexcept { return holds_; }
    const std::optional<Date>& hotSince() const noexcept { return hotSince_; }
    const std::optional<Date>& networkLostSince() const noexcept { return networkLostSince_; }
    bool batteryGuardTripped() const noexcept { return batteryGuardTripped_; }

    // All runs ascending by startedAt, then by key: the order of every list
    // and every pass of the engine.
    std::vector<Run> sortedRuns() const;

    // The agent's name with each word capitalised, and the last component of
    // the run's cwd in brackets when the run is known and has one:
    // "Claude (proj)".
    std::string displayName(const RunKey& key) const;

    // What the machine should hold now and why. Changes nothing.
    PowerPlan computePlan(Date now) const;

    // Any run working, waiting, or paused for a cause that clears by itself.
    bool hasActiveWork() const noexcept;

    // The word for why the machine is let go ("agents finished", ...).
    std::string sleepReason(Date now) const;

    // The body of a "finished" alert: "Worked {m} min · {n} tool calls ·
    // {w} file edits", then the first 280 characters of the last message on
    // a line of their own.
    static std::string finishedBody(const Run& run, std::optional<double> turnWork);

private:
    using Effects = std::vector<Effect>;

    // Agent events (PolicyEngineEvents.cpp).
    void apply(const AgentEvent& event, Date now, Effects& fx);
    void end(const RunKey& key, const std::string& reason, Date now, Effects& fx);

    // Commands, pause and resume (PolicyEngineCommands.cpp).
    void apply(const UserCommand& command, Date now, Effects& fx);
    std::vector<Run*> targets(const std::optional<RunKey>& key);
    bool pause(Run& run, PauseReason reason, Date now, Effects& fx);
    void resume(Run& run, Date now, Effects& fx);
    static void markResumed(Run& run, Date now);

    // Plan and sleep transition (PolicyEnginePlan.cpp).
    void handleSleepTransition(const PowerPlan& from, const PowerPlan& to, Date now, Effects& fx);
    // The display name for an agent and a cwd, followed by `suffix`.
    static std::string nameFor(const AgentKind& agent, const std::optional<std::string>& cwd,
                               std::string_view suffix = {});

    // Guards (PolicyEngineGuards.cpp).
    void runGuards(Date now, Effects& fx);
    void batteryGuard(Date now, Effects& fx);
    void thermalGuard(Date now, Effects& fx);
    void networkGuard(Date now, Effects& fx);
    void permissionGrace(Run& run, Date now, Effects& fx);
    void stuckGuard(Run& run, Date now, Effects& fx);
    void staleGuard(Run& run, Date now, Effects& fx);
    void lidAdvice(Date now, Effects& fx);

    // Runs in sortedRuns order. Pointers into `runs_` stay valid until a run
    // is added or removed, which no guard, pause or resume does; callers that
    // may remove runs take a fresh list afterwards.
    const std::vector<Run*>& orderedRuns() const;
    Run* find(const RunKey& key);
    void eraseRun(std::map<RunKey, Run>::iterator it);

    std::map<RunKey, Run> runs_;
    SystemSnapshot system_;
    PolicySettings settings_;
    PowerPlan plan_;
    std::optional<Date> stayAwakeUntil_;
    std::map<std::string, Date> holds_;
    std::optional<Date> hotSince_;
    std::optional<Date> networkLostSince_;
    bool batteryGuardTripped_ = false;
    std::optional<Date> sleepRequestedAt_;
    bool thermalAlerted_ = false;
    bool networkAlerted_ = false;
    bool helperHintShown_ = false;
    bool batteryLidHintShown_ = false;

    // Cache of the sorted order; startedAt never changes after a run is
    // created, so only insertion and removal invalidate it.
    mutable std::vector<Run*> order_;
    mutable bool orderDirty_ = true;
};

}  // namespace tavra
