#pragma once

// What happened since a moment: a pure fold of the journal and the live runs,
// and the two plain-text views of the system (the report and the status line).

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/ConfigCoding.h"
#include "core/Date.h"
#include "core/Effects.h"
#include "core/Models.h"
#include "core/Run.h"

namespace tavra {

struct Report {
    struct RunSummary {
        enum class Outcome { finished, running, paused, ended };

        RunKey run;
        std::optional<std::string> project;  // last component of the latest cwd
        Date firstSeen;                      // date of the first folded entry
        Date lastSeen;                       // latest date among folded entries
        double workingSeconds = 0;           // highest total seen
        std::int64_t turnsFinished = 0;
        std::vector<std::string> pauses;  // "{HH:mm} {reason}", journal order
        Outcome outcome = Outcome::running;

        // "{agent}:{session}"
        std::string id() const;

        bool operator==(const RunSummary&) const = default;
    };

    Date since;
    Date generatedAt;
    std::vector<RunSummary> runs;     // by firstSeen ascending
    std::vector<std::string> sleeps;  // "{HH:mm} {reason}", journal order
    std::vector<std::string> guards;  // machine guards only, journal order

    bool operator==(const Report&) const = default;

    // Sum of the runs' working time; 0 without runs.
    double totalWorkingSeconds() const noexcept;

    // Folds `entries` (in the order they were written; entries before `since`
    // are skipped) and then lets the live runs correct working time and
    // outcome of the runs already in the report. Times of day are printed as
    // "HH:mm" in ICU's default zone and locale. Cannot fail.
    static Report build(const std::vector<JournalEntry>& entries, Date since, Date now,
                        const std::vector<Run>& liveRuns);

    // "<1m", "{m}m" or "{h}h {m}m" from whole minutes; seconds never show.
    // Expects a finite number.
    static std::string duration(double seconds);

    // A multi-line summary for a terminal or a short chat message, without a
    // final line feed. `since` is printed as "EEE HH:mm".
    std::string renderText() const;
};

std::string_view toString(Report::RunSummary::Outcome outcome) noexcept;
std::optional<Report::RunSummary::Outcome> parseOutcome(std::string_view text) noexcept;

void to_json(Json& j, const Report::RunSummary& value);
void from_json(const Json& j, Report::RunSummary& value);
void to_json(Json& j, const Report& value);
void from_json(const Json& j, Report& value);

// The whole present state in one line, for a menu bar or a status reply.
namespace StatusLine {

// "Tavra off" when not enabled; otherwise the counts of working, waiting and
// paused runs (or "idle"), the power hold, the battery, the thermal label and
// "offline", joined by " · ".
std::string render(const std::vector<Run>& runs, const SystemSnapshot& system, const PowerPlan& plan,
                   bool enabled);

}  // namespace StatusLine

}  // namespace tavra
