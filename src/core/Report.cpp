#include "core/Report.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <utility>

#include "core/EnumTable.h"
#include "core/Text.h"
#include "core/TimeFormatter.h"

namespace tavra {

namespace {

using Outcome = Report::RunSummary::Outcome;

// Summaries by run, in the order they were first touched; the fold keeps
// this order so that equal firstSeen dates stay stable.
class SummaryTable {
public:
    Report::RunSummary& touch(const RunKey& key, const JournalEntry& entry) {
        auto [it, inserted] = index_.try_emplace(indexKey(key), summaries_.size());
        if (inserted) {
            Report::RunSummary fresh;
            fresh.run = key;
            fresh.firstSeen = entry.date;
            fresh.lastSeen = entry.date;
            summaries_.push_back(std::move(fresh));
        }
        Report::RunSummary& summary = summaries_[it->second];
        summary.lastSeen = std::max(summary.lastSeen, entry.date);
        if (entry.cwd) summary.project = Text::lastPathComponent(*entry.cwd);
        // A running total that only grows: the largest reading wins.
        if (entry.workingSeconds)
            summary.workingSeconds = std::max(summary.workingSeconds, *entry.workingSeconds);
        return summary;
    }

    Report::RunSummary* find(const RunKey& key) {
        auto it = index_.find(indexKey(key));
        return it == index_.end() ? nullptr : &summaries_[it->second];
    }

    std::vector<Report::RunSummary> sortedByFirstSeen() && {
        std::stable_sort(summaries_.begin(), summaries_.end(),
                         [](const auto& a, const auto& b) { return a.firstSeen < b.firstSeen; });
        return std::move(summaries_);
    }

private:
    // Both fields, not the description: "a:b" + "c" and "a" + "b:c" are two runs.
    static std::pair<std::string, std::string> indexKey(const RunKey& key) {
        return {key.agent.rawValue, key.session};
    }

