#include <gtest/gtest.h>

#include "kit/RemoteReplies.h"
#include "support/SampleStatus.h"
#include "support/ScopedIcuDefaults.h"

namespace tavra {
namespace {

using testing::minutesFrom;
using testing::sampleNow;
using Rows = std::vector<std::vector<AlertAction>>;
using Outcome = Report::RunSummary::Outcome;

const AlertAction kStatus{"\u2615\uFE0F Status", "status"};

TEST(RemoteReplyTest, EscapeAndPlainUndoEachOther) {
    EXPECT_EQ(RemoteReply::escape("a<b> & \"c\""), "a&lt;b&gt; &amp; \"c\"");
    EXPECT_EQ(RemoteReply::escape("&lt;"), "&amp;lt;");

    const std::pair<std::string, std::string> cases[] = {
        {"<b>Hi</b> <i>there</i>", "Hi there"},
        {"a&amp;lt;b", "a&lt;b"},  // &amp; goes last
        {"x &lt;y&gt; &quot;z&quot; &amp; w", "x <y> \"z\" & w"},
        {"1 <> 2 < 3", "1 <> 2 < 3"},  // no tag: nothing between the brackets, or no closing one
        {"<a<b>c", "c"},
        {"", ""},
    };
    for (const auto& [html, plain] : cases) {
        RemoteReply reply{html, {}, RemoteReply::Placement::newMessage(), std::nullopt, false};
        EXPECT_EQ(reply.plain(), plain) << html;
    }
    std::string odd = "if a<b && c>d then \"x\" &lt;";
    RemoteReply reply{
        RemoteReply::escape(odd), {}, RemoteReply::Placement::newMessage(), std::nullopt, false};
    EXPECT_EQ(reply.plain(), odd);
}

TEST(RemoteRepliesTest, UnknownTextIsCutAtFortyCharactersThenEscaped) {
    auto reply = RemoteReplies::unknown("<b>hi");
    EXPECT_EQ(reply.html, "\U0001F914 I don't know \u201C&lt;b&gt;hi\u201D.\nTap a button or send /help.");
    EXPECT_EQ(reply.buttons, (Rows{{kStatus, {"\u2753 Help", "help"}}}));
    EXPECT_EQ(reply.placement, RemoteReply::Placement::newMessage());

    auto shown = [](const std::string& text) {
        auto html = RemoteReplies::unknown(text).html;
        auto open = html.find("\u201C") + 3;
        return html.substr(open, html.find("\u201D") - open);
    };
    EXPECT_EQ(shown(std::string(40, 'a')), std::string(40, 'a'));
    EXPECT_EQ(shown(std::string(41, 'a')), std::string(40, 'a') + "\u2026");
    // A flag is one character of eight bytes; "é" built from two code points is one.
    std::string flag = "\U0001F1E9\U0001F1EA";
    std::string accent = "e\u0301";
    std::string flags;
    for (int i = 0; i < 41; ++i) flags += flag;
    std::string forty;
    for (int i = 0; i < 40; ++i) forty += flag;
    EXPECT_EQ(shown(flags), forty + "\u2026");
    std::string accents;
    for (int i = 0; i < 40; ++i) accents += accent;
    EXPECT_EQ(shown(accents), accents);
    // The cut comes before escaping, so "&" counts once and is never split.
    EXPECT_EQ(shown(std::string(39, 'a') + "&&"), std::string(39, 'a') + "&amp;\u2026");
}

TEST(RemoteRepliesTest, NoMatchEscapesTheTarget) {
    auto reply = RemoteReplies::noMatch("a&b");
    EXPECT_EQ(reply.html, "\U0001F937 No agent matches \u201Ca&amp;b\u201D.\nUse the number from /status.");
    EXPECT_EQ(reply.buttons, (Rows{{kStatus}}));
    EXPECT_EQ(reply.placement, RemoteReply::Placement::newMessage());
}

TEST(RemoteRepliesTest, HelpListsTheCommands) {
    auto reply = RemoteReplies::help();
    EXPECT_EQ(
        reply.html,
        "\u2615\uFE0F <b>Tavra</b>, from your phone\n\n<b>See</b>\n/status \u00b7 what's running\n/report "
        "\u00b7 what happened (/report 24 for a day)\n\n<b>Control</b>\n/pause \u00b7 /resume \u00b7 all "
        "agents, "
        "or one: /pause 2\n/stayawake 90 \u00b7 keep the Mac awake for 90 min\n/release \u00b7 end the "
        "stay-awake hold\n/sleep \u00b7 put the Mac to sleep\n/off \u00b7 /on \u00b7 turn Tavra off or "
        "on\n\nApprovals arrive with \u2705 Approve and \u26D4\uFE0F Deny buttons.");
    EXPECT_EQ(reply.buttons, (Rows{{kStatus, {"\U0001F4CA Report", "report"}}}));
    EXPECT_EQ(reply.placement, RemoteReply::Placement::replace());
}

TEST(RemoteRepliesTest, StayAwakeWritesWholeHoursOrADuration) {
    testing::ScopedIcuDefaults icu{"en_GB", "UTC"};
    Date until = minutesFrom(sampleNow(), 120);
    auto reply = RemoteReplies::stayAwake(120, until);
    EXPECT_EQ(
        reply.html,
        "\u2600\uFE0F <b>Keeping the Mac awake until 11:30</b>\nThat's 2h, even if no agent is working.");
    EXPECT_EQ(reply.buttons, (Rows{{{"+1h", "stayawake 180"}, {"\U0001F319 Release", "release"}}}));
    EXPECT_EQ(reply.toast, "Awake until 11:30");
    EXPECT_EQ(reply.placement, RemoteReply::Placement::replace());

    EXPECT_NE(RemoteReplies::stayAwake(90, until).html.find("That's 1h 30m,"), std::string::npos);
    EXPECT_NE(RemoteReplies::stayAwake(45, until).html.find("That's 45m,"), std::string::npos);
}

TEST(RemoteRepliesTest, ReleasedTellsWhatStillHolds) {
    const std::pair<std::int64_t, std::string> cases[] = {
        {0, "The Mac can sleep normally now."},
        {-1, "The Mac can sleep normally now."},
        {1, "Tavra still keeps the Mac awake while an agent works."},
        {3, "Tavra still keeps the Mac awake while 3 agents work."},
    };
    for (const auto& [n, sentence] : cases) {
        auto reply = RemoteReplies::released(n);
        EXPECT_EQ(reply.html, "\U0001F319 <b>Stay-awake hold released</b>\n" + sentence);
        EXPECT_EQ(reply.buttons, (Rows{{{"\u2600\uFE0F Awake 1h", "stayawake 60"}, kStatus}}));
        EXPECT_EQ(reply.toast, "Released");
    }
}

TEST(RemoteRepliesTest, SleepConfirmationAndTheShortReplies) {
    auto one = RemoteReplies::confirmSleep(1);
    EXPECT_EQ(
        one.html,
        "\U0001F634 <b>Sleep the Mac now?</b>\nAn agent is still working and will stop until the Mac wakes. "
        "You can't reach it from here while it sleeps.");
    EXPECT_EQ(one.buttons, (Rows{{{"\U0001F634 Sleep now", "sleep now"}, {"Cancel", "cancel"}}}));
    EXPECT_EQ(one.placement, RemoteReply::Placement::newMessage());
    EXPECT_NE(RemoteReplies::confirmSleep(0).html.find("\n0 agents are still working"), std::string::npos);

    auto sleeping = RemoteReplies::sleeping();
    EXPECT_EQ(sleeping.html,
              "\U0001F634 <b>Putting the Mac to sleep.</b>\nOpen the lid or press a key to wake it.");
    EXPECT_TRUE(sleeping.buttons.empty());
    EXPECT_EQ(sleeping.toast, "Going to sleep");

    EXPECT_EQ(RemoteReplies::cancelled(), (RemoteReply{"\U0001F44D Okay, left it as it was.",
                                                       {{kStatus}},
                                                       RemoteReply::Placement::replace(),
                                                       std::nullopt,
                                                       false}));
    EXPECT_EQ(RemoteReplies::enabled(true),
              (RemoteReply{"\u25B6\uFE0F <b>Tavra is on</b>\nThe Mac stays awake while agents work.",
                           {{kStatus}},
                           RemoteReply::Placement::replace(),
                           "Tavra on",
                           false}));
    EXPECT_EQ(RemoteReplies::enabled(false),
              (RemoteReply{"\u23F9 <b>Tavra is off</b>\nThe Mac sleeps normally and agents aren't watched.",
                           {{{"\u25B6\uFE0F Turn on", "on"}}},
                           RemoteReply::Placement::replace(),
                           "Tavra off",
                           false}));
}

// ---- Report ------------------------------------------------------------------

class ReportReplyTest : public ::testing::Test {
protected:
    testing::ScopedIcuDefaults icu{"en_GB", "UTC"};
    Date now = sampleNow();

