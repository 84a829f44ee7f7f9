// Agent events: creating runs, keeping them fresh, walking them through their
// statuses, and telling the user when a run finishes or needs them.

#include <cmath>

#include "core/EngineText.h"
#include "core/PolicyEngine.h"
#include "core/Text.h"

namespace tavra {

using Kind = AgentEvent::Kind;

void PolicyEngine::apply(const AgentEvent& event, Date now, Effects& fx) {
    RunKey key = event.runKey();
    auto it = runs_.find(key);
    if (it == runs_.end()) {
        // The end of a session never seen creates nothing and says nothing.
        if (event.kind == Kind::sessionEnded) return;
        addRun(key, now);
        it = runs_.find(key);
        fx.push_back(Effect::journal(
            JournalEntry{.date = now, .kind = JournalEntry::Kind::runStarted, .run = key, .cwd = event.cwd}));
    }
    Run& run = it->second;

    // Alerts of this very event are named from what was known before it: a
    // cwd that arrives with the event shows from the next alert on.
    // Only the kinds that alert need it, so the copy is spared for the rest.
    const bool mayAlert = event.kind == Kind::permissionRequested || event.kind == Kind::needsAttention ||
                          event.kind == Kind::turnStopped;
    const std::optional<std::string> knownCwd = mayAlert ? run.cwd : std::nullopt;

    run.lastEventAt = now;
    if (event.cwd) run.cwd = event.cwd;
    if (event.pid) run.pid = event.pid;
    if (event.transcriptPath) run.transcriptPath = event.transcriptPath;
    if (event.message && !event.message->empty()) run.lastMessage = event.message;

    const bool resumesWork = event.kind == Kind::promptSubmitted || event.kind == Kind::toolStarted ||
                             event.kind == Kind::toolFinished || event.kind == Kind::toolFailed;
    // The agent is evidently running again (someone thawed it): close the
    // pause record. The thaw itself is not ours to send here.
    if (run.status == RunStatus::paused && resumesWork) markResumed(run, now);

    switch (event.kind) {
        case Kind::sessionStarted:
        case Kind::activity:
            break;

        case Kind::promptSubmitted:
            if (!run.turnStartWorkingSeconds) run.turnStartWorkingSeconds = run.workingSeconds;
            run.stuck.noteProgress(now);
            run.stuckFlagged = false;
            run.setStatus(RunStatus::working, now);
            break;

        case Kind::toolStarted:
            run.toolInFlight = true;
            ++run.toolCount;
            if (event.tool) run.stuck.record(*event.tool, now);
            run.setStatus(RunStatus::working, now);
            break;

        case Kind::toolFinished:
            run.toolInFlight = false;
            if (event.tool && event.tool->isFileWrite) {
                ++run.fileWrites;
                run.stuck.noteProgress(now);
                run.stuckFlagged = false;
            }
            run.setStatus(RunStatus::working, now);
            break;

        case Kind::toolFailed:
            // A failed call is no progress, whatever it tried to write.
            run.toolInFlight = false;
            run.setStatus(RunStatus::working, now);
            break;

        case Kind::permissionRequested:
        case Kind::needsAttention:
            startWaiting(run, event, knownCwd, now, fx);
            break;

        case Kind::turnStopped:
            finishTurn(run, knownCwd, now, fx);
            break;

        case Kind::sessionEnded:
            // An empty message is passed on as it is.
            end(key, event.message ? *event.message : std::string("session ended"), now, fx);
            break;
    }
}

void PolicyEngine::startWaiting(Run& run, const AgentEvent& event, const std::optional<std::string>& knownCwd,
                                Date now, Effects& fx) {
    const RunKey& key = run.key;
    // One alert per wait; a paused run stays paused.
    if (run.status == RunStatus::paused || run.status == RunStatus::waiting) return;
    run.setStatus(RunStatus::waiting, now);
    run.waitingSince = now;
    std::string body;
    if (event.message) {
        body = *event.message;
    } else {
        body = "Waiting for permission";
        if (event.tool) body += " to use " + event.tool->name;
        body += ".";
    }
    fx.push_back(Effect::alert(Alert{.id = EngineText::alertId("permission", key, now),
                                     .title = nameFor(key.agent, knownCwd) + " needs you",
                                     .body = std::move(body),
                                     .level = Alert::Level::warning,
                                     .category = Alert::Category::permission,
                                     .run = key}));
}

void PolicyEngine::finishTurn(Run& run, const std::optional<std::string>& knownCwd, Date now, Effects& fx) {
    const RunKey& key = run.key;
    run.toolInFlight = false;
    if (run.status == RunStatus::idle) {
        // No turn was running: nothing to count or tell.
        run.turnStartWorkingSeconds.reset();
        return;
    }
    ++run.turnsCompleted;
    std::optional<double> turnWork;
    if (run.turnStartWorkingSeconds) turnWork = run.workingSeconds - *run.turnStartWorkingSeconds;
    fx.push_back(Effect::journal(JournalEntry{.date = now,
                                              .kind = JournalEntry::Kind::turnFinished,
                                              .run = key,
                                              .cwd = run.cwd,
                                              .workingSeconds = run.workingSeconds}));
    fx.push_back(
        Effect::alert(Alert{.id = "finished-" + key.description() + "-" + std::to_string(run.turnsCompleted),
                            .title = nameFor(key.agent, knownCwd) + " finished",
                            .body = finishedBody(run, turnWork),
                            .level = Alert::Level::info,
                            .category = Alert::Category::finished,
                            .run = key,
                            .workSeconds = turnWork}));
    run.turnStartWorkingSeconds.reset();
    run.setStatus(RunStatus::idle, now);
}

void PolicyEngine::end(const RunKey& key, const std::string& reason, Date now, Effects& fx) {
    auto it = runs_.find(key);
    if (it == runs_.end()) return;
    Run run = std::move(it->second);
    eraseRun(it);

    // No frozen tree may outlive its run.
    if (run.status == RunStatus::paused && run.pid) fx.push_back(Effect::thaw(key, *run.pid));
    fx.push_back(Effect::journal(JournalEntry{.date = now,
                                              .kind = JournalEntry::Kind::runEnded,
                                              .run = key,
                                              .cwd = run.cwd,
                                              .reason = reason,
                                              .workingSeconds = run.workingSeconds}));
    if (run.status == RunStatus::working || run.status == RunStatus::paused) {
        // The run has left `runs`, so its name is the bare agent name.
        fx.push_back(Effect::alert(Alert{.id = EngineText::alertId("ended", key, now),
                                         .title = displayName(key) + " stopped mid-run",
                                         .body = "Reason: " + reason + ".",
                                         .level = Alert::Level::warning,
                                         .category = Alert::Category::system,
                                         .run = key}));
    }
}

std::string PolicyEngine::finishedBody(const Run& run, std::optional<double> turnWork) {
    std::string body;
    if (turnWork) {
        double minutes = std::trunc(*turnWork / 60);
        body += "Worked ";
        body += minutes < 1 ? std::string("<1") : EngineText::wholeNumber(minutes);
        body += " min \xC2\xB7 ";
    }
    body += std::to_string(run.toolCount) + " tool calls";
    if (run.fileWrites >= 1) body += " \xC2\xB7 " + std::to_string(run.fileWrites) + " file edits";
    if (run.lastMessage && !run.lastMessage->empty()) {
        body += '\n';
        body += Text::prefixCharacters(*run.lastMessage, 280);
    }
    return body;
}

}  // namespace tavra
