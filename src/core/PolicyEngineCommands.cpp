// The user's commands, and pause and resume, which the guards use too.

#include <type_traits>
#include <variant>

#include "core/EngineText.h"
#include "core/PolicyEngine.h"

namespace tavra {

std::vector<Run*> PolicyEngine::targets(const std::optional<RunKey>& key) {
    if (!key) return orderedRuns();
    if (Run* run = find(*key)) return {run};
    return {};
}

void PolicyEngine::apply(const UserCommand& command, Date now, Effects& fx) {
    std::visit(
        [&](const auto& c) {
            using C = std::decay_t<decltype(c)>;
            if constexpr (std::is_same_v<C, UserCommand::Pause>) {
                for (Run* run : targets(c.key)) {
                    // "Pause all" touches only what runs.
                    if (run->status != RunStatus::working && run->status != RunStatus::waiting) continue;
                    if (pause(*run, PauseReason::user, now, fx)) continue;
                    const RunKey& key = run->key;
                    fx.push_back(Effect::alert(
                        Alert{.id = "pause-failed-" + key.description(),
                              .title = "Can't pause " + displayName(key),
                              .body = "Its process isn't known yet. It will be after the next tool call.",
                              .level = Alert::Level::info,
                              .category = Alert::Category::system,
                              .run = key}));
                }
            } else if constexpr (std::is_same_v<C, UserCommand::Resume>) {
                // Any reason may be resumed by hand, thermal and network included.
                for (Run* run : targets(c.key))
                    if (run->status == RunStatus::paused) resume(*run, now, fx);
            } else if constexpr (std::is_same_v<C, UserCommand::Forget>) {
                // A forgotten run leaves no end in the history, but never a
                // frozen process behind.
                auto it = runs_.find(c.key);
                if (it == runs_.end()) return;
                if (it->second.status == RunStatus::paused && it->second.pid)
                    fx.push_back(Effect::thaw(c.key, *it->second.pid));
                eraseRun(it);
            } else if constexpr (std::is_same_v<C, UserCommand::StayAwake>) {
                stayAwakeUntil_ = c.until;
            } else if constexpr (std::is_same_v<C, UserCommand::Hold>) {
                if (c.until)
                    holds_[c.id] = *c.until;
                else
                    holds_.erase(c.id);
            } else if constexpr (std::is_same_v<C, UserCommand::SetEnabled>) {
                settings_.enabled = c.value;
            } else {
                static_assert(std::is_same_v<C, UserCommand::SleepNow>);
                // The sleep itself follows in this same handle, at the transition.
                sleepRequestedAt_ = now;
            }
        },
        command.value);
}

bool PolicyEngine::pause(Run& run, PauseReason reason, Date now, Effects& fx) {
    // What cannot be frozen is not marked as paused; a second pause neither
    // adds a record nor changes the reason.
    if (!run.pid || run.status == RunStatus::paused) return false;
    run.setStatus(RunStatus::paused, now);
    run.pauseReason = reason;
    run.pauses.push_back(PauseRecord{reason, now, std::nullopt});
    fx.push_back(Effect::freeze(run.key, *run.pid));
    fx.push_back(Effect::journal(JournalEntry{.date = now,
                                              .kind = JournalEntry::Kind::paused,
                                              .run = run.key,
                                              .cwd = run.cwd,
                                              .reason = std::string(toString(reason))}));
    return true;
}

void PolicyEngine::resume(Run& run, Date now, Effects& fx) {
    if (run.status != RunStatus::paused) return;
    const std::optional<PauseReason> old = run.pauseReason;
    markResumed(run, now);
    if (run.pid) fx.push_back(Effect::thaw(run.key, *run.pid));
    std::optional<std::string> reasonText;
    if (old) reasonText = std::string(toString(*old));
    fx.push_back(Effect::journal(JournalEntry{.date = now,
                                              .kind = JournalEntry::Kind::resumed,
                                              .run = run.key,
                                              .cwd = run.cwd,
                                              .reason = reasonText}));
    // Only causes that clear by themselves are worth telling about.
    if (old && autoResumes(*old)) {
        std::string body = *reasonText;
        body[0] = static_cast<char>(body[0] - 'a' + 'A');
        body += " cleared.";
        fx.push_back(Effect::alert(Alert{.id = EngineText::alertId("resumed", run.key, now),
                                         .title = displayName(run.key) + " resumed",
                                         .body = std::move(body),
                                         .level = Alert::Level::info,
                                         .category = Alert::Category::resumed,
                                         .run = run.key}));
    }
}

void PolicyEngine::markResumed(Run& run, Date now) {
    if (!run.pauses.empty() && !run.pauses.back().resumedAt) run.pauses.back().resumedAt = now;
    run.stuck.noteProgress(now);
    run.stuckFlagged = false;
    // Silence is counted from the resumption, not from before the pause.
    run.lastEventAt = now;
    run.setStatus(RunStatus::working, now);
}

}  // namespace tavra
