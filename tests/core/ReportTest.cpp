#include "core/Report.h"

#include <gtest/gtest.h>

#include "support/ScopedIcuDefaults.h"

namespace tavra {
namespace {

using namespace std::chrono;
using Kind = JournalEntry::Kind;
using Outcome = Report::RunSummary::Outcome;

// Saturday, 1 March 2025, 09:00 UTC, plus whole minutes.
Date at(int minute) {
    return Date(sys_days{year{2025} / March / day{1}} + hours{9} + minutes{minute});
}

RunKey key(const std::string& agent, const std::string& session) {
    return RunKey{AgentKind{agent}, session};
}

JournalEntry entry(int minute, Kind kind, std::optional<RunKey> run = {}, std::optional<double> work = {},
                   std::optional<std::string> cwd = {}, std::optional<std::string> reason = {},
                   std::optional<std::string> detail = {}) {
    return JournalEntry{at(minute),        kind, std::move(run), std::move(cwd), std::move(reason),
                        std::move(detail), work};
}

Run liveRun(const RunKey& k, RunStatus status, double workingSeconds = 0) {
    Run run(k, at(0));
    run.status = status;
    run.workingSeconds = workingSeconds;
    return run;
}

class ReportTest : public ::testing::Test {
protected:
    testing::ScopedIcuDefaults pinned{"en_US", "UTC"};
    const RunKey claude = key("claude", "c1");
    const RunKey codex = key("codex", "x1");
};

TEST_F(ReportTest, FoldsARealisticJournal) {
    const RunKey early = key("grok", "g1");
    const std::vector<JournalEntry> journal = {
        entry(-30, Kind::runStarted, early, std::nullopt, "/w/old"),  // before since: ignored
        entry(-10, Kind::sleep, std::nullopt, std::nullopt, std::nullopt, "lid closed"),
        entry(0, Kind::runStarted, claude, 0.0, "/Users/me/src/tavra/"),
        entry(2, Kind::paused, claude, 60.0, std::nullopt, "thermal"),
        entry(3, Kind::guardTripped, std::nullopt, std::nullopt, std::nullopt, "thermal", "serious"),
        entry(5, Kind::resumed, claude, 60.0),
        entry(6, Kind::turnFinished, early, 900.0),
        entry(7, Kind::runStarted, codex, std::nullopt, "/srv/api"),
        entry(8, Kind::guardTripped, early, std::nullopt, std::nullopt, "stale"),
        entry(9, Kind::paused, claude, 200.0),
        entry(10, Kind::sleep, codex, std::nullopt, std::nullopt, std::nullopt, "ignored"),
        entry(11, Kind::guardTripped),
        entry(12, Kind::resumed, claude, 200.0),
        entry(20, Kind::turnFinished, claude, 1500.0, "/Users/me/src/tavra"),
        entry(21, Kind::runEnded, claude, 1490.0),
        entry(25, Kind::approval, codex, 90.0),
        entry(26, Kind::power, std::nullopt, std::nullopt, std::nullopt, "released"),
        entry(27, Kind::runEnded, codex, 95.0),
    };
    const auto report = Report::build(journal, at(0), at(30), {});

    Report::RunSummary claudeSummary{
        claude, "tavra", at(0), at(21), 1500.0, 1, {"09:02 thermal", "09:09 paused"}, Outcome::finished};
    Report::RunSummary grokSummary{early, std::nullopt, at(6), at(8), 900.0, 1, {}, Outcome::finished};
    Report::RunSummary codexSummary{codex, "api", at(7), at(27), 95.0, 0, {}, Outcome::ended};
    EXPECT_EQ(report.runs, (std::vector{claudeSummary, grokSummary, codexSummary}));
    EXPECT_EQ(report.sleeps, (std::vector<std::string>{"09:10 sleep"}));
    EXPECT_EQ(report.guards, (std::vector<std::string>{"09:03 thermal: serious", "09:11 guard"}));
    EXPECT_EQ(report.totalWorkingSeconds(), 2495.0);

    EXPECT_EQ(report.renderText(),
              "Tavra report since Sat 09:00\n"
              "3 run(s) \u00b7 41m of agent work\n"
              "1. Claude \u00b7 tavra \u00b7 finished \u00b7 25m \u00b7 1 turn(s)\n"
              "   paused: 09:02 thermal, 09:09 paused\n"
              "2. Grok \u00b7 finished \u00b7 15m \u00b7 1 turn(s)\n"
              "3. Codex \u00b7 api \u00b7 ended \u00b7 1m\n"
              "Guards: 09:03 thermal: serious; 09:11 guard\n"
              "Sleeps: 09:10 sleep");

    // A live run knows better than its last entry: still working, with more time.
    const auto live = Report::build(journal, at(0), at(30), {liveRun(codex, RunStatus::working, 400)});
    EXPECT_EQ(live.runs[2].outcome, Outcome::running);
    EXPECT_EQ(live.runs[2].workingSeconds, 400);
}

}  // namespace
}  // namespace tavra