    std::map<std::pair<std::string, std::string>, std::size_t> index_;
    std::vector<Report::RunSummary> summaries_;
};

}  // namespace

std::string Report::RunSummary::id() const {
    return run.agent.rawValue + ":" + run.session;
}

double Report::totalWorkingSeconds() const noexcept {
    double total = 0;
    for (const auto& summary : runs) total += summary.workingSeconds;
    return total;
}

namespace {

// What one journal entry about a run changes in its summary.
void foldEntry(Report::RunSummary& summary, const JournalEntry& entry, const TimeFormatter& timeOfDay) {
    switch (entry.kind) {
        case JournalEntry::Kind::runStarted:
            summary.outcome = Outcome::running;
            break;
        case JournalEntry::Kind::turnFinished:
            summary.turnsFinished += 1;
            summary.outcome = Outcome::finished;
            break;
        case JournalEntry::Kind::runEnded:
            // A run that finished a turn and then ended is reported as finished.
            if (summary.outcome != Outcome::finished) summary.outcome = Outcome::ended;
            break;
        case JournalEntry::Kind::paused:
            summary.pauses.push_back(timeOfDay.format(entry.date) + " " + entry.reason.value_or("paused"));
            summary.outcome = Outcome::paused;
            break;
        case JournalEntry::Kind::resumed:
            summary.outcome = Outcome::running;
            break;
        default:
            break;
    }
}

// The engine knows better than the journal how a run stands right now.
void foldLiveRun(Report::RunSummary& summary, const Run& run) {
    summary.workingSeconds = std::max(summary.workingSeconds, run.workingSeconds);
    switch (run.status) {
        case RunStatus::working:
        case RunStatus::waiting:
            summary.outcome = Outcome::running;
            break;
        case RunStatus::paused:
            summary.outcome = Outcome::paused;
            break;
        case RunStatus::idle:
            if (summary.turnsFinished > 0) summary.outcome = Outcome::finished;
            break;
    }
}

}  // namespace

Report Report::build(const std::vector<JournalEntry>& entries, Date since, Date now,
                     const std::vector<Run>& liveRuns) {
    const TimeFormatter timeOfDay("HH:mm");
    SummaryTable table;
    std::vector<std::string> sleeps;
    std::vector<std::string> guards;

    for (const auto& entry : entries) {
        if (entry.date < since) continue;
        if (entry.kind == JournalEntry::Kind::guardTripped && !entry.run) {
            // A guard that names a run (a stale run) tells of that run, not of
            // the machine, and stays out of this list.
            std::string line = timeOfDay.format(entry.date) + " " + entry.reason.value_or("guard");
            if (entry.detail) line += ": " + *entry.detail;
            guards.push_back(std::move(line));
        }
        if (entry.kind == JournalEntry::Kind::sleep) {
            sleeps.push_back(timeOfDay.format(entry.date) + " " + entry.reason.value_or("sleep"));
        }
        if (!entry.run) continue;

        foldEntry(table.touch(*entry.run, entry), entry, timeOfDay);
    }

    for (const auto& run : liveRuns) {
        RunSummary* summary = table.find(run.key);
        if (summary == nullptr) continue;
        foldLiveRun(*summary, run);
    }

    return Report{since, now, std::move(table).sortedByFirstSeen(), std::move(sleeps), std::move(guards)};
}

std::string Report::duration(double seconds) {
    const double wholeMinutes = std::trunc(seconds / 60.0);
    if (!(wholeMinutes >= 1)) return "<1m";  // NaN lands here as well
    // Clamp before converting: a cast of an out-of-range double is undefined.
    const auto minutes = wholeMinutes >= 9.0e18 ? std::numeric_limits<std::int64_t>::max()
                                                : static_cast<std::int64_t>(wholeMinutes);
    if (minutes < 60) return std::to_string(minutes) + "m";
    return std::to_string(minutes / 60) + "h " + std::to_string(minutes % 60) + "m";
}

std::string Report::renderText() const {
    const std::string sinceText = TimeFormatter("EEE HH:mm").format(since);
    if (runs.empty()) return "No agent runs since " + sinceText + ".";

    std::vector<std::string> lines;
    lines.push_back("Tavra report since " + sinceText);
    lines.push_back(std::to_string(runs.size()) + " run(s) \u00b7 " + duration(totalWorkingSeconds()) +
                    " of agent work");
    std::size_t number = 0;
    for (const auto& summary : runs) {
        std::string line =
            std::to_string(++number) + ". " + Text::capitalizedWords(summary.run.agent.rawValue);
        if (summary.project) line += " \u00b7 " + *summary.project;
        line += " \u00b7 " + std::string(toString(summary.outcome));
        line += " \u00b7 " + duration(summary.workingSeconds);
        if (summary.turnsFinished > 0)
            line += " \u00b7 " + std::to_string(summary.turnsFinished) + " turn(s)";
        lines.push_back(std::move(line));
        if (!summary.pauses.empty()) lines.push_back("   paused: " + Text::join(summary.pauses, ", "));
    }
    if (!guards.empty()) lines.push_back("Guards: " + Text::join(guards, "; "));
    if (!sleeps.empty()) lines.push_back("Sleeps: " + Text::join(sleeps, "; "));
    return Text::join(lines, "\n");
}

namespace {
constexpr EnumTable::Table<Outcome, 4> kOutcomeNames{{
    {Outcome::finished, "finished"},
    {Outcome::running, "running"},
    {Outcome::paused, "paused"},
    {Outcome::ended, "ended"},
}};
}  // namespace

std::string_view toString(Report::RunSummary::Outcome outcome) noexcept {
    return EnumTable::nameOf(kOutcomeNames, outcome);
}

std::optional<Report::RunSummary::Outcome> parseOutcome(std::string_view text) noexcept {
    return EnumTable::lookup(kOutcomeNames, text);
}

void to_json(Json& j, const Report::RunSummary& value) {
    j = Json::object();
    j["run"] = value.run;
    TavraJSON::setOptional(j, "project", value.project);
    j["firstSeen"] = value.firstSeen;
    j["lastSeen"] = value.lastSeen;
    j["workingSeconds"] = value.workingSeconds;
    j["turnsFinished"] = value.turnsFinished;
    j["pauses"] = value.pauses;
    j["outcome"] = std::string(toString(value.outcome));
}

void from_json(const Json& j, Report::RunSummary& value) {
    TavraJSON::requireObject(j, "Report.RunSummary");
    value.run = TavraJSON::required<RunKey>(j, "run");
    value.project = TavraJSON::optional<std::string>(j, "project");
    value.firstSeen = TavraJSON::required<Date>(j, "firstSeen");
    value.lastSeen = TavraJSON::required<Date>(j, "lastSeen");
    value.workingSeconds = TavraJSON::required<double>(j, "workingSeconds");
    value.turnsFinished = TavraJSON::required<std::int64_t>(j, "turnsFinished");
    value.pauses = TavraJSON::required<std::vector<std::string>>(j, "pauses");
    auto it = j.find("outcome");
    if (it == j.end()) throw DecodingError("key \"outcome\" not found");
    value.outcome = TavraJSON::readEnum<Outcome>(*it, parseOutcome, "Outcome");
}

void to_json(Json& j, const Report& value) {
    j = Json::object();
    j["since"] = value.since;
    j["generatedAt"] = value.generatedAt;
    j["runs"] = value.runs;
    j["sleeps"] = value.sleeps;
    j["guards"] = value.guards;
}

void from_json(const Json& j, Report& value) {
    TavraJSON::requireObject(j, "Report");
    value.since = TavraJSON::required<Date>(j, "since");
    value.generatedAt = TavraJSON::required<Date>(j, "generatedAt");
    value.runs = TavraJSON::required<std::vector<Report::RunSummary>>(j, "runs");
    value.sleeps = TavraJSON::required<std::vector<std::string>>(j, "sleeps");
    value.guards = TavraJSON::required<std::vector<std::string>>(j, "guards");
}

namespace StatusLine {

std::string render(const std::vector<Run>& runs, const SystemSnapshot& system, const PowerPlan& plan,
                   bool enabled) {
    if (!enabled) return "Tavra off";
    StatusCounts tally;
    for (const auto& run : runs) tally.add(run.status);
    std::vector<std::string> parts;
    if (tally.working > 0)
        parts.push_back(std::to_string(tally.working) +
                        (tally.working == 1 ? " agent running" : " agents running"));
    if (tally.waiting > 0) parts.push_back(std::to_string(tally.waiting) + " waiting");
    if (tally.paused > 0) parts.push_back(std::to_string(tally.paused) + " paused");
    if (parts.empty()) parts.emplace_back("idle");
    if (plan.disableLidSleep) {
        parts.emplace_back("lid-safe");
    } else if (plan.preventIdleSleep) {
        parts.emplace_back("awake");
    }
    if (system.batteryPercent) {
        std::string battery = std::to_string(*system.batteryPercent) + "%";
        // Any source but the battery counts as charging, an unknown one too.
        if (system.powerSource != PowerSource::battery) battery += "\u26a1\ufe0e";
        parts.push_back(std::move(battery));
    }
    parts.emplace_back(label(system.thermal));
    if (!system.networkReachable) parts.emplace_back("offline");
    return Text::join(parts, " \u00b7 ");
}

}  // namespace StatusLine

}  // namespace tavra