    Report::RunSummary summary(int i, Outcome outcome = Outcome::finished) {
        Report::RunSummary s;
        s.run = RunKey{AgentKind::codex, "s" + std::to_string(i)};
        s.firstSeen = minutesFrom(now, -100 + i);
        s.lastSeen = minutesFrom(now, -90 + i);
        s.workingSeconds = 60.0 * i;
        s.outcome = outcome;
        return s;
    }
    Report withRuns(int count) {
        Report report;
        report.since = minutesFrom(now, -720);
        report.generatedAt = now;
        for (int i = 1; i <= count; ++i) report.runs.push_back(summary(i));
        return report;
    }
};

TEST_F(ReportReplyTest, EmptyReportAtEachPeriodMarksItsButton) {
    const std::tuple<std::int64_t, std::string, std::size_t> cases[] = {
        {12, "Last 12 hours", 0}, {24, "Last 24 hours", 1}, {72, "Last 3 days", 2}, {168, "Last 7 days", 3}};
    for (const auto& [hours, title, marked] : cases) {
        auto reply = RemoteReplies::report(withRuns(0), hours);
        EXPECT_EQ(reply.html, "\U0001F4CA <b>" + title + "</b>\nNo agent runs in this period.");
        std::vector<AlertAction> periods{
            {"12h", "report 12"}, {"24h", "report 24"}, {"3d", "report 72"}, {"7d", "report 168"}};
        periods[marked].label = "\u2022 " + periods[marked].label + " \u2022";
        EXPECT_EQ(reply.buttons, (Rows{periods, {kStatus}})) << hours;
        EXPECT_EQ(reply.placement, RemoteReply::Placement::replace());
    }
}

TEST_F(ReportReplyTest, OtherPeriodsAreNamedAndMarkNoButton) {
    const std::pair<std::int64_t, std::string> cases[] = {
        {48, "Last 2 days"}, {36, "Last 36 hours"}, {1, "Last hour"}, {720, "Last 30 days"}};
    for (const auto& [hours, title] : cases) {
        auto reply = RemoteReplies::report(withRuns(0), hours);
        EXPECT_EQ(reply.html.substr(0, reply.html.find('\n')), "\U0001F4CA <b>" + title + "</b>");
        for (const auto& button : reply.buttons[0]) EXPECT_EQ(button.label.find("\u2022"), std::string::npos);
    }
}

TEST_F(ReportReplyTest, OneRunInFull) {
    Report report = withRuns(0);
    auto run = summary(0, Outcome::paused);
    run.run.agent = AgentKind::claude;
    run.project = "a<b";
    run.firstSeen = minutesFrom(now, -30);
    run.lastSeen = minutesFrom(now, 15);
    run.workingSeconds = 3900;
    run.turnsFinished = 2;
    run.pauses = {"09:05 thermal", "09:10 user", "09:15 <odd>", "09:20 stuck", "09:25 remote"};
    report.runs = {run};
    report.guards = {"g1", "g2", "g3", "g4", "g5", "g6 & more"};
    report.sleeps = {"09:40 lid closed"};

    auto reply = RemoteReplies::report(report, 24);
    EXPECT_EQ(reply.html,
              "\U0001F4CA <b>Last 24 hours</b>\n"
              "1 run \u00b7 1h 5m of work \u00b7 2 turns done\n"
              "\n"
              "\u23F8 <b>Claude</b> \u00b7 a&lt;b\n"
              "     1h 5m \u00b7 2 turns \u00b7 09:00\u201309:45\n"
              "     \u23F8 09:05 thermal\n"
              "     \u23F8 09:10 user\n"
              "     \u23F8 09:15 &lt;odd&gt;\n"
              "\n"
              "\U0001F6E1 <b>Guards</b>\n"
              "\u2022 g2\n\u2022 g3\n\u2022 g4\n\u2022 g5\n\u2022 g6 &amp; more\n"
              "\n"
              "\U0001F634 <b>Sleeps</b>\n"
              "\u2022 09:40 lid closed");
}

TEST_F(ReportReplyTest, EightRunsShowWhollyTwelveShowTheLastEight) {
    auto eight = RemoteReplies::report(withRuns(8), 12).html;
    EXPECT_EQ(eight.find("earlier"), std::string::npos);
    EXPECT_NE(eight.find("\n8 runs \u00b7 36m of work\n"), std::string::npos) << eight;
    EXPECT_NE(eight.find("\n\u2705 <b>Codex</b>\n     1m \u00b7 07:51\u201308:01\n"), std::string::npos);

    auto twelve = RemoteReplies::report(withRuns(12), 12).html;
    EXPECT_NE(twelve.find("\n12 runs \u00b7 1h 18m of work\n"), std::string::npos) << twelve;
    EXPECT_EQ(twelve.find("     4m \u00b7"), std::string::npos);  // run 4 is left out
    EXPECT_NE(twelve.find("     5m \u00b7 07:55\u201308:05\n"), std::string::npos);
    EXPECT_TRUE(twelve.ends_with("     12m \u00b7 08:02\u201308:12\n\n<i>\u2026and 4 earlier</i>")) << twelve;
    std::size_t headings = 0;
    for (std::size_t at = 0; (at = twelve.find("<b>Codex</b>", at)) != std::string::npos; ++at) ++headings;
    EXPECT_EQ(headings, 8u);
}

TEST_F(ReportReplyTest, OutcomesAndTurnCounts) {
    Report report = withRuns(0);
    const std::pair<Outcome, std::string> icons[] = {{Outcome::finished, "\u2705"},
                                                     {Outcome::running, "\U0001F7E2"},
                                                     {Outcome::paused, "\u23F8"},
                                                     {Outcome::ended, "\u23F9"}};
    for (const auto& [outcome, icon] : icons) {
        auto run = summary(1, outcome);
        run.turnsFinished = 1;
        report.runs = {run};
        auto html = RemoteReplies::report(report, 12).html;
        EXPECT_NE(html.find("\n1 run \u00b7 1m of work \u00b7 1 turn done\n\n" + icon +
                            " <b>Codex</b>\n     1m "
                            "\u00b7 1 turn \u00b7 "),
                  std::string::npos)
            << html;
    }
}

}  // namespace
}  // namespace tavra
