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

JournalEntry entry(int minute, Kind kind, std::optional<RunKey> run = std::nullopt,
                   std::optional<double> workingSeconds = std::nullopt,
                   std::optional<std::string> cwd = std::nullopt,
                   std::optional<std::string> reason = std::nullopt,
                   std::optional<std::string> detail = std::nullopt) {
    JournalEntry e;
    e.date = at(minute);
    e.kind = kind;
    e.run = std::move(run);
    e.cwd = std::move(cwd);
    e.reason = std::move(reason);
    e.detail = std::move(detail);
    e.workingSeconds = workingSeconds;
    return e;
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

TEST_F(ReportTest, NoEntriesGiveAnEmptyReportWhateverRunsAreLive) {
    const auto report = Report::build({}, at(0), at(60), {liveRun(claude, RunStatus::working, 500)});
    EXPECT_EQ(report, (Report{at(0), at(60), {}, {}, {}}));
    EXPECT_EQ(report.totalWorkingSeconds(), 0);
}

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
    EXPECT_EQ(report.since, at(0));
    EXPECT_EQ(report.generatedAt, at(30));
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
}

TEST_F(ReportTest, OutcomeFollowsTheLastMeaningfulEntry) {
    struct Case {
        const char* name;
        std::vector<Kind> kinds;
        Outcome expected;
    };
    const Case cases[] = {
        {"started", {Kind::runStarted}, Outcome::running},
        {"first entry of any kind", {Kind::approval}, Outcome::running},
        {"finished then ended", {Kind::runStarted, Kind::turnFinished, Kind::runEnded}, Outcome::finished},
        {"ended without a turn", {Kind::runStarted, Kind::runEnded}, Outcome::ended},
        {"ended then finished", {Kind::runEnded, Kind::turnFinished}, Outcome::finished},
        {"paused then ended", {Kind::paused, Kind::runEnded}, Outcome::ended},
        {"finished then paused", {Kind::turnFinished, Kind::paused}, Outcome::paused},
        {"paused then resumed", {Kind::paused, Kind::resumed}, Outcome::running},
        {"finished then resumed", {Kind::turnFinished, Kind::resumed}, Outcome::running},
        {"ended then guard", {Kind::runEnded, Kind::guardTripped}, Outcome::ended},
        {"paused then sleep", {Kind::paused, Kind::sleep, Kind::power}, Outcome::paused},
        {"restarted after end", {Kind::runEnded, Kind::runStarted}, Outcome::running},
    };
    for (const auto& c : cases) {
        std::vector<JournalEntry> journal;
        int minute = 0;
        for (Kind kind : c.kinds) journal.push_back(entry(minute++, kind, claude));
        const auto report = Report::build(journal, at(0), at(60), {});
        ASSERT_EQ(report.runs.size(), 1u) << c.name;
        EXPECT_EQ(report.runs[0].outcome, c.expected) << c.name;
    }
}

TEST_F(ReportTest, LiveRunsCorrectOutcomeAndWorkingTimeOfReportedRunsOnly) {
    struct Case {
        const char* name;
        std::vector<Kind> kinds;
        RunStatus live;
        double liveSeconds;
        Outcome expected;
        double expectedSeconds;
    };
    const Case cases[] = {
        {"idle without turns keeps ended",
         {Kind::runStarted, Kind::runEnded},
         RunStatus::idle,
         10,
         Outcome::ended,
         100},
        {"idle with turns is finished over ended",
         {Kind::turnFinished, Kind::runEnded, Kind::turnFinished, Kind::runEnded},
         RunStatus::idle,
         100,
         Outcome::finished,
         100},
        {"idle after a pause with a turn",
         {Kind::turnFinished, Kind::paused},
         RunStatus::idle,
         0,
         Outcome::finished,
         100},
        {"working overrides ended", {Kind::runEnded}, RunStatus::working, 400, Outcome::running, 400},
        {"working overrides finished", {Kind::turnFinished}, RunStatus::working, 100, Outcome::running, 100},
        {"waiting is running", {Kind::paused}, RunStatus::waiting, 0, Outcome::running, 100},
        {"paused overrides finished", {Kind::turnFinished}, RunStatus::paused, 250.5, Outcome::paused, 250.5},
        {"lower live time loses", {Kind::runStarted}, RunStatus::working, 30, Outcome::running, 100},
    };
    for (const auto& c : cases) {
        std::vector<JournalEntry> journal;
        int minute = 0;
        for (Kind kind : c.kinds) journal.push_back(entry(minute++, kind, claude, 100.0));
        const auto report =
            Report::build(journal, at(0), at(60),
                          {liveRun(codex, RunStatus::working, 9999), liveRun(claude, c.live, c.liveSeconds)});
        ASSERT_EQ(report.runs.size(), 1u) << c.name << ": a live run without entries stays out";
        EXPECT_EQ(report.runs[0].outcome, c.expected) << c.name;
        EXPECT_EQ(report.runs[0].workingSeconds, c.expectedSeconds) << c.name;
    }
}

