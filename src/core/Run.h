#pragma once

// What the engine knows about one agent session: its status, its pause
// history and its accounting of working time. The engine keeps one per
// RunKey; the same record travels in daemon status and feeds reports.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/ConfigCoding.h"
#include "core/Date.h"
#include "core/Models.h"
#include "core/StuckDetector.h"

namespace tavra {

// `working` is the only status in which working time accrues.
enum class RunStatus { working, waiting, idle, paused };

std::string_view toString(RunStatus status) noexcept;
std::optional<RunStatus> parseRunStatus(std::string_view text) noexcept;
void to_json(Json& j, RunStatus status);
void from_json(const Json& j, RunStatus& status);

// How many runs stand in each status, for the headlines that count them.
struct StatusCounts {
    std::size_t working = 0;
    std::size_t waiting = 0;
    std::size_t idle = 0;
    std::size_t paused = 0;

    void add(RunStatus status) noexcept;
};

enum class PauseReason { thermal, network, stuck, user, remote };

std::string_view toString(PauseReason reason) noexcept;
std::optional<PauseReason> parsePauseReason(std::string_view text) noexcept;
// The reasons whose cause can clear by itself (thermal, network).
bool autoResumes(PauseReason reason) noexcept;
void to_json(Json& j, PauseReason reason);
void from_json(const Json& j, PauseReason& reason);

struct PauseRecord {
    PauseReason reason = PauseReason::user;
    Date at{};
    std::optional<Date> resumedAt;  // absent while the pause lasts

    bool operator==(const PauseRecord&) const = default;
};

void to_json(Json& j, const PauseRecord& record);
void from_json(const Json& j, PauseRecord& record);

struct Run {
    RunKey key;
    std::optional<std::string> cwd;
    std::optional<std::int32_t> pid;  // without it a run cannot be frozen
    std::optional<std::string> transcriptPath;
    RunStatus status = RunStatus::idle;
    std::optional<PauseReason> pauseReason;  // only while paused
    Date startedAt{};
    Date lastEventAt{};
    Date statusSince{};
    std::optional<Date> waitingSince;
    bool graceExpired = false;
    bool stuckFlagged = false;
    bool toolInFlight = false;
    double workingSeconds = 0;
    std::optional<double> turnStartWorkingSeconds;
    Date accountedUntil{};
    int toolCount = 0;
    int fileWrites = 0;
    int turnsCompleted = 0;
    std::vector<PauseRecord> pauses;  // oldest first
    std::optional<std::string> lastMessage;
    StuckDetector stuck;

    // For decoding; the engine always starts runs with Run(key, now).
    Run() = default;
    // A fresh run: idle, every clock at `now`, counters zero.
    Run(RunKey runKey, Date now);

    // "{agent}:{session}".
    std::string id() const { return key.description(); }
    bool isFrozen() const noexcept { return status == RunStatus::paused && pid.has_value(); }

    // The one way status changes. Setting the present status changes nothing
    // at all; leaving `waiting` ends the wait (and its grace); leaving
    // `paused` clears the pause reason. Entering `waiting` does not stamp
    // `waitingSince` and entering `paused` does not set `pauseReason`: the
    // callers do.
    void setStatus(RunStatus newStatus, Date now);

    // Accrues time spent `working` since `accountedUntil`, then moves
    // `accountedUntil` up to `now` (never back: a clock set back accrues
    // nothing). `workingSeconds` never falls.
    void accountWorkingTime(Date now);

    bool operator==(const Run&) const = default;
};

void to_json(Json& j, const Run& run);
void from_json(const Json& j, Run& run);

}  // namespace tavra
