#include "core/Run.h"

#include "core/EnumTable.h"

namespace tavra {

using TavraJSON::optional;
using TavraJSON::required;
using TavraJSON::setOptional;

namespace {

constexpr EnumTable::Table<RunStatus, 4> kStatusNames{{
    {RunStatus::working, "working"},
    {RunStatus::waiting, "waiting"},
    {RunStatus::idle, "idle"},
    {RunStatus::paused, "paused"},
}};

constexpr EnumTable::Table<PauseReason, 5> kReasonNames{{
    {PauseReason::thermal, "thermal"},
    {PauseReason::network, "network"},
    {PauseReason::stuck, "stuck"},
    {PauseReason::user, "user"},
    {PauseReason::remote, "remote"},
}};

}  // namespace

std::string_view toString(RunStatus status) noexcept {
    return EnumTable::nameOf(kStatusNames, status);
}
std::optional<RunStatus> parseRunStatus(std::string_view text) noexcept {
    return EnumTable::lookup(kStatusNames, text);
}
void to_json(Json& j, RunStatus status) {
    j = std::string(toString(status));
}
void from_json(const Json& j, RunStatus& status) {
    status = TavraJSON::readEnum<RunStatus>(j, parseRunStatus, "RunStatus");
}

void StatusCounts::add(RunStatus status) noexcept {
    switch (status) {
        case RunStatus::working:
            ++working;
            break;
        case RunStatus::waiting:
            ++waiting;
            break;
        case RunStatus::idle:
            ++idle;
            break;
        case RunStatus::paused:
            ++paused;
            break;
    }
}

std::string_view toString(PauseReason reason) noexcept {
    return EnumTable::nameOf(kReasonNames, reason);
}
std::optional<PauseReason> parsePauseReason(std::string_view text) noexcept {
    return EnumTable::lookup(kReasonNames, text);
}
bool autoResumes(PauseReason reason) noexcept {
    return reason == PauseReason::thermal || reason == PauseReason::network;
}
void to_json(Json& j, PauseReason reason) {
    j = std::string(toString(reason));
}
void from_json(const Json& j, PauseReason& reason) {
    reason = TavraJSON::readEnum<PauseReason>(j, parsePauseReason, "PauseReason");
}

void to_json(Json& j, const PauseRecord& r) {
    j = Json{{"reason", r.reason}, {"at", r.at}};
    setOptional(j, "resumedAt", r.resumedAt);
}

void from_json(const Json& j, PauseRecord& r) {
    TavraJSON::requireObject(j, "PauseRecord");
    r.reason = required<PauseReason>(j, "reason");
    r.at = required<Date>(j, "at");
    r.resumedAt = optional<Date>(j, "resumedAt");
}

Run::Run(RunKey runKey, Date now)
    : key(std::move(runKey)),
      startedAt(now),
      lastEventAt(now),
      statusSince(now),
      accountedUntil(now),
      stuck(now) {}

void Run::setStatus(RunStatus newStatus, Date now) {
    if (status == newStatus) return;
    status = newStatus;
    statusSince = now;
    if (newStatus != RunStatus::waiting) {
        waitingSince.reset();
        graceExpired = false;
    }
    if (newStatus != RunStatus::paused) pauseReason.reset();
}

void Run::accountWorkingTime(Date now) {
    if (status == RunStatus::working && now > accountedUntil)
        workingSeconds += secondsBetween(accountedUntil, now);
    if (now > accountedUntil) accountedUntil = now;
}

void to_json(Json& j, const Run& r) {
    j = Json{{"key", r.key},
             {"status", r.status},
             {"startedAt", r.startedAt},
             {"lastEventAt", r.lastEventAt},
             {"statusSince", r.statusSince},
             {"graceExpired", r.graceExpired},
             {"stuckFlagged", r.stuckFlagged},
             {"toolInFlight", r.toolInFlight},
             {"workingSeconds", r.workingSeconds},
             {"accountedUntil", r.accountedUntil},
             {"toolCount", r.toolCount},
             {"fileWrites", r.fileWrites},
             {"turnsCompleted", r.turnsCompleted},
             {"pauses", r.pauses},
             {"stuck", r.stuck}};
    setOptional(j, "cwd", r.cwd);
    setOptional(j, "pid", r.pid);
    setOptional(j, "transcriptPath", r.transcriptPath);
    setOptional(j, "pauseReason", r.pauseReason);
    setOptional(j, "waitingSince", r.waitingSince);
    setOptional(j, "turnStartWorkingSeconds", r.turnStartWorkingSeconds);
    setOptional(j, "lastMessage", r.lastMessage);
}

void from_json(const Json& j, Run& r) {
    TavraJSON::requireObject(j, "Run");
    r.key = required<RunKey>(j, "key");
    r.cwd = optional<std::string>(j, "cwd");
    r.pid = optional<std::int32_t>(j, "pid");
    r.transcriptPath = optional<std::string>(j, "transcriptPath");
    r.status = required<RunStatus>(j, "status");
    r.pauseReason = optional<PauseReason>(j, "pauseReason");
    r.startedAt = required<Date>(j, "startedAt");
    r.lastEventAt = required<Date>(j, "lastEventAt");
    r.statusSince = required<Date>(j, "statusSince");
    r.waitingSince = optional<Date>(j, "waitingSince");
    r.graceExpired = required<bool>(j, "graceExpired");
    r.stuckFlagged = required<bool>(j, "stuckFlagged");
    r.toolInFlight = required<bool>(j, "toolInFlight");
    r.workingSeconds = required<double>(j, "workingSeconds");
    r.turnStartWorkingSeconds = optional<double>(j, "turnStartWorkingSeconds");
    r.accountedUntil = required<Date>(j, "accountedUntil");
    r.toolCount = required<int>(j, "toolCount");
    r.fileWrites = required<int>(j, "fileWrites");
    r.turnsCompleted = required<int>(j, "turnsCompleted");
    r.pauses = required<std::vector<PauseRecord>>(j, "pauses");
    r.lastMessage = optional<std::string>(j, "lastMessage");
    r.stuck = required<StuckDetector>(j, "stuck");
}

}  // namespace tavra