TEST_F(ReportTest, TouchKeepsTheFirstDateTheLatestDateTheLatestProjectAndTheHighestTime) {
    const std::vector<JournalEntry> journal = {
        entry(10, Kind::runStarted, claude, 300.0, "/a/one"),
        entry(5, Kind::approval, claude, 100.0, "/a/two//"),  // an earlier date later in the journal
        entry(20, Kind::power, claude, std::nullopt, std::nullopt),
        entry(15, Kind::guardTripped, claude, 200.0, std::nullopt, "stale"),
    };
    const auto report = Report::build(journal, at(0), at(60), {});
    ASSERT_EQ(report.runs.size(), 1u);
    const auto& summary = report.runs[0];
    EXPECT_EQ(summary.firstSeen, at(10));
    EXPECT_EQ(summary.lastSeen, at(20));
    EXPECT_EQ(summary.project, "two");
    EXPECT_EQ(summary.workingSeconds, 300.0);
    EXPECT_TRUE(report.guards.empty());
}

TEST_F(ReportTest, ProjectIsTheLastComponentOfAPlainPath) {
    const std::pair<const char*, const char*> cases[] = {
        {"/a/b", "b"}, {"/a/b/", "b"}, {"b", "b"}, {"/", "/"}, {"", ""}, {"//x//", "x"}, {"/a b/c d", "c d"},
    };
    for (const auto& [cwd, project] : cases) {
        const auto report =
            Report::build({entry(0, Kind::runStarted, claude, std::nullopt, cwd)}, at(0), at(1), {});
        EXPECT_EQ(report.runs.at(0).project, project) << cwd;
    }
}

TEST_F(ReportTest, EntryExactlyAtSinceCountsAndRunsSortByFirstSeen) {
    const auto report = Report::build({entry(-1, Kind::runStarted, codex, 50.0),
                                       entry(5, Kind::approval, codex), entry(0, Kind::runStarted, claude)},
                                      at(0), at(10), {});
    ASSERT_EQ(report.runs.size(), 2u);
    EXPECT_EQ(report.runs[0].run, claude);
    EXPECT_EQ(report.runs[0].firstSeen, at(0));
    EXPECT_EQ(report.runs[1].run, codex);
    EXPECT_EQ(report.runs[1].firstSeen, at(5));
    EXPECT_EQ(report.runs[1].workingSeconds, 0) << "the skipped entry's time is not folded";
    EXPECT_EQ(report.runs[1].outcome, Outcome::running);
}

TEST_F(ReportTest, CodesAsJsonWithProjectLeftOutWhenAbsent) {
    Report report{at(0),
                  at(30),
                  {{claude, std::nullopt, at(1), at(2), 90.5, 2, {"09:01 user"}, Outcome::paused},
                   {codex, "api", at(3), at(4), 60, 0, {}, Outcome::ended}},
                  {"09:05 lid closed"},
                  {}};
    const Json json = Json(report);
    EXPECT_FALSE(json["runs"][0].contains("project"));
    EXPECT_EQ(json["runs"][1]["project"], "api");
    EXPECT_EQ(json["runs"][0]["outcome"], "paused");
    EXPECT_EQ(TavraJSON::decode<Report>(TavraJSON::encodeValue(report)), report);
    EXPECT_EQ(report.runs[0].id(), "claude:c1");

    EXPECT_THROW(
        TavraJSON::decode<Report>(R"({"since":"2025-03-01T09:00:00Z","generatedAt":"2025-03-01T09:00:00Z",)"
                                  R"("runs":[{"run":{"agent":"a","session":"b"},)"
                                  R"("firstSeen":"2025-03-01T09:00:00Z","lastSeen":"2025-03-01T09:00:00Z",)"
                                  R"("workingSeconds":0,"turnsFinished":0,"pauses":[],"outcome":"gone"}],)"
                                  R"("sleeps":[],"guards":[]})"),
        DecodingError);
}

TEST(ReportDuration, ShowsWholeMinutesAndHours) {
    const std::pair<double, const char*> cases[] = {
        {0, "<1m"},         {59, "<1m"},
        {59.999, "<1m"},    {-30, "<1m"},
        {-3600, "<1m"},     {60, "1m"},
        {119.9, "1m"},      {3599, "59m"},
        {3600, "1h 0m"},    {5400, "1h 30m"},
        {7200, "2h 0m"},    {90000, "25h 0m"},
        {86399, "23h 59m"}, {1e300, "153722867280912930h 7m"},
    };
    for (const auto& [seconds, expected] : cases) EXPECT_EQ(Report::duration(seconds), expected) << seconds;
}

class RenderTextTest : public ReportTest {};

TEST_F(RenderTextTest, NoRunsIsOneSentenceEvenWithGuardsAndSleeps) {
    const Report report{at(0), at(30), {}, {"09:05 sleep"}, {"09:06 battery"}};
    EXPECT_EQ(report.renderText(), "No agent runs since Sat 09:00.");
}

TEST_F(RenderTextTest, ABareRunIsOneShortLine) {
    const Report report{
        at(0), at(30), {{claude, std::nullopt, at(1), at(2), 0, 0, {}, Outcome::ended}}, {}, {}};
    EXPECT_EQ(report.renderText(),
              "Tavra report since Sat 09:00\n"
              "1 run(s) \u00b7 <1m of agent work\n"
              "1. Claude \u00b7 ended \u00b7 <1m");
}

TEST_F(RenderTextTest, SinceFollowsTheMachinesZoneAndLocale) {
    const Report report{at(0), at(30), {}, {}, {}};
    {
        testing::ScopedIcuDefaults tokyo("en_US", "Asia/Tokyo");
        EXPECT_EQ(report.renderText(), "No agent runs since Sat 18:00.");
    }
    testing::ScopedIcuDefaults german("de_DE", "Europe/Berlin");
    EXPECT_EQ(report.renderText(), "No agent runs since Sa. 10:00.");
    const auto built = Report::build({entry(1, Kind::sleep)}, at(0), at(1), {});
    EXPECT_EQ(built.sleeps, (std::vector<std::string>{"10:01 sleep"}));
}

SystemSnapshot snapshot(std::optional<int> battery, PowerSource source, ThermalLevel thermal, bool online) {
    SystemSnapshot s = SystemSnapshot::unknown;
    s.batteryPercent = battery;
    s.powerSource = source;
    s.thermal = thermal;
    s.networkReachable = online;
    return s;
}

TEST(StatusLineRender, FoldsRunsPlanAndMachineIntoOneLine) {
    const RunKey a = key("claude", "a"), b = key("codex", "b"), c = key("grok", "c"), d = key("claude", "d");
    PowerPlan released = PowerPlan::released;
    PowerPlan awake = released;
    awake.preventIdleSleep = true;
    PowerPlan lidSafe = awake;
    lidSafe.disableLidSleep = true;
    PowerPlan lidOnly = released;
    lidOnly.disableLidSleep = true;
    const auto up = snapshot(std::nullopt, PowerSource::unknown, ThermalLevel::nominal, true);

    struct Case {
        std::vector<tavra::Run> runs;
        SystemSnapshot system;
        PowerPlan plan;
        bool enabled;
        const char* expected;
    };
    const Case cases[] = {
        {{liveRun(a, RunStatus::working)}, up, lidSafe, false, "Tavra off"},
        {{}, up, released, true, "idle \u00b7 cool"},
        {{liveRun(a, RunStatus::idle), liveRun(b, RunStatus::idle)}, up, released, true, "idle \u00b7 cool"},
        {{liveRun(a, RunStatus::working), liveRun(b, RunStatus::paused), liveRun(c, RunStatus::paused)},
         snapshot(80, PowerSource::battery, ThermalLevel::serious, false),
         lidSafe,
         true,
         "1 agent running \u00b7 2 paused \u00b7 lid-safe \u00b7 80% \u00b7 hot \u00b7 offline"},
        {{liveRun(a, RunStatus::working), liveRun(b, RunStatus::working), liveRun(c, RunStatus::waiting),
          liveRun(d, RunStatus::idle)},
         snapshot(55, PowerSource::ac, ThermalLevel::fair, true),
         awake,
         true,
         "2 agents running \u00b7 1 waiting \u00b7 awake \u00b7 55%\u26a1\ufe0e \u00b7 warm"},
        {{liveRun(a, RunStatus::waiting)},
         snapshot(100, PowerSource::unknown, ThermalLevel::critical, true),
         lidOnly,
         true,
         "1 waiting \u00b7 lid-safe \u00b7 100%\u26a1\ufe0e \u00b7 critical"},
        {{liveRun(a, RunStatus::paused)},
         snapshot(std::nullopt, PowerSource::battery, ThermalLevel::nominal, true),
         released,
         true,
         "1 paused \u00b7 cool"},
    };
    for (const auto& row : cases)
        EXPECT_EQ(StatusLine::render(row.runs, row.system, row.plan, row.enabled), row.expected);
}

}  // namespace
}  // namespace tavra
